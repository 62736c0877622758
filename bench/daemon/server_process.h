// A server under measurement: a child process on a socket of its own in a temporary directory.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace ds::bench {

enum class Kind { daemon, null_server };

// Where the programs are.
struct Programs {
    std::string daemon;
    std::string null_server;
};

// Starts the server and returns when it says that it is ready. Throws std::runtime_error when it
// does not within ten seconds. The destructor kills it: what it would do at its end is not
// measured.
class ServerProcess {
  public:
    // The words that start a server which lives in that directory, the program first.
    using CommandLine = std::function<std::vector<std::string>(const std::string &directory)>;

    ServerProcess(const Programs &programs, Kind kind);
    explicit ServerProcess(const CommandLine &command_line);
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    const std::string &socket() const { return socket_; } // DIRECTORY/ds.sock
    pid_t pid() const { return pid_; }

    double cpu_seconds() const; // used so far
    // Memory of its own that is resident, without files and shared mappings such as the trace
    // rings.
    std::uint64_t own_resident_bytes() const;
    std::uint64_t resident_bytes() const;

  private:
    void launch(const std::vector<std::string> &arguments, const std::string &notify_path);
    void wait_until_ready(int notify_fd) const;
    std::uint64_t status_bytes(const char *key) const;

    std::filesystem::path directory_;
    std::string socket_;
    pid_t pid_ = -1;
};

} // namespace ds::bench
