// Accepts connections.
//
// When the process has no descriptor left, the listener pauses: a connection that cannot be
// accepted would keep the socket readable and the loop spinning. Whoever waits stays in the
// kernel's backlog.
#pragma once
#include <functional>

#include "host/loop.h"
#include "host/unique_fd.h"

namespace ds::host {

class Listener final : private Handler {
  public:
    using Accepted = std::function<void(UniqueFd connection)>;
    Listener(Loop &loop, UniqueFd socket, Accepted accepted);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    void close(); // no more connections

  private:
    void on_ready(std::uint32_t events) override;
    void pause();

    Loop &loop_;
    UniqueFd socket_;
    Accepted accepted_;
    Alarm resume_;
    bool starved_ = false; // said once per shortage
};

} // namespace ds::host
