#include "host/service_manager.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <systemd/sd-daemon.h>

#include "host/runtime_directory.h"

namespace ds::host {

namespace {

constexpr std::uint64_t ns_per_us = 1'000;
constexpr std::uint64_t signs_per_period = 2; // so that one may come late

std::string path_of(int fd) {
    sockaddr_un address = {};
    socklen_t bytes = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &bytes) != 0) return {};
    const std::size_t path_bytes = bytes - offsetof(sockaddr_un, sun_path);
    return std::string(address.sun_path, strnlen(address.sun_path, path_bytes));
}

std::uint64_t watchdog_interval_ns() {
    std::uint64_t period_us = 0;
    if (sd_watchdog_enabled(0, &period_us) <= 0) return 0;
    return period_us * ns_per_us / signs_per_period;
}

} // namespace

PassedSocket take_passed_socket() {
    const int count = sd_listen_fds(1); // not for processes that this one may start
    if (count < 0)
        throw StartError(std::string("cannot take the passed socket: ") + std::strerror(-count));
    if (count == 0) return {};
    if (count > 1)
        throw StartError("the service manager passed " + std::to_string(count) +
                         " sockets; one is expected");
    UniqueFd fd(SD_LISTEN_FDS_START);
    constexpr int is_listening = 1;
    if (sd_is_socket_unix(fd.get(), SOCK_STREAM, is_listening, nullptr, 0) <= 0)
        throw StartError(
            "what the service manager passed is not a UNIX stream socket that listens");
    std::string path = path_of(fd.get());
    if (path.empty()) throw StartError("the socket that the service manager passed has no path");
    if (fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0)
        throw StartError(std::string("cannot use the passed socket: ") + std::strerror(errno));
    return {std::move(fd), std::move(path)};
}

ServiceManager::ServiceManager(Loop &loop, std::function<std::string()> describe)
    : loop_(loop), describe_(std::move(describe)), watchdog_ns_(watchdog_interval_ns()),
      watchdog_([this] { feed_watchdog(); }), status_([this] { tell_status(); }) {
    if (watchdog_ns_ > 0) feed_watchdog();
    if (std::getenv("NOTIFY_SOCKET") != nullptr) loop_.arm(status_, loop_.now_ns() + status_ns);
}

ServiceManager::~ServiceManager() {
    loop_.disarm(watchdog_);
    loop_.disarm(status_);
}

void ServiceManager::ready() {
    told_ = describe_();
    sd_notify(0, ("READY=1\nSTATUS=" + told_).c_str());
}

void ServiceManager::reloading() {
    const std::string now_us = std::to_string(loop_.now_ns() / ns_per_us);
    sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + now_us).c_str());
}

void ServiceManager::stopping() {
    loop_.disarm(status_);
    sd_notify(0, "STOPPING=1\nSTATUS=sending what is queued, then stopping");
}

void ServiceManager::feed_watchdog() {
    sd_notify(0, "WATCHDOG=1");
    loop_.arm(watchdog_, loop_.now_ns() + watchdog_ns_);
}

void ServiceManager::tell_status() {
    std::string text = describe_();
    if (text != told_) sd_notify(0, ("STATUS=" + text).c_str());
    told_ = std::move(text);
    loop_.arm(status_, loop_.now_ns() + status_ns);
}

} // namespace ds::host
