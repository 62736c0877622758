#include "host/runtime_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace ds::host {

namespace {

constexpr int backlog_max = 1024; // connections waiting to be accepted

[[noreturn]] void fail(const std::string &what) {
    throw StartError(what + ": " + std::strerror(errno));
}

std::string holder_of(int lock) {
    char text[16] = {};
    const ssize_t bytes = pread(lock, text, sizeof text - 1, 0);
    if (bytes <= 0) return "unknown pid";
    return "pid " + std::string(text, std::strcspn(text, "\n"));
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw StartError("the socket path '" + path + "' has " + std::to_string(path.size()) +
                         " bytes; 1 to " + std::to_string(sizeof address.sun_path - 1) +
                         " are allowed");
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

UniqueFd unix_socket() {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) fail("cannot make a socket");
    return fd;
}

// Removes what a dead daemon left at the path. Nobody listens there when a connection is refused.
void remove_stale_socket(const std::string &path, const sockaddr_un &address) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode))
        throw StartError(path + " exists and is not a socket; it is left alone");
    const UniqueFd probe = unix_socket();
    const int result =
        connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (result == 0 || errno != ECONNREFUSED)
        throw StartError("another process listens on " + path);
    if (unlink(path.c_str()) != 0) fail("cannot remove the stale socket " + path);
}

} // namespace

void make_directory(const std::string &path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) throw StartError("cannot make the directory " + path + ": " + error.message());
}

RuntimeDirectory::RuntimeDirectory(const std::string &path) {
    make_directory(path);
    const std::string lock_path = path + "/dsd.lock";
    lock_ = UniqueFd(open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!lock_) fail("cannot open " + lock_path);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) fail("cannot lock " + lock_path);
        throw StartError("another daemon (" + holder_of(lock_.get()) + ") runs in " + path);
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    const bool written =
        ftruncate(lock_.get(), 0) == 0 &&
        pwrite(lock_.get(), pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size());
    if (!written) fail("cannot write " + lock_path);
}

UniqueFd listen_at(const std::string &path, const SocketAccess &access) {
    const sockaddr_un address = address_of(path);
    UniqueFd fd = unix_socket();
    remove_stale_socket(path, address);
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail("cannot bind " + path);
    // Nobody can connect before listen(), so nobody slips in before the permissions are set.
    if (chown(path.c_str(), static_cast<uid_t>(-1), access.group) != 0)
        fail("cannot give " + path + " to its group");
    if (chmod(path.c_str(), access.mode) != 0) fail("cannot set the permissions of " + path);
    if (listen(fd.get(), backlog_max) != 0) fail("cannot listen on " + path);
    return fd;
}

} // namespace ds::host
