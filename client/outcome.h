// How an operation of a client ends, and when it stops waiting.
#pragma once
#include <chrono>
#include <string>

#include "ds.pb.h"

namespace ds::client {

// When to stop waiting. `no_deadline` waits for as long as it takes; a moment in the past only
// takes what is there already.
using Deadline = std::chrono::steady_clock::time_point;
inline constexpr Deadline no_deadline = Deadline::max();
inline constexpr Deadline no_wait = Deadline::min();
inline Deadline deadline_in(std::chrono::milliseconds wait) {
    return std::chrono::steady_clock::now() + wait;
}

// For poll(): rounded up, so that a wait never ends just before its deadline and spins; -1 for
// no_deadline.
int left_ms(Deadline deadline);

enum class Failure {
    none,
    unreachable, // nobody listens there
    timeout,     // the deadline came first
    closed,      // the daemon ended the connection
    protocol,    // the peer does not speak this protocol, or refused to go on with it
    refused      // the daemon answered with a status other than OK
};

// How an operation ended. `text` is one sentence for a person, empty on success; `status` is
// meaningful for `refused` and for a `protocol` failure that the daemon reported.
struct [[nodiscard]] Outcome {
    Failure failure = Failure::none;
    v1::Status status = v1::STATUS_OK;
    std::string text;

    bool ok() const { return failure == Failure::none; }
};

Outcome failed(Failure failure, std::string text);
// The sentence is `what` and what errno means.
Outcome failed_errno(Failure failure, const char *what, int error);

} // namespace ds::client
