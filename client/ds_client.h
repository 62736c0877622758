/* The client library of the directory service.
 *
 * A handle is one client: it keeps one connection to the daemon, publishes services, watches names
 * and asks questions. It connects by itself, and after a loss of the connection it connects again,
 * publishes again and registers again. Everything works without waiting: poll the descriptor of the
 * handle for reading together with your own, and call ds_client_dispatch() when it is readable.
 * Programs that have nothing else to do call ds_client_wait() in a loop instead.
 *
 * Threads.    The library starts none and has no state outside of its handles. A handle and all
 *             its objects belong to one thread at a time; different handles are independent.
 * Callbacks.  They are made from within ds_client_dispatch() and the functions that wait, never
 *             from others. A callback may call everything but these; it may destroy its own object
 *             and even the handle. It must not throw and not leave with longjmp().
 * Signals.    None is raised. Functions that wait return DS_CLIENT_ERROR_INTERRUPTED when a signal
 *             was handled meanwhile.
 * Memory.     What a function takes is copied. What a callback is given is good until it returns,
 *             what a query function gives until the next call that may change it, as said there.
 *             When memory runs out, a function has changed nothing and says so; what it
 *             had of a message by then may stay allocated.
 * fork().     A child must not use a handle of its parent; exec() closes the descriptors.
 * Structures. Each begins with `size`. Before a structure is given to the library, set `size` to
 *             its sizeof and everything else that is not used to zero:
 *                 ds_client_options_t options = {0};       (in C++: = {})
 *                 options.size = sizeof options;
 *             The library takes fields that the caller does not have as zero, and it refuses a
 *             longer structure that uses fields which the library does not have. Structures that
 *             the library makes only grow at their end; arrays of them are arrays of pointers.
 * Texts.      UTF-8 with a terminating zero. Control characters are not allowed, and names and
 *             instances hold no ';'. Lengths below are bytes without the terminating zero.
 *
 * Limits. A message between client and daemon has at most 1 MiB; a peer that announces more, or
 * sends what is no message, or answers what was not asked, loses its connection. A handle keeps at
 * most 4 MiB of unread bytes and 2 MiB of unsent ones, DS_CLIENT_QUERIES_MAX unanswered queries,
 * and per registration the newest snapshot, while it recovers from a loss also the one before:
 * 1 MiB each on the wire. There are as many publications and registrations as the caller makes. */
#ifndef DS_CLIENT_H
#define DS_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- version ---- */

/* The interface that this header describes. It rises when a program has to be compiled anew; the
   number in the file name of the shared library is the same. */
#define DS_CLIENT_ABI 1u

/* The interface of the library that is loaded; a program may compare it with DS_CLIENT_ABI. */
uint32_t ds_client_abi(void);
/* The version of the library, like "0.1.0". Never NULL. */
const char *ds_client_version(void);

/* ---- errors ---- */

/* Every function that returns int returns one of these. */
enum {
    DS_CLIENT_OK = 0,
    DS_CLIENT_ERROR_ARGUMENT = -1,     /* NULL, a text too long, a value out of range, a wrong
                                          `size` */
    DS_CLIENT_ERROR_NO_MEMORY = -2,    /* nothing has changed */
    DS_CLIENT_ERROR_SYSTEM = -3,       /* the kernel refused; errno says why */
    DS_CLIENT_ERROR_BUSY = -4,         /* not from within a callback */
    DS_CLIENT_ERROR_TIMEOUT = -5,      /* the time was over first */
    DS_CLIENT_ERROR_INTERRUPTED = -6,  /* a signal came first */
    DS_CLIENT_ERROR_UNREACHABLE = -7,  /* nobody listens there */
    DS_CLIENT_ERROR_DISCONNECTED = -8, /* there is no connection, or it ended */
    DS_CLIENT_ERROR_PROTOCOL = -9,     /* the peer does not speak this protocol */
    DS_CLIENT_ERROR_REFUSED = -10,     /* the daemon answered with a status other than OK */
    DS_CLIENT_ERROR_EXISTS = -11,      /* the handle has such a publication */
    DS_CLIENT_ERROR_LIMIT = -12,       /* too many unanswered queries */
    DS_CLIENT_ERROR_WITHDRAWN = -13    /* somebody else withdrew the publication */
};

