// A server that speaks the daemon's protocol and keeps nothing: what remains of the daemon without
// a directory.
//
//   ds_null_server SOCKET
//
// It runs the daemon's loop, reads each session once per turn, decodes every request, acknowledges
// it and writes each session once per turn. Whatever a client asks for succeeds; nobody is ever
// notified.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/frame_reader.h"
#include "host/listener.h"
#include "host/loop.h"
#include "host/runtime_directory.h"
#include "host/wire.h"

namespace {

using namespace ds;
using host::Loop;
using host::UniqueFd;

class Session;

// Sessions by descriptor, and those that have something to send or are gone.
struct Sessions {
    std::unordered_map<int, std::unique_ptr<Session>> all;
    std::vector<Session *> to_flush;
    std::vector<int> to_remove;
};

class Session final : public host::Handler {
  public:
    Session(Loop &loop, Sessions &sessions, UniqueFd fd)
        : loop_(loop), sessions_(sessions), fd_(std::move(fd)) {
        loop_.watch(fd_.get(), EPOLLIN, *this);
    }
    ~Session() { loop_.forget(fd_.get()); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void on_ready(std::uint32_t events) override;
    void flush();

  private:
    bool read();
    void answer(const v1::Request &request);
    void watch_for(std::uint32_t events);
    void gone();

    Loop &loop_;
    Sessions &sessions_;
    UniqueFd fd_;
    host::FrameReader reader_;
    std::string out_;
    std::size_t sent_ = 0; // of out_
    std::uint32_t watched_ = EPOLLIN;
    std::uint32_t handle_ = 0;
    bool is_gone_ = false;
};

void Session::on_ready(std::uint32_t events) {
    if (is_gone_) return;
    if ((events & EPOLLOUT) != 0)
        sessions_.to_flush.push_back(this);
    else if (!read())
        gone();
}

bool Session::read() {
    static std::array<char, 64 * 1024> buffer;
    static v1::Request request;
    const ssize_t bytes = recv(fd_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (bytes <= 0) return bytes < 0 && (errno == EAGAIN || errno == EINTR);

    const bool was_idle = out_.empty();
    reader_.supply({buffer.data(), static_cast<std::size_t>(bytes)});
    std::string_view message;
    proto::Cut cut = reader_.next(message);
    for (; cut == proto::Cut::complete; cut = reader_.next(message)) {
        if (!request.ParseFromArray(message.data(), static_cast<int>(message.size()))) return false;
        answer(request);
    }
    reader_.settle();
    if (was_idle && !out_.empty()) sessions_.to_flush.push_back(this);
    return cut == proto::Cut::partial;
}

void Session::answer(const v1::Request &request) {
    static v1::Reply reply;
    reply.Clear();
    reply.set_seq(request.seq());
    if (request.has_hello()) {
        reply.mutable_hello()->set_protocol(proto::protocol_version);
        reply.mutable_hello()->set_frame_bytes_max(proto::frame_bytes_max);
    } else if (request.has_publish()) {
        reply.set_service_id(1);
        reply.set_generation(1);
    } else if (request.has_register_()) {
        reply.set_handle(++handle_);
    }
    host::append_event(out_, v1::Event::kReplyFieldNumber, reply);
}

// A session whose answers do not fit is not read from until they do.
void Session::flush() {
    if (is_gone_) return;
    const ssize_t bytes =
        send(fd_.get(), out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (bytes < 0 && errno != EAGAIN && errno != EINTR) return gone();
    if (bytes > 0) sent_ += static_cast<std::size_t>(bytes);
    const bool is_blocked = sent_ < out_.size();
    if (!is_blocked) {
        out_.clear();
        sent_ = 0;
    }
    watch_for(is_blocked ? EPOLLOUT : EPOLLIN);
}

void Session::watch_for(std::uint32_t events) {
    if (events == watched_) return;
    watched_ = events;
    loop_.change(fd_.get(), events, *this);
}

void Session::gone() {
    is_gone_ = true;
    sessions_.to_remove.push_back(fd_.get());
}

void run(const char *path) {
    Loop loop;
    Sessions sessions;
    host::Listener listener(loop, host::listen_at(path), [&](UniqueFd fd) {
        const int key = fd.get();
        sessions.all[key] = std::make_unique<Session>(loop, sessions, std::move(fd));
    });
    loop.at_end_of_turn([&sessions] {
        for (Session *session : sessions.to_flush)
            session->flush();
        sessions.to_flush.clear();
        for (const int fd : sessions.to_remove)
            sessions.all.erase(fd);
        sessions.to_remove.clear();
    });
    loop.watch_signals({SIGTERM, SIGINT}, [&loop](int) { loop.stop(); });
    sd_notify(0, "READY=1");
    loop.run();
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: ds_null_server SOCKET\n");
        return 2;
    }
    try {
        run(argv[1]);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "ds_null_server: %s\n", error.what());
        return 1;
    }
    return 0;
}
