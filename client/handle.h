// The handle of the client library: one connection, and all that is to be restored on it.
//
// Everything happens in dispatch(), which never waits. Callbacks are made between two steps of it,
// when no list is walked and no event is half handled; so they may make and destroy items, and
// doom the handle.
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>

#include "client/backoff.h"
#include "client/ds_client.h"
#include "client/item.h"
#include "client/stream.h"

struct ds_publication;
struct ds_registration;

namespace ds::client {

// The options, checked, with everything that was left open filled in.
struct Settings {
    std::string socket;
    std::string display_name;
    std::uint32_t backoff_first_ms = 0;
    std::uint32_t backoff_max_ms = 0;
    std::uint64_t backoff_seed = 0;
    std::uint32_t answer_ms = 0;
    bool reconnects = true;
    ds_client_state_fn state_fn = nullptr;
    void *ctx = nullptr;
};

// Where an item belongs, which is also the order in which they are restored.
enum class Kind { publication, registration, query };

// What a dispatch returns when a callback has destroyed the handle; outside it is DS_CLIENT_OK.
inline constexpr int handle_is_gone = 1;

} // namespace ds::client

struct ds_client_handle {
  public:
    explicit ds_client_handle(ds::client::Settings settings);
    ~ds_client_handle();
    ds_client_handle(const ds_client_handle &) = delete;
    ds_client_handle &operator=(const ds_client_handle &) = delete;

    // Makes the descriptors; false with errno.
    bool open();
    int fd() const { return poll_fd_; }

    // One of the errors of ds_client_dispatch(), or handle_is_gone.
    int dispatch();
    // The user's wish to end it: at once, or behind the callback that is running.
    void destroy();
    bool is_dispatching() const { return dispatching_; }
    bool is_doomed() const { return doomed_; }

    bool is_connected() const { return state_ == DS_CLIENT_CONNECTED; }
    // Nothing will happen any more: the connection is lost and is not to be made again.
    bool is_over() const;
    bool is_settled() const;
    int last_error() const { return error_; }
    void get_info(ds_client_info_t &info) const;

    // ---- for items ----

    // Takes a new item, which is made with new.
    void adopt(ds::client::Item &item, ds::client::Kind kind);
    // The item has something to ask.
    void queue(ds::client::Item &item);
    // The item's user is to be told.
    void note(ds::client::Item &item);
    // The user has destroyed the item. What it has to take back is queued before.
    void orphan(ds::client::Item &item);
    // Frees an orphan that is owed nothing.
    void release_if_done(ds::client::Item &item);
    // Drops the callback of a query; nothing when there is no such query.
    void cancel(std::uint64_t query_id);

    // Publications by ds_publication::key(), registrations by their cookies, as far as they have
    // users.
    std::map<std::string, ds_publication *> publications_by_key;
    std::unordered_map<std::uint64_t, ds_registration *> registrations_by_cookie;
    std::uint64_t next_id = 1; // of registrations and queries
    std::uint32_t query_count = 0;

  private:
    struct InFlight {
        std::uint32_t seq;
        ds::v1::Request::BodyCase kind;
        ds::client::Item *item; // null: the greeting
    };
    using Owned = ds::client::ItemList<ds::client::OwnerTag>;

    void step();
    void on_timer();
    void attempt();
    void greet();
    void receive();
    bool take_events();
    void take_event(ds::v1::Event &event);
    void take_reply(ds::v1::Reply &reply);
    void take_greeting(ds::v1::Reply &reply);
    void take_notification(ds::v1::Notification &notification);
    void take_withdrawn(const ds::v1::Withdrawn &withdrawn);
    void send();
    void fill_output();
    void tell_all();
    void lose(int error, std::string reason) noexcept;
    void lose(ds::client::Outcome outcome) noexcept;
    void lose(ds::v1::Reply &reply) noexcept;
    void schedule(std::uint32_t wait_ms) noexcept;
    void arm(int result) noexcept;
    void arm_timer(bool now) noexcept;
    void arm_socket() noexcept;

    ds::client::Settings settings_;
    ds::client::Backoff backoff_;
    int poll_fd_ = -1;
    int timer_fd_ = -1;
    ds::client::Stream stream_;
    bool watches_writing_ = false; // what poll_fd_ is told about the socket
    ds::client::Deadline due_;     // of the next attempt or of the greeting; or no_deadline
    // Of the attempt under way, which a full queue of the listener draws out; or no_deadline.
    ds::client::Deadline give_up_at_ = ds::client::no_deadline;
    ds::client::Deadline connected_at_; // while connected
    ds_client_state_t state_ = DS_CLIENT_CONNECTING;
    bool state_is_news_ = false;
    int error_ = DS_CLIENT_OK;
    ds::v1::Status status_ = ds::v1::STATUS_OK; // that the last loss was told with
    std::string reason_;
    ds::v1::HelloReply hello_;
    std::uint64_t connect_count_ = 0;
    bool dispatching_ = false;
    bool doomed_ = false; // destroyed from within a callback

    std::deque<InFlight> in_flight_;
    Owned publications_, registrations_, queries_; // in the order of their making
    Owned orphans_;
    Owned dead_; // freed at the end of a dispatch
    ds::client::ItemList<ds::client::WorkTag> work_;
    ds::client::ItemList<ds::client::NoteTag> notes_;
};