/* One sentence without a full stop; never NULL, also for a number that is no error. */
const char *ds_client_strerror(int error);

/* How the daemon answered. More may come with newer daemons. */
enum {
    DS_CLIENT_STATUS_OK = 0,
    DS_CLIENT_STATUS_INVALID = 1,     /* a field is out of range; the text names it */
    DS_CLIENT_STATUS_NOT_FOUND = 2,   /* no such publication or name */
    DS_CLIENT_STATUS_DENIED = 3,      /* not for this user */
    DS_CLIENT_STATUS_LIMIT = 4,       /* a limit was reached; the text names it */
    DS_CLIENT_STATUS_PROTOCOL = 5,    /* the conversation is broken */
    DS_CLIENT_STATUS_UNAVAILABLE = 6, /* the daemon is stopping */
    DS_CLIENT_STATUS_INTERNAL = 7     /* the daemon is out of memory */
};

/* ---- services ---- */

enum { DS_CLIENT_SCOPE_RACK = 1, DS_CLIENT_SCOPE_SYSTEM = 2, DS_CLIENT_SCOPE_LOCAL = 3 };
enum { DS_CLIENT_HA_NONE = 0, DS_CLIENT_HA_ACTIVE = 1, DS_CLIENT_HA_STANDBY = 2 };
enum {
    DS_CLIENT_ISSU_NONE = 0,
    DS_CLIENT_ISSU_PRIMARY = 1,
    DS_CLIENT_ISSU_SECONDARY = 2,
    DS_CLIENT_ISSU_TERTIARY = 3
};

/* What is published. The endpoint is a path or, when `path` is NULL, an IPv4 address. */
typedef struct ds_client_service {
    size_t size;
    const char *name;      /* 1 to 255 bytes */
    const char *instance;  /* 0 to 254 bytes; NULL is the empty one */
    uint32_t scope;        /* DS_CLIENT_SCOPE_ ... */
    uint32_t ipv4_address; /* the first octet is the most significant byte */
    uint32_t ipv4_port;    /* 1 to 65535; not used with a path */
    uint32_t ha_role;      /* DS_CLIENT_HA_ ... */
    const char *path;      /* begins with '/', 1 to 4,000 bytes, scope LOCAL only; or NULL */
    uint32_t issu_role;    /* DS_CLIENT_ISSU_ ... */
    uint32_t issu_id;
} ds_client_service_t;

/* One live instance of a name, as the daemon tells it. */
typedef struct ds_client_instance {
    size_t size;
    const char *instance;  /* never NULL */
    uint32_t service_id;   /* the same through all changes of the publication */
    uint32_t generation;   /* 1 at publication, +1 with every change */
    uint32_t scope;        /* DS_CLIENT_SCOPE_ ... */
    uint32_t pid;          /* the publisher's process on its node */
    uint8_t node[6];       /* Ethernet address of the publisher's node; zeros when unknown */
    uint8_t is_local;      /* 1: published on this node, else 0 */
    uint8_t reserved;      /* 0 */
    uint32_t ipv4_address; /* as in ds_client_service; 0 with a path */
    uint32_t ipv4_port;    /* 0 with a path */
    uint32_t ha_role;
    const char *path; /* NULL with an IPv4 address */
    uint32_t issu_role;
    uint32_t issu_id;
} ds_client_instance_t;

