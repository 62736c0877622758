// The part of the harness that starts, awaits and ends processes.
#include "harness.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace system_test {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool has_sanitizer = true;
#elif defined(__has_feature)
constexpr bool has_sanitizer = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool has_sanitizer = false;
#endif

constexpr std::chrono::seconds plain_patience{30};
constexpr std::chrono::seconds sanitizer_patience{60};
// Freed blocks that the address sanitizer may hold back in a daemon, see harness.cpp.
constexpr std::size_t sanitizer_slack_bytes = 24u << 20;

[[noreturn]] void fail(const char *what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

int left_ms(Deadline deadline) {
    const auto left = deadline - std::chrono::steady_clock::now();
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX));
}

// A child must not outlive the test.
void die_with(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
}

void become_nobody() {
    if (setgid(nobody) != 0 || setuid(nobody) != 0) _exit(126);
}

// Says what is passed in the environment, in the name of this process.
void pass(const std::vector<int> &descriptors) {
    constexpr int first = STDERR_FILENO + 1, out_of_the_way = 1000;
    std::vector<int> copies;
    for (const int fd : descriptors)
        copies.push_back(fcntl(fd, F_DUPFD, out_of_the_way));
    for (std::size_t i = 0; i < copies.size(); i++)
        dup2(copies[i], first + static_cast<int>(i));
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", std::to_string(descriptors.size()).c_str(), 1);
}

[[noreturn]] void execute(const Launch &launch) {
    if (launch.out >= 0) dup2(launch.out, STDOUT_FILENO);
    if (launch.err >= 0) dup2(launch.err, STDERR_FILENO);
    if (launch.descriptors_max != 0) {
        const rlimit limit = {launch.descriptors_max, launch.descriptors_max};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(126);
    }
    for (const std::string &setting : launch.environment)
        putenv(const_cast<char *>(setting.c_str()));
    std::vector<char *> arguments;
    for (const std::string &argument : launch.arguments)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    if (!launch.passed.empty()) pass(launch.passed);
    close_range(STDERR_FILENO + 1 + static_cast<unsigned>(launch.passed.size()), UINT_MAX, 0);
    execv(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

bool is_sanitized() {
    return has_sanitizer;
}

Deadline patience() {
    return std::chrono::steady_clock::now() + (has_sanitizer ? sanitizer_patience : plain_patience);
}

std::size_t growth_bound(std::size_t bytes) {
    return has_sanitizer ? 4 * bytes + sanitizer_slack_bytes : bytes;
}

bool await_ready(int fd, short events, Deadline deadline) {
    for (;;) {
        pollfd item = {fd, events, 0};
        const int ready = poll(&item, 1, left_ms(deadline));
        if (ready >= 0) return ready > 0;
        if (errno != EINTR) fail("poll");
    }
}

// ---- descriptors ----

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
    if (this != &other) {
        reset();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void Descriptor::reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

Pipe::Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
    reader = Descriptor(ends[0]);
    writer = Descriptor(ends[1]);
}

std::string read_to_end(int fd) {
    std::string text;
    const Deadline deadline = patience();
    for (;;) {
        if (!await_ready(fd, POLLIN, deadline)) throw std::runtime_error("a stream does not end");
        char bytes[4096];
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got == 0) return text;
        if (got < 0 && errno != EINTR) fail("read");
        if (got > 0) text.append(bytes, static_cast<std::size_t>(got));
    }
}

std::optional<std::string> read_line(int fd, std::string &buffer) {
    const Deadline deadline = patience();
    for (;;) {
        if (const std::size_t end = buffer.find('\n'); end != buffer.npos) {
            std::string line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return line;
        }
        if (!await_ready(fd, POLLIN, deadline)) throw std::runtime_error("no line came in time");
        char bytes[4096];
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got == 0) return std::nullopt;
        if (got < 0 && errno != EINTR) fail("read");
        if (got > 0) buffer.append(bytes, static_cast<std::size_t>(got));
    }
}

