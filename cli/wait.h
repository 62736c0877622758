// Waiting for whatever comes first: the daemon, input, the user's wish to stop, a deadline.
#pragma once
#include <csignal>

#include "cli/daemon.h"

namespace ds::cli {

// While it lives, SIGINT, SIGTERM and SIGHUP are not delivered but make fd() readable. A signal
// that was ignored when the program started (as under nohup) stays ignored.
class StopSignals {
  public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    int fd() const { return fd_; }
    // The mask that was in force before, for a child process.
    const sigset_t &mask_before() const { return before_; }

  private:
    sigset_t before_{};
    int fd_ = -1;
};

struct Wake {
    bool daemon = false; // events may be read, or the connection has ended
    bool input = false;  // standard input may be read, or has ended
    bool stop = false;   // a stop signal came
    bool timeout = false;
};

// input_fd: -1 for none. Reports everything that is ready; `timeout` only when nothing is.
Wake wait_for(const Daemon &daemon, const StopSignals &stop, int input_fd,
              client::Deadline deadline);

} // namespace ds::cli