/* All live instances of one name at one moment, newest publication first. */
typedef struct ds_client_snapshot {
    size_t size;
    const char *name;
    uint64_t version; /* rises with every change of the name; starts anew with the daemon */
    size_t instance_count;
    const ds_client_instance_t *const *instances; /* that many; may be NULL when there is none */
    uint8_t is_reconciling; /* 1: a restart period is open, missing instances may come back */
    uint8_t is_resynced;    /* 1: the first snapshot after a restart period */
    uint8_t reserved[6];    /* 0 */
} ds_client_snapshot_t;

/* ---- the handle ---- */

typedef struct ds_client_handle ds_client_handle_t;
typedef struct ds_publication ds_publication_t;
typedef struct ds_registration ds_registration_t;

typedef enum ds_client_state {
    DS_CLIENT_CONNECTING = 0,  /* at first, and when an attempt is under way */
    DS_CLIENT_CONNECTED = 1,   /* the daemon has answered the greeting */
    DS_CLIENT_DISCONNECTED = 2 /* until the next attempt; for good without reconnect */
} ds_client_state_t;

/* Told of every change of the connection. `error` is DS_CLIENT_OK unless disconnected, then it is
   UNREACHABLE, DISCONNECTED, PROTOCOL, REFUSED, TIMEOUT, SYSTEM or NO_MEMORY, and `reason` one
   sentence for a person; else `reason` is empty. */
typedef void (*ds_client_state_fn)(void *ctx, ds_client_handle_t *handle, ds_client_state_t state,
                                   int error, const char *reason);

enum {
    DS_CLIENT_NO_RECONNECT = 1u /* one attempt, and nothing after the connection is lost */
};

/* The n-th attempt after a loss waits a random time between 0 and backoff_first_ms * 2^n, at most
   backoff_max_ms. A connection that lasted longer than backoff_max_ms starts the count anew. */
typedef struct ds_client_options {
    size_t size;
    const char *socket;          /* path, 1 to 107 bytes; NULL: "/run/ds/ds.sock" */
    const char *display_name;    /* 0 to 255 bytes; NULL or empty: the process name */
    uint32_t backoff_first_ms;   /* 0: 50 */
    uint32_t backoff_max_ms;     /* 0: 2,000; not below backoff_first_ms */
    uint64_t backoff_seed;       /* 0: a random one; else the waits are the same in every run */
    uint32_t answer_ms;          /* how long the greeting may take; 0: 5,000 */
    uint32_t flags;              /* DS_CLIENT_NO_RECONNECT or 0 */
    ds_client_state_fn state_fn; /* or NULL */
    void *ctx;                   /* given to state_fn */
} ds_client_options_t;

/* Makes a handle. The first attempt to connect is made by the first dispatch, so that this says
   nothing about the daemon. ARGUMENT, NO_MEMORY, SYSTEM. *handle is written on success only. */
int ds_client_create(const ds_client_options_t *options, ds_client_handle_t **handle);

/* Ends the connection, which withdraws everything, and frees the handle with all its publications
   and registrations; their pointers are dead. No callback is made, not even for unanswered
   queries. NULL is fine. From within a callback, the memory goes when the dispatch returns. */
void ds_client_destroy(ds_client_handle_t *handle);

/* The descriptor to poll for reading, for as long as the handle lives. It is the handle's: do not
   read, write or close it. It becomes readable also when a time is over or requests wait to be
   sent. */
int ds_client_fd(const ds_client_handle_t *handle);

/* Does what is due without ever blocking: connects, sends, receives, makes callbacks. At most about
   1 MiB is received at a time; what is left keeps the descriptor readable. Nothing to do is fine.
   A loss of the connection is no error here; it is told by state_fn. BUSY from within a callback;
   NO_MEMORY: the connection has been given up and is made anew like after any other loss. */
int ds_client_dispatch(ds_client_handle_t *handle);

/* Functions that wait dispatch as well. timeout_ms: how long at most; 0 does not wait, a negative
   one waits for as long as it takes. All return BUSY from within a callback, TIMEOUT, INTERRUPTED,
   SYSTEM and what ds_client_dispatch() returns. */

