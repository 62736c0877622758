// What tests of the daemon under a service manager stand on.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "harness.h"

namespace operation_test {

using namespace system_test;

// The socket at which a service manager listens for what its services tell it.
class NotifySocket {
  public:
    NotifySocket();
    const std::string &path() const { return path_; }
    std::string next();                     // throws when nothing comes in time
    std::optional<std::string> next_now();  // nothing when nothing has come
    void await(const std::string &message); // and drops what comes before it

  private:
    TemporaryDirectory dir_;
    std::string path_;
    Descriptor fd_;
};

// A daemon that the test starts by its own command line.
class Started {
  public:
    explicit Started(Launch launch);
    pid_t pid() const { return process_.pid(); }
    void signal(int number) const { process_.signal(number); }
    Exit stop(); // by SIGTERM
    std::string next_line();
    const std::string &first_line() const { return first_line_; }
    std::string stderr_text() const;

  private:
    static Process start(Launch &launch, Pipe &out, const std::string &log);

    TemporaryDirectory log_dir_;
    Pipe out_;
    std::string buffer_;
    Process process_;
    std::string first_line_;
};

// A command line that begins with the daemon.
Launch dsd(std::vector<std::string> arguments);
Finished run_dsd(std::vector<std::string> arguments);

// A UNIX socket of that type, bound to the path; listening when it is a stream and should be.
Descriptor bound_socket(const std::string &path, int type, bool is_listening);

} // namespace operation_test
