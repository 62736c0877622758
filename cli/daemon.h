// The client library as the verbs use it: owned, with outcomes that can be told to a user.
//
// One attempt to connect and no other: whoever runs a command wants to know that the daemon went
// away.
#pragma once
#include <string>

#include "client/ds_client.h"
#include "client/outcome.h"

namespace ds::cli {

class Daemon {
  public:
    Daemon() = default;
    ~Daemon() { ds_client_destroy(handle_); }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // Once.
    client::Outcome connect(const std::string &path, client::Deadline deadline);
    // Valid behind connect(), also when that failed.
    ds_client_handle_t *get() const { return handle_; }
    int fd() const { return ds_client_fd(handle_); }

    // Asks and waits for the answer. `reply` is written when the daemon answered, also for
    // `refused`.
    client::Outcome call(const v1::Request &request, v1::Reply &reply, client::Deadline deadline);
    // Does what is due. Fails when the connection is lost.
    client::Outcome dispatch();
    // What an error of the library means here; for a lost connection with the reason.
    client::Outcome outcome_of(int error) const;

  private:
    ds_client_handle_t *handle_ = nullptr;
};

// The message that a snapshot of the library was made of.
v1::Snapshot to_message(const ds_client_snapshot_t &snapshot);

} // namespace ds::cli