/* Waits until there is something to dispatch, and dispatches once. Without reconnect it returns
   the error that ended the connection. */
int ds_client_wait(ds_client_handle_t *handle, int timeout_ms);

/* Waits for the connection. Without reconnect it returns the error that ended the attempt. */
int ds_client_wait_connected(ds_client_handle_t *handle, int timeout_ms);

/* Waits until the daemon has answered everything: there is a connection, no publication is PENDING
   or WITHDRAWING, no registration is PENDING, each registration has been told a first snapshot, and
   no query is unanswered. Refusals count as answers. */
int ds_client_sync(ds_client_handle_t *handle, int timeout_ms);

/* The state of a handle. Texts are good until the next dispatch or wait. */
typedef struct ds_client_info {
    size_t size;
    ds_client_state_t state;
    int error;                  /* of the last loss; DS_CLIENT_OK while connected */
    const char *reason;         /* of the last loss; never NULL */
    uint64_t session;           /* the daemon's id of this session; 0 while not connected */
    uint64_t connect_count;     /* connections made so far */
    const char *daemon_version; /* of the last connection; never NULL */
    uint8_t node[6];            /* Ethernet address of this node, of the last connection */
    uint8_t reserved[2];        /* 0 */
    uint32_t status;            /* DS_CLIENT_STATUS_ ... of the last loss when the daemon said why,
                                   as it does for REFUSED; else DS_CLIENT_STATUS_OK */
    uint32_t reserved_2;        /* 0 */
} ds_client_info_t;

/* Fills what *info has room for; set info->size before. ARGUMENT. */
int ds_client_get_info(const ds_client_handle_t *handle, ds_client_info_t *info);

/* ---- publications ---- */

typedef enum ds_publication_state {
    DS_PUBLICATION_PENDING = 0,     /* wanted, and not answered yet; the same without connection */
    DS_PUBLICATION_LIVE = 1,        /* published */
    DS_PUBLICATION_REFUSED = 2,     /* not published; tried again by an update or a reconnect */
    DS_PUBLICATION_WITHDRAWING = 3, /* withdrawal not answered yet */
    DS_PUBLICATION_WITHDRAWN = 4    /* ended; only an update publishes it again */
} ds_publication_state_t;

typedef struct ds_publication_info {
    size_t size;
    ds_publication_state_t state;
    uint32_t service_id; /* of the newest answer; 0 before */
    uint32_t generation; /* of the newest answer; 0 before */
    uint32_t status;     /* DS_CLIENT_STATUS_ ... of the newest answer. LIVE with a status other
                            than OK: the newest update was refused, the one before is in force */
    const char *text;    /* the daemon's sentence for it; never NULL */
    uint32_t by_pid;     /* WITHDRAWN by somebody else: that process and user; else 0 */
    uint32_t by_uid;
    uint8_t by_other; /* 1: WITHDRAWN by somebody else */
    uint8_t reserved[7];
} ds_publication_info_t;

/* Told of every answer of the daemon and every change of the state; `info` is good until it
   returns. */
typedef void (*ds_publication_fn)(void *ctx, ds_publication_t *publication,
                                  const ds_publication_info_t *info);

/* Publishes a service, for as long as the object lives and whenever there is a connection. Requests
   leave with the next dispatch, in the order in which they were made; after a loss publications are
   restored before registrations, each in the order of their making. One handle has one publication
   of the same name, instance and scope. fn may be NULL.
   ARGUMENT, NO_MEMORY, EXISTS. *publication is written on success only; it may be NULL, the
   publication then lives as long as the handle. */
int ds_client_publish(ds_client_handle_t *handle, const ds_client_service_t *service,
                      ds_publication_fn fn, void *ctx, ds_publication_t **publication);

/* Changes endpoint and roles, or publishes again what was refused or withdrawn. Name, instance and
   scope have to be the same. When several updates wait, the newest is sent. A refused update leaves
   the service as it was. ARGUMENT, NO_MEMORY. */
