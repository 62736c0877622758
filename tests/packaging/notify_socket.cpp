#include "notify_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace operation_test {

namespace {

[[noreturn]] void fail(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

Descriptor bound_socket(const std::string &path, int type, bool is_listening) {
    Descriptor fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    const auto bytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), bytes) != 0) fail("bind");
    if (is_listening && listen(fd.get(), SOMAXCONN) != 0) fail("listen");
    return fd;
}

// ---- NotifySocket ----

NotifySocket::NotifySocket()
    : path_(dir_.path() + "/notify"), fd_(bound_socket(path_, SOCK_DGRAM, false)) {}

std::optional<std::string> NotifySocket::next_now() {
    std::array<char, 4096> bytes;
    const ssize_t got = recv(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got < 0 && errno == EAGAIN) return std::nullopt;
    if (got < 0) fail("recv");
    return std::string(bytes.data(), static_cast<std::size_t>(got));
}

std::string NotifySocket::next() {
    if (!await_ready(fd_.get(), POLLIN, patience())) throw std::runtime_error("nobody notifies");
    return *next_now();
}

void NotifySocket::await(const std::string &message) {
    while (next() != message)
        continue;
}

// ---- Started ----

Launch dsd(std::vector<std::string> arguments) {
    Launch launch;
    launch.arguments = std::move(arguments);
    launch.arguments.insert(launch.arguments.begin(), dsd_program());
    return launch;
}

Finished run_dsd(std::vector<std::string> arguments) {
    return run(dsd(std::move(arguments)));
}

Started::Started(Launch launch) : process_(start(launch, out_, log_dir_.path() + "/stderr")) {
    const std::optional<std::string> line = read_line(out_.reader.get(), buffer_);
    if (!line) throw std::runtime_error("the daemon did not get ready\n" + stderr_text());
    first_line_ = *line;
}

Process Started::start(Launch &program, Pipe &out, const std::string &log) {
    const Descriptor err(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (err.get() < 0) fail("open");
    program.out = out.writer.get();
    if (program.err < 0) program.err = err.get();
    Process process = launch(program);
    out.writer.reset();
    return process;
}

Exit Started::stop() {
    process_.signal(SIGTERM);
    return process_.wait();
}

std::string Started::next_line() {
    const std::optional<std::string> line = read_line(out_.reader.get(), buffer_);
    if (!line) throw std::runtime_error("the daemon has ended\n" + stderr_text());
    return *line;
}

std::string Started::stderr_text() const {
    std::ostringstream text;
    text << std::ifstream(log_dir_.path() + "/stderr").rdbuf();
    return text.str();
}

} // namespace operation_test
