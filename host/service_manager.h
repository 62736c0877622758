// The daemon's side of the service manager that runs it: the socket that it hands over, and what it
// wants to be told. Without a service manager all of this does nothing.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "host/loop.h"
#include "host/unique_fd.h"

namespace ds::host {

// A listening socket that the service manager made and keeps. Whoever listens on it does not remove
// its file: the manager holds it open for the next daemon.
struct PassedSocket {
    UniqueFd fd; // none: nothing was passed
    std::string path;
};

// Takes the socket over, once. Throws StartError when what was passed is not exactly one listening
// UNIX stream socket with a path.
PassedSocket take_passed_socket();

// Tells the manager when the daemon is ready, loads its configuration again and stops, how it is,
// and, if the manager watches it, that its loop still turns.
class ServiceManager {
  public:
    // `describe` says in a few words how the daemon is; it is asked every `status_ns` at most.
    ServiceManager(Loop &loop, std::function<std::string()> describe);
    ~ServiceManager();
    ServiceManager(const ServiceManager &) = delete;
    ServiceManager &operator=(const ServiceManager &) = delete;

    static constexpr std::uint64_t status_ns = 10'000'000'000;

    void ready(); // at the start, and again when reloading is over
    void reloading();
    void stopping();

  private:
    void feed_watchdog();
    void tell_status();

    Loop &loop_;
    std::function<std::string()> describe_;
    std::string told_;              // the last status
    std::uint64_t watchdog_ns_ = 0; // between two signs of life; 0: nobody waits for them
    Alarm watchdog_;
    Alarm status_;
};

} // namespace ds::host