int ds_client_publication_update(ds_publication_t *publication, const ds_client_service_t *service);

/* Withdraws the service and keeps the object: WITHDRAWING, then WITHDRAWN when the daemon has
   answered or the connection is lost. Nothing when it is WITHDRAWN already. ARGUMENT. */
int ds_client_publication_withdraw(ds_publication_t *publication);

/* Waits until the publication is neither PENDING nor WITHDRAWING. OK when it is then LIVE with the
   newest update or withdrawn by ds_client_publication_withdraw(); REFUSED when it was refused,
   WITHDRAWN when somebody else withdrew it; and as said at "functions that wait". */
int ds_client_publication_wait(ds_publication_t *publication, int timeout_ms);

/* Fills what *info has room for; set info->size before. `text` is good until the next dispatch or
   wait. ARGUMENT. */
int ds_client_publication_get_info(const ds_publication_t *publication,
                                   ds_publication_info_t *info);

/* Withdraws the service and ends the object; no callback is made for it any more. The withdrawal
   leaves with the next dispatch. NULL is fine. */
void ds_client_publication_destroy(ds_publication_t *publication);

/* ---- registrations ---- */

typedef enum ds_registration_state {
    DS_REGISTRATION_PENDING = 0, /* not answered yet; the same without connection */
    DS_REGISTRATION_LIVE = 1,    /* registered */
    DS_REGISTRATION_REFUSED = 2  /* not registered; tried again after a reconnect */
} ds_registration_state_t;

typedef struct ds_registration_info {
    size_t size;
    ds_registration_state_t state;
    uint32_t status;                      /* DS_CLIENT_STATUS_ ... of the newest answer */
    const char *text;                     /* the daemon's sentence for it; never NULL */
    const char *name;                     /* what is watched */
    const ds_client_snapshot_t *snapshot; /* what is known of the name; NULL before the first */
} ds_registration_info_t;

/* Told of the name, see ds_client_watch(). The snapshot is good until it returns. */
typedef void (*ds_snapshot_fn)(void *ctx, ds_registration_t *registration,
                               const ds_client_snapshot_t *snapshot);
/* Told of every answer of the daemon and every change of the state. */
typedef void (*ds_registration_fn)(void *ctx, ds_registration_t *registration,
                                   const ds_registration_info_t *info);

/* Watches a name of 1 to 255 bytes for as long as the object lives. snapshot_fn is told what is
   published now, if only that nothing is, and after every change the state after it. Changes that
   come quickly may be told as one. Without a connection the last snapshot stays what is known.

   After a loss of the connection only news are told. A snapshot that has the same instances as the
   last one told is not told again; service_id, generation and version do not count in this
   comparison, as a daemon that started anew hands out new ones. While such a daemon gathers what is
   published (its snapshots are then is_reconciling), instances that were known before the loss
   and are missing stay in what is told; an instance is known by its name, node, instance, scope and
   pid. The first snapshot that is not is_reconciling is told as it is. That a restart period has
   begun is told along with news only; that it has ended is told when its beginning was.
   What ds_client_registration_get_info() gives is always the newest.

   snapshot_fn and state_fn may be NULL. ARGUMENT, NO_MEMORY. *registration is written on success
   only; it may be NULL, the registration then lives as long as the handle. */
int ds_client_watch(ds_client_handle_t *handle, const char *name, ds_snapshot_fn snapshot_fn,
                    ds_registration_fn state_fn, void *ctx, ds_registration_t **registration);

/* Fills what *info has room for; set info->size before. Its texts and its snapshot are good until
   the next dispatch or wait. ARGUMENT, NO_MEMORY. */
int ds_client_registration_get_info(ds_registration_t *registration, ds_registration_info_t *info);

/* Ends the registration; no callback is made for it any more. NULL is fine. */
void ds_client_registration_destroy(ds_registration_t *registration);

/* ---- queries ---- */

