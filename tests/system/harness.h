// What the system tests stand on: a daemon of their own, processes that can be killed, and sockets
// that send whatever a test likes.
//
// Nothing here sleeps. Whatever is waited for makes a descriptor ready, and a wait that lasts
// longer than patience() throws, which fails the test.
#pragma once
#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "client/connection.h"
#include "ds.pb.h"

namespace system_test {

namespace v1 = ds::v1;
using ds::client::Deadline;

inline constexpr uid_t nobody = 65534;

// The moment at which a test gives up waiting.
Deadline patience();

// Whether the daemon and the tests were built with a sanitizer.
bool is_sanitized();

// How much the daemon's memory may grow where `bytes` are allowed to a plain build. Under a
// sanitizer every block is padded and freed blocks are held back for a while.
std::size_t growth_bound(std::size_t bytes);

// Waits until `fd` is ready for `events`; false when the deadline came first.
bool await_ready(int fd, short events, Deadline deadline);

// Owns a descriptor.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Descriptor &operator=(Descriptor &&other) noexcept;
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int get() const { return fd_; }
    void reset();

  private:
    int fd_;
};

struct Pipe {
    Pipe();
    Descriptor reader;
    Descriptor writer;
};

// Reads until the end, or until the deadline, which throws.
std::string read_to_end(int fd);
// The next line without its end; nothing at the end of the stream. Bytes behind it stay in
// `buffer`.
std::optional<std::string> read_line(int fd, std::string &buffer);

// A directory that goes with its content. Every user may enter it.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

struct Exit {
    int code = -1;  // -1: ended by a signal
    int signal = 0; // 0: ended by itself
    bool operator==(const Exit &) const = default;
};
void PrintTo(const Exit &exit, std::ostream *out);

// A child process; killed and reaped with its object, and by the kernel when the test dies.
class Process {
  public:
    explicit Process(pid_t pid) : pid_(pid) {}
    ~Process();
    Process(Process &&other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
    Process &operator=(Process &&) = delete;

    pid_t pid() const { return pid_; }
    bool is_reaped() const { return pid_ < 0; }
    void signal(int number) const;
    Exit wait(); // throws when the process does not end in time

  private:
    pid_t pid_;
};

// How to start a program.
struct Launch {
    std::vector<std::string> arguments;   // the first is the program
    std::vector<std::string> environment; // "NAME=value", beside what the test has
    int out = -1;                         // descriptors it gets as stdout and stderr
    int err = -1;
    rlim_t descriptors_max = 0; // 0: as the test has
    std::vector<int> passed =
        {}; // descriptors it gets as 3, 4 ..., as a service manager passes them
};
Process launch(const Launch &launch);

// A program that was run to its end.
struct Finished {
    Exit exit;
    std::string out;
    std::string err;
};
Finished run(Launch launch);
Finished run_dsctl(const std::string &socket, const std::vector<std::string> &arguments);
std::string dsd_program();
std::string dsctl_program();

// A forked copy of the test that acts as a client and reports lines. It holds none of the test's
// descriptors, so killing it ends all its connections.
class ClientProcess {
  public:
    class Report {
      public:
        Report(int fd, int commands) : fd_(fd), commands_(commands) {}
        void line(const std::string &text);
        [[noreturn]] void stay(); // until killed
        // What tell() of the other side brings; readable at the end of the test, too.
        int commands() const { return commands_; }
        std::string next_command();

      private:
        int fd_;
        int commands_;
        std::string buffer_;
    };

    explicit ClientProcess(const std::function<void(Report &)> &body, bool as_nobody = false);
    std::string next_line(); // throws at the end of the process
    void tell(const std::string &command);
    void stop();   // with SIGSTOP; returns when it stands still
    void resume(); // with SIGCONT
    void kill();   // with SIGKILL; returns when it is gone

  private:
    static Process start(const std::function<void(Report &)> &body, bool as_nobody, int report,
                         int commands);

    Pipe pipe_;
    Pipe commands_;
    Process process_;
    std::string buffer_;
};

// A connection without any manners: bytes go out as they are.
class RawSocket {
  public:
    explicit RawSocket(const std::string &path);

    int fd() const { return fd_.get(); }
    void send(std::string_view bytes); // all of them, or as many as are taken before a hang-up
    std::size_t send_some(std::string_view bytes); // what fits at once
    void end_sending();
    void close() { fd_.reset(); }

    // The next event; nothing when the daemon ended the connection.
    std::optional<v1::Event> receive();
    std::vector<v1::Event> receive_to_end();
    bool has_event(); // whether receive() would return at once, with an event
    std::size_t receive_bytes(std::size_t bytes_max); // reads and drops some

  private:
    bool fill();
    std::optional<v1::Event> cut();

    Descriptor fd_;
    std::string in_;
};

// A running dsd in a runtime directory of its own, or in one that a test brings.
class Daemon {
  public:
    struct Options {
        std::string runtime_dir;              // empty: a new one
        std::vector<std::string> environment; // as in Launch
        rlim_t descriptors_max = 0;
        std::vector<std::string> arguments = {}; // beside the runtime directory
        std::vector<std::string> enter = {};     // a command that starts the daemon elsewhere
    };

    Daemon() : Daemon(Options{}) {}
    explicit Daemon(const Options &options); // returns when the daemon is ready
    ~Daemon();                               // stops it, unless a test did

    const std::string &runtime_dir() const { return runtime_dir_; }
    const std::string &socket() const { return socket_; }
    pid_t pid() const { return process_->pid(); }
    void signal(int number) const { process_->signal(number); }

    // SIGTERM and await_exit().
    void stop();
    // Anything but exit code 0 without a sanitizer's report fails the test and shows stderr.
    void await_exit();
    // SIGKILL, as a crash of the machine would.
    void kill();
    std::string stderr_text() const;
    std::string next_line(); // of its stdout, behind the one that says that it is ready

    // Memory that only this process has. The trace rings are mapped files and do not count.
    std::size_t memory_bytes() const;
    std::size_t descriptor_count() const;

  private:
    std::optional<TemporaryDirectory> own_dir_;
    std::string runtime_dir_;
    std::string socket_;
    TemporaryDirectory log_dir_;
    Pipe out_;
    std::string out_buffer_;
    std::optional<Process> process_;
};

// A test with a daemon.
class System : public testing::Test {
  protected:
    void TearDown() override { daemon.stop(); }
    Daemon daemon;
};

} // namespace system_test
