// An etcd of a test's own on the loopback, with a data directory that goes with it.
//
// start() returns when the server says that it is ready and answers to a question for its health.
#pragma once
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace relay_test {

// A port of the loopback that nobody uses at the moment.
std::uint16_t free_port();

// PEM files of an authority, and of a certificate that it signed for 127.0.0.1 and "localhost".
struct Certificates {
    std::string ca_file, cert_file, key_file;
};
// Made with the openssl program in that directory, under that name.
Certificates make_certificates(const std::filesystem::path &directory, const std::string &name);

class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    const std::filesystem::path &path() const { return path_; }

  private:
    std::filesystem::path path_;
};

// Where a server runs.
struct Place {
    std::string address = "127.0.0.1";   // that it listens at
    std::vector<std::string> enter = {}; // a command that starts programs there; empty: here
};

class EtcdServer {
  public:
    // One member by itself; with certificates it speaks TLS only and asks clients for theirs.
    explicit EtcdServer(const Certificates *tls = nullptr, Place place = {});
    // One of several members; `cluster` is the same for all of them: "m0=http://...,m1=...".
    EtcdServer(std::string name, std::uint16_t peer_port, std::string cluster, Place place = {});
    ~EtcdServer();
    EtcdServer(const EtcdServer &) = delete;
    EtcdServer &operator=(const EtcdServer &) = delete;

    void launch();      // starts the process
    void await_ready(); // until it serves; members of a cluster are launched all before
    void start() {
        launch();
        await_ready();
    }
    void kill();
    void freeze();
    void thaw();
    void wipe(); // the data directory, of a server that does not run

    std::string endpoint() const;
    std::uint16_t port() const { return client_port_; }

  private:
    std::vector<std::string> arguments() const;

    TemporaryDirectory directory_;
    Place place_;
    std::string name_ = "default";
    std::uint16_t client_port_, peer_port_;
    std::string cluster_;
    bool is_tls_ = false;
    Certificates tls_;
    int readiness_ = -1; // socket that the server reports its readiness to
    pid_t process_ = -1;
};

// Three members.
class EtcdCluster {
  public:
    explicit EtcdCluster(const std::array<Place, 3> &places = {});
    EtcdServer &member(std::size_t index) { return *members_[index]; }
    std::vector<std::string> endpoints() const;

  private:
    std::vector<std::unique_ptr<EtcdServer>> members_;
};

} // namespace relay_test