/* At most that many queries of a handle may be unanswered. */
#define DS_CLIENT_QUERIES_MAX 256

/* A page of a listing. */
typedef struct ds_client_names {
    size_t size;
    size_t name_count;
    const ds_client_snapshot_t *const *names; /* that many */
    const char *next; /* not empty: more names follow, ask again with `after` = this */
} ds_client_names_t;

/* Figures of the daemon. */
typedef struct ds_client_figures {
    size_t size;
    const char *daemon_version;
    const char *socket;
    const char *trace_directory;
    const char *relay; /* "none" when no relay is configured */
    uint64_t uptime_ms;
    uint32_t pid;
    uint8_t node[6]; /* Ethernet address of this node */
    uint8_t reserved[2];
    uint32_t sessions;       /* now */
    uint32_t sessions_total; /* since start */
    uint32_t names;
    uint32_t services; /* live instances, local and remote */
    uint32_t registrations;
    uint32_t reserved_2;
    uint64_t publishes;     /* accepted since start */
    uint64_t withdrawals;   /* the same */
    uint64_t notifications; /* queued to clients since start */
    uint64_t coalesced;     /* changes that slow readers were spared */
    uint64_t bad_frames;
    uint64_t queued_bytes;   /* unsent, of all sessions */
    uint64_t resident_bytes; /* of the daemon's process */
} ds_client_figures_t;

/* The answer to a query. `error` is OK, REFUSED (status and text say why) or DISCONNECTED (the
   connection ended first). Of the pointers below `text` those are set that belong to the query. */
typedef struct ds_client_reply {
    size_t size;
    int error;
    uint32_t status;     /* DS_CLIENT_STATUS_ ... */
    const char *text;    /* the daemon's sentence; never NULL */
    const void *message; /* the encoded Reply message of proto/ds.proto; NULL without an answer */
    size_t message_bytes;
    const ds_client_names_t *names;     /* of ds_client_list() */
    const ds_client_figures_t *figures; /* of ds_client_status() */
} ds_client_reply_t;

/* Told of the answer, exactly once, unless the query is cancelled or the handle destroyed. */
typedef void (*ds_client_reply_fn)(void *ctx, const ds_client_reply_t *reply);

/* Queries are answered in their order. All functions: fn must not be NULL. *query names the query
   for ds_client_cancel(); it may be NULL and is written on success only. ARGUMENT, NO_MEMORY,
   LIMIT, DISCONNECTED: there is no connection; queries are not kept for the next one. */

/* The instances of one name (NOT_FOUND when nobody publishes it), or with an empty name or NULL a
   page of all names behind `after` (NULL or empty: from the start), at most `limit` names, 0 for as
   many as fit. */
int ds_client_list(ds_client_handle_t *handle, const char *name, const char *after, uint32_t limit,
                   ds_client_reply_fn fn, void *ctx, uint64_t *query);

/* Figures of the daemon. */
int ds_client_status(ds_client_handle_t *handle, ds_client_reply_fn fn, void *ctx, uint64_t *query);

/* Withdraws the publication of this node with that name and service id, whoever published it: for
   its own user and for root. The id is not 0. */
int ds_client_withdraw(ds_client_handle_t *handle, const char *name, uint32_t service_id,
                       ds_client_reply_fn fn, void *ctx, uint64_t *query);

/* Any query, given as an encoded Request message of proto/ds.proto: for tools that ask what this
   header has no function for. `seq` is set here. Hello, Publish, Register and Unregister are
   ARGUMENT, as the handle keeps account of these itself. */
int ds_client_query(ds_client_handle_t *handle, const void *request, size_t request_bytes,
                    ds_client_reply_fn fn, void *ctx, uint64_t *query);

/* Drops the callback of a query; what was asked may happen all the same. Nothing when it has been
   answered. */
void ds_client_cancel(ds_client_handle_t *handle, uint64_t query);

#ifdef __cplusplus
}
#endif

#endif
