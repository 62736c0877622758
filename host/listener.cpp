#include "host/listener.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "host/message.h"

namespace ds::host {

namespace {

constexpr int accepts_per_turn = 2; // each takes as long as many requests, which wait meanwhile
constexpr std::uint64_t pause_ns = 100'000'000;

} // namespace

Listener::Listener(Loop &loop, UniqueFd socket, Accepted accepted)
    : loop_(loop), socket_(std::move(socket)), accepted_(std::move(accepted)),
      resume_([this] { loop_.change(socket_.get(), EPOLLIN, *this); }) {
    loop_.watch(socket_.get(), EPOLLIN, *this);
}

Listener::~Listener() {
    close();
}

void Listener::close() {
    loop_.disarm(resume_);
    if (socket_) loop_.forget(socket_.get());
    socket_.reset();
}

void Listener::on_ready(std::uint32_t) {
    for (int i = 0; i < accepts_per_turn && socket_; i++) {
        UniqueFd connection(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (connection) {
            starved_ = false;
            accepted_(std::move(connection));
            continue;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pause();
        if (errno != EINTR && errno != ECONNABORTED) return; // EAGAIN: nobody waits
    }
}

void Listener::pause() {
    const int reason = errno;
    if (!starved_)
        tell(Severity::warning, std::string("connections have to wait: ") + std::strerror(reason));
    starved_ = true;
    loop_.change(socket_.get(), 0, *this);
    loop_.arm(resume_, loop_.now_ns() + pause_ns);
    errno = reason;
}

} // namespace ds::host
