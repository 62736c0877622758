#include "server_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace ds::bench {

namespace {

constexpr int ready_timeout_ms = 10'000;

int checked(int result, const char *what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

std::filesystem::path make_directory() {
    std::string path = (std::filesystem::temp_directory_path() / "dsbench.XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) checked(-1, "mkdtemp");
    checked(chmod(path.c_str(), 0755), "chmod"); // for clients of other users
    return path;
}

// The socket on which a server tells its service manager that it is ready.
int open_notify_socket(const std::string &path) {
    const int fd = checked(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    checked(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), "bind");
    return fd;
}

} // namespace

ServerProcess::ServerProcess(const Programs &programs, Kind kind)
    : ServerProcess([&](const std::string &directory) -> std::vector<std::string> {
          if (kind == Kind::daemon) return {programs.daemon, "--runtime-dir", directory};
          return {programs.null_server, directory + "/ds.sock"};
      }) {}

ServerProcess::ServerProcess(const CommandLine &command_line)
    : directory_(make_directory()), socket_(directory_.string() + "/ds.sock") {
    const std::string notify_path = directory_.string() + "/notify";
    const int notify_fd = open_notify_socket(notify_path);
    launch(command_line(directory_.string()), notify_path);
    wait_until_ready(notify_fd);
    close(notify_fd);
}

ServerProcess::~ServerProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void ServerProcess::launch(const std::vector<std::string> &arguments,
                           const std::string &notify_path) {
    std::vector<char *> argv;
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    pid_ = checked(fork(), "fork");
    if (pid_ > 0) return;

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setenv("NOTIFY_SOCKET", notify_path.c_str(), 1);
    const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(quiet, STDOUT_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
}

void ServerProcess::wait_until_ready(int notify_fd) const {
    const int pid_fd = checked(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)), "pidfd_open");
    pollfd items[] = {{notify_fd, POLLIN, 0}, {pid_fd, POLLIN, 0}};
    const int ready = poll(items, 2, ready_timeout_ms);
    close(pid_fd);
    char text[256] = {};
    if (ready > 0 && (items[0].revents & POLLIN) != 0 &&
        recv(notify_fd, text, sizeof text - 1, 0) > 0 && std::strstr(text, "READY=1") != nullptr)
        return;
    throw std::runtime_error(ready > 0 ? "the server ended instead of becoming ready"
                                       : "the server was not ready in time");
}

double ServerProcess::cpu_seconds() const {
    clockid_t clock = 0;
    timespec used = {};
    if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("the server's CPU time cannot be read; has it ended?");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

std::uint64_t ServerProcess::own_resident_bytes() const {
    return status_bytes("RssAnon:");
}
std::uint64_t ServerProcess::resident_bytes() const {
    return status_bytes("VmRSS:");
}

std::uint64_t ServerProcess::status_bytes(const char *key) const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string word; status >> word;)
        if (word == key) {
            std::uint64_t kilobytes = 0;
            status >> kilobytes;
            return kilobytes * 1024;
        }
    throw std::runtime_error("the server's memory cannot be read; has it ended?");
}

} // namespace ds::bench
