#ifndef PLATFORM_DBLY_H
#define PLATFORM_DBLY_H
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef struct dbly_linkage {  /* zero-filled = not linked; null-terminated list, never circular */
    struct dbly_linkage *next; /* linkage of the next member, null at the end */
    struct dbly_linkage
        *prev; /* linkage of the member before, or the LIST HEAD itself for the first member */
} dbly_linkage_t;
typedef dbly_linkage_t
    dbly_head_t; /* zero-filled = empty; next = first member or null; prev always null */
void dbly_linkage_link(dbly_linkage_t *after,
                       dbly_linkage_t *linkage); /* links directly behind after, which is a member's
                                                    linkage or a head */
void dbly_linkage_delink(dbly_linkage_t *linkage); /* unlinks and leaves next = prev = null; a no-op
                                                      on an unlinked linkage */
/* record that contains a linkage, null for a null linkage */
#define DBLY_RECORD(linkage, type, member)                                                         \
    ((linkage) == NULL ? (type *)NULL : (type *)((char *)(linkage)-offsetof(type, member)))
#ifdef __cplusplus
}
#endif
#endif
