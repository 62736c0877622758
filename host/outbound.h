// The sending side of one connection.
//
//   replies_   bytes in order: answers, and the rest of a notification that was cut in the middle
//   pending_   registrations whose client has not seen the latest state, oldest mark first
//
// A notification is not queued; only the mark is. When the socket takes it, the element's latest
// state is sent. So a client that reads slowly costs the daemon one cut notification and its unread
// answers, however much changes meanwhile, and what it reads last is the newest state.
#pragma once
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ds_server_lib.h"
#include "host/counters.h"
#include "host/snapshot.h"

namespace ds::host {

class Session;

// One name that one session watches. The directory's registration carries its address.
struct Registration {
    Session *session = nullptr;
    ds_client_reg_t *record = nullptr;
    std::uint64_t cookie = 0;
    bool is_pending = false;
    bool was_reconciling = false; // so the last snapshot said; the end of the period is to be told
    Registration *previous = nullptr; // neighbours among the pending ones
    Registration *next = nullptr;
};

// The pending registrations of one session in the order of their marks.
class PendingList {
  public:
    Registration *front() const { return first_; }
    void push_back(Registration &registration);
    void remove(Registration &registration);

  private:
    Registration *first_ = nullptr;
    Registration *last_ = nullptr;
};

// Collects what one sendmsg takes; shared by all connections, since they send one after the other.
// Small snapshots are copied behind their headers, large ones are sent from the cache.
class Gather {
  public:
    struct Item {
        Registration *registration;
        std::size_t begin; // offsets in the batch
        std::size_t end;
    };

    Gather();
    void start(std::string_view replies);
    bool add(Registration &registration, const std::string &snapshot); // false: full, send first

    std::size_t bytes() const { return bytes_; }
    const std::vector<Item> &items() const { return items_; }
    msghdr header();
    // Appends the batch's bytes from begin to end.
    void copy(std::size_t begin, std::size_t end, std::string &out) const;

  private:
    void push(const char *data, std::size_t bytes);

    std::string small_; // never grows beyond its first capacity, so pointers into it stay good
    std::array<iovec, 64> parts_;
    std::size_t part_count_ = 0;
    std::size_t bytes_ = 0;
    std::vector<Item> items_;
};

// What all connections share while a turn's output is sent.
struct Output {
    SnapshotCache snapshots;
    SnapshotCache resynced{true};
    Gather gather;
    Counters counters;
};

class Outbound {
  public:
    // more: the socket may take more, and there is more.
    enum class Result { done, more, blocked, broken };

    // Answers are appended here, whole frames only.
    std::string &replies() { return replies_; }

    bool mark(Registration &registration); // false: it was marked already
    void unmark(Registration &registration);

    // Sends what goes into one write; blocked: the rest has to wait until the socket is writable.
    Result send(int fd, Output &output);

    std::size_t unsent_bytes() const { return replies_.size() - replies_sent_; }
    bool has_anything() const { return unsent_bytes() > 0 || pending_.front() != nullptr; }

  private:
    void collect(Output &output);
    void settle(std::size_t sent, Output &output);
    void drop_sent_replies(std::size_t sent);

    std::string replies_;
    std::size_t replies_sent_ = 0; // of replies_
    PendingList pending_;
};

} // namespace ds::host