TemporaryDirectory::TemporaryDirectory() {
    char path[] = "/tmp/ds_system.XXXXXX";
    if (mkdtemp(path) == nullptr) fail("mkdtemp");
    path_ = path;
    if (chmod(path, 0755) != 0) fail("chmod");
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

// ---- processes ----

void PrintTo(const Exit &exit, std::ostream *out) {
    if (exit.signal != 0)
        *out << "ended by signal " << exit.signal;
    else
        *out << "exit code " << exit.code;
}

Process::~Process() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void Process::signal(int number) const {
    if (pid_ < 0 || ::kill(pid_, number) != 0) fail("kill");
}

Exit Process::wait() {
    const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    if (handle.get() < 0) fail("pidfd_open");
    if (!await_ready(handle.get(), POLLIN, patience()))
        throw std::runtime_error("process " + std::to_string(pid_) + " does not end");
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) fail("waitpid");
    pid_ = -1;
    if (WIFSIGNALED(status)) return {-1, WTERMSIG(status)};
    return {WEXITSTATUS(status), 0};
}

Process launch(const Launch &launch) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
        die_with(parent);
        execute(launch);
    }
    return Process(pid);
}

Finished run(Launch program) {
    const TemporaryDirectory dir;
    const std::string err_path = dir.path() + "/stderr";
    Pipe out;
    Descriptor err(open(err_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (err.get() < 0) fail("open");
    program.out = out.writer.get();
    program.err = err.get();
    Process process = launch(program);
    out.writer.reset();
    Finished finished;
    finished.out = read_to_end(out.reader.get());
    finished.exit = process.wait();
    lseek(err.get(), 0, SEEK_SET);
    finished.err = read_to_end(err.get());
    return finished;
}

Finished run_dsctl(const std::string &socket, const std::vector<std::string> &arguments) {
    Launch dsctl;
    dsctl.arguments = {dsctl_program()};
    dsctl.arguments.insert(dsctl.arguments.end(), arguments.begin(), arguments.end());
    dsctl.environment = {"DS_SOCKET=" + socket};
    return run(dsctl);
}

std::string dsd_program() {
    return DSD_PROGRAM;
}

std::string dsctl_program() {
    return DSCTL_PROGRAM;
}

// ---- client processes ----

void ClientProcess::Report::line(const std::string &text) {
    const std::string bytes = text + '\n';
    if (write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) _exit(1);
}

void ClientProcess::Report::stay() {
    for (;;)
        pause();
}

std::string ClientProcess::Report::next_command() {
    return read_line(commands_, buffer_).value_or("");
}

ClientProcess::ClientProcess(const std::function<void(Report &)> &body, bool as_nobody)
    : process_(start(body, as_nobody, pipe_.writer.get(), commands_.reader.get())) {
    pipe_.writer.reset();
    commands_.reader.reset();
}

Process ClientProcess::start(const std::function<void(Report &)> &body, bool as_nobody, int report,
                             int commands) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid > 0) return Process(pid);
    die_with(parent);
    constexpr int report_fd = STDERR_FILENO + 1;
    dup2(commands, STDIN_FILENO);
    if (report != report_fd) dup2(report, report_fd);
    close_range(report_fd + 1, UINT_MAX, 0);
    if (as_nobody) become_nobody();
    Report to_parent(report_fd, STDIN_FILENO);
    try {
        body(to_parent);
    } catch (const std::exception &error) {
        to_parent.line(std::string("failed: ") + error.what());
        _exit(1);
    }
    _exit(0);
}

std::string ClientProcess::next_line() {
    const std::optional<std::string> line = read_line(pipe_.reader.get(), buffer_);
    if (!line) throw std::runtime_error("a client process ended without a report");
    if (line->starts_with("failed: ")) throw std::runtime_error("a client process " + *line);
    return *line;
}

// A process that has ended says so in its last line; that is worth more than a signal here.
void ClientProcess::tell(const std::string &command) {
    const std::string bytes = command + '\n';
    signal(SIGPIPE, SIG_IGN);
    if (write(commands_.writer.get(), bytes.data(), bytes.size()) !=
        static_cast<ssize_t>(bytes.size()))
        next_line();
}

void ClientProcess::stop() {
    process_.signal(SIGSTOP);
    siginfo_t state = {};
    if (waitid(P_PID, static_cast<id_t>(process_.pid()), &state, WSTOPPED | WNOWAIT) != 0)
        fail("waitid");
}

void ClientProcess::resume() {
    process_.signal(SIGCONT);
}

void ClientProcess::kill() {
    process_.signal(SIGKILL);
    process_.wait();
}

} // namespace system_test
