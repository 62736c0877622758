// The part of the harness that deals with the daemon and its socket.
#include "harness.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "proto/frame.h"

namespace system_test {

namespace {

// By default freed blocks up to 256 MiB are held back, which would hide any growth.
constexpr char sanitizer_options[] = "ASAN_OPTIONS=quarantine_size_mb=4:detect_leaks=1";

[[noreturn]] void fail(const char *what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

std::string content_of(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

bool has_sanitizer_report(const std::string &text) {
    for (const char *mark : {"Sanitizer", "runtime error:"})
        if (text.find(mark) != text.npos) return true;
    return false;
}

} // namespace

// ---- RawSocket ----

RawSocket::RawSocket(const std::string &path)
    : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw std::runtime_error("the path is too long");
    std::memcpy(address.sun_path, path.data(), path.size());
    if (connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail("connect");
}

std::size_t RawSocket::send_some(std::string_view bytes) {
    const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) return static_cast<std::size_t>(sent);
    if (errno != EAGAIN && errno != EINTR) fail("send");
    return 0;
}

void RawSocket::send(std::string_view bytes) {
    const Deadline deadline = patience();
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
        if (sent >= 0) continue;
        if (errno == EPIPE || errno == ECONNRESET) return;
        if (errno != EAGAIN && errno != EINTR) fail("send");
        if (!await_ready(fd_.get(), POLLOUT, deadline))
            throw std::runtime_error("the daemon does not read");
    }
}

void RawSocket::end_sending() {
    shutdown(fd_.get(), SHUT_WR); // the daemon may have been faster, which is the same
}

// False at the end of the connection. A reset is an end as well: it tells that the daemon closed
// before it had read everything.
bool RawSocket::fill() {
    char bytes[65536];
    for (;;) {
        const ssize_t got = recv(fd_.get(), bytes, sizeof bytes, 0);
        if (got > 0) in_.append(bytes, static_cast<std::size_t>(got));
        if (got > 0) return true;
        if (got == 0 || errno == ECONNRESET) return false;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) fail("recv");
        if (!await_ready(fd_.get(), POLLIN, patience()))
            throw std::runtime_error("the daemon neither answers nor ends the connection");
    }
}

std::optional<v1::Event> RawSocket::cut() {
    std::string_view message;
    std::size_t consumed = 0;
    const ds::proto::Cut result = ds::proto::cut_frame(in_, message, consumed);
    if (result == ds::proto::Cut::too_long)
        throw std::runtime_error("the daemon sent a frame that is too long");
    if (result == ds::proto::Cut::partial) return std::nullopt;
    v1::Event event;
    if (!event.ParseFromArray(message.data(), static_cast<int>(message.size())))
        throw std::runtime_error("the daemon sent a frame that is no Event");
    in_.erase(0, consumed);
    return event;
}

std::optional<v1::Event> RawSocket::receive() {
    for (;;) {
        if (std::optional<v1::Event> event = cut()) return event;
        if (!fill()) break;
    }
    if (!in_.empty()) throw std::runtime_error("the connection ended in the middle of a frame");
    return std::nullopt;
}

std::vector<v1::Event> RawSocket::receive_to_end() {
    std::vector<v1::Event> events;
    while (std::optional<v1::Event> event = receive())
        events.push_back(std::move(*event));
    return events;
}

bool RawSocket::has_event() {
    char byte = 0;
    return !in_.empty() || recv(fd_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

std::size_t RawSocket::receive_bytes(std::size_t bytes_max) {
    if (!await_ready(fd_.get(), POLLIN, patience())) throw std::runtime_error("nothing came");
    std::string bytes(bytes_max, '\0');
    const ssize_t got = recv(fd_.get(), bytes.data(), bytes.size(), 0);
    if (got < 0) fail("recv");
    return static_cast<std::size_t>(got);
}

// ---- Daemon ----

Daemon::Daemon(const Options &options) : runtime_dir_(options.runtime_dir) {
    if (runtime_dir_.empty()) runtime_dir_ = own_dir_.emplace().path();
    socket_ = runtime_dir_ + "/ds.sock";
    const std::string log = log_dir_.path() + "/stderr";
    const Descriptor err(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (err.get() < 0) fail("open");
    Launch dsd;
    dsd.arguments = options.enter;
    for (const std::string &argument : {dsd_program(), std::string("--runtime-dir"), runtime_dir_})
        dsd.arguments.push_back(argument);
    dsd.arguments.insert(dsd.arguments.end(), options.arguments.begin(), options.arguments.end());
    dsd.environment = options.environment;
    dsd.environment.emplace_back(sanitizer_options);
    dsd.descriptors_max = options.descriptors_max;
    dsd.out = out_.writer.get();
    dsd.err = err.get();
    process_.emplace(launch(dsd));
    out_.writer.reset();
    const std::optional<std::string> line = read_line(out_.reader.get(), out_buffer_);
    if (line != "dsd: ready on " + socket_)
        throw std::runtime_error("the daemon did not get ready: " + line.value_or("it ended") +
                                 "\n" + stderr_text());
}

Daemon::~Daemon() {
    try {
        stop();
    } catch (const std::exception &error) {
        ADD_FAILURE() << "stopping the daemon: " << error.what();
    }
}

void Daemon::stop() {
    if (process_->is_reaped()) return;
    process_->signal(SIGTERM);
    await_exit();
}

void Daemon::await_exit() {
    const Exit exit = process_->wait();
    const std::string text = stderr_text();
    EXPECT_EQ(exit, (Exit{0, 0})) << "the daemon's stderr:\n" << text;
    EXPECT_FALSE(has_sanitizer_report(text)) << text;
}

void Daemon::kill() {
    process_->signal(SIGKILL);
    process_->wait();
}

std::string Daemon::stderr_text() const {
    return content_of(log_dir_.path() + "/stderr");
}

std::string Daemon::next_line() {
    const std::optional<std::string> line = read_line(out_.reader.get(), out_buffer_);
    if (!line) throw std::runtime_error("the daemon has ended\n" + stderr_text());
    return *line;
}

std::size_t Daemon::memory_bytes() const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("RssAnon:")) return std::stoul(line.substr(8)) * 1024;
    throw std::runtime_error("the daemon's memory cannot be read");
}

std::size_t Daemon::descriptor_count() const {
    std::size_t count = 0;
    for (const auto &entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid()) + "/fd"))
        count += entry.path().empty() ? 0 : 1;
    return count;
}

} // namespace system_test
