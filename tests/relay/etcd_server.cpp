#include "tests/relay/etcd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <utility>

namespace relay_test {

namespace {

constexpr int patience_ms = 60'000;

[[noreturn]] void give_up(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Runs a program and waits for it; its output goes to that file.
pid_t spawn(const std::vector<std::string> &arguments, const std::string &output,
            const std::string &notify_socket) {
    std::vector<char *> argv;
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t process = fork();
    if (process < 0) give_up("fork");
    if (process > 0) return process;
    prctl(PR_SET_PDEATHSIG, SIGKILL); // it does not outlive a test that crashes
    if (getppid() != parent) _exit(127);
    if (!notify_socket.empty()) setenv("NOTIFY_SOCKET", notify_socket.c_str(), 1);
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
}

void run(const std::vector<std::string> &arguments, const std::string &output) {
    int status = 0;
    waitpid(spawn(arguments, output, {}), &status, 0);
    if (status != 0) throw std::runtime_error(arguments[0] + " failed, see " + output);
}

int listen_for_readiness(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        give_up("bind " + path);
    return fd;
}

sockaddr_in at(const std::string &host, std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

// Whether GET /health answers with health true.
bool is_healthy(const std::string &host, std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = at(host, port);
    std::string answer;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        const std::string request = "GET /health HTTP/1.0\r\n\r\n";
        char buffer[512];
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        for (ssize_t got = 0; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            answer.append(buffer, static_cast<std::size_t>(got));
    }
    close(fd);
    return answer.find(R"({"health":"true"})") != std::string::npos;
}

} // namespace

// Below the ports that the kernel gives to outgoing connections, so that nobody takes one while its
// server is being restarted; at random, so that tests that run at the same time do not meet.
std::uint16_t free_port() {
    std::random_device random;
    for (int attempt = 0; attempt < 1000; attempt++) {
        const auto port = static_cast<std::uint16_t>(20'000 + random() % 12'000);
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = at("127.0.0.1", port);
        const bool is_free =
            bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        close(fd);
        if (is_free) return port;
    }
    throw std::runtime_error("no free port");
}

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "relay_test.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) give_up(pattern);
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Certificates make_certificates(const std::filesystem::path &directory, const std::string &name) {
    const std::string base = directory / name;
    const Certificates files = {base + ".ca.pem", base + ".pem", base + ".key"};
    const std::string log = base + ".log";
    std::ofstream(base + ".ext") << "subjectAltName=IP:127.0.0.1,DNS:localhost\n";
    run({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
         "/CN=" + name + "-ca", "-keyout", base + ".ca.key", "-out", files.ca_file},
        log);
    run({"openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=" + name, "-keyout",
         files.key_file, "-out", base + ".csr"},
        log);
    run({"openssl", "x509", "-req", "-days", "2", "-in", base + ".csr", "-CA", files.ca_file,
         "-CAkey", base + ".ca.key", "-CAcreateserial", "-extfile", base + ".ext", "-out",
         files.cert_file},
        log);
    return files;
}

// ---- server ----

EtcdServer::EtcdServer(const Certificates *tls, Place place)
    : place_(std::move(place)), client_port_(free_port()), peer_port_(free_port()),
      cluster_("default=http://" + place_.address + ":" + std::to_string(peer_port_)),
      is_tls_(tls != nullptr) {
    if (is_tls_) tls_ = *tls;
}

EtcdServer::EtcdServer(std::string name, std::uint16_t peer_port, std::string cluster, Place place)
    : place_(std::move(place)), name_(std::move(name)), client_port_(free_port()),
      peer_port_(peer_port), cluster_(std::move(cluster)) {}

EtcdServer::~EtcdServer() {
    kill();
}

std::string EtcdServer::endpoint() const {
    return (is_tls_ ? "https://" : "http://") + place_.address + ':' + std::to_string(client_port_);
}

std::vector<std::string> EtcdServer::arguments() const {
    const std::string peer = "http://" + place_.address + ':' + std::to_string(peer_port_);
    std::vector<std::string> result = place_.enter;
    result.insert(result.end(),
                  {"etcd", "--name", name_, "--data-dir", directory_.path() / "data",
                   "--listen-client-urls", endpoint(), "--advertise-client-urls", endpoint(),
                   "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer,
                   "--initial-cluster", cluster_,
                   // Short, for short leases: the store grants none below one and a half elections.
                   "--heartbeat-interval", "50", "--election-timeout", "500"});
    if (is_tls_)
        for (const auto &[option, file] : {std::pair{"--cert-file", tls_.cert_file},
                                           {"--key-file", tls_.key_file},
                                           {"--trusted-ca-file", tls_.ca_file},
                                           {"--client-cert-auth", std::string()}}) {
            result.push_back(option);
            if (!file.empty()) result.push_back(file);
        }
    return result;
}

void EtcdServer::launch() {
    const std::string socket_path = directory_.path() / "ready";
    readiness_ = listen_for_readiness(socket_path);
    process_ = spawn(arguments(), directory_.path() / "log", socket_path);
}

void EtcdServer::await_ready() {
    pollfd ready = {readiness_, POLLIN, 0};
    const int count = poll(&ready, 1, patience_ms);
    close(std::exchange(readiness_, -1));
    if (count != 1) {
        std::ifstream log(directory_.path() / "log");
        throw std::runtime_error("etcd does not become ready: " +
                                 std::string(std::istreambuf_iterator<char>(log), {}));
    }
    if (!is_tls_ && !is_healthy(place_.address, client_port_))
        throw std::runtime_error("etcd is not healthy");
}

void EtcdServer::kill() {
    if (process_ < 0) return;
    ::kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = -1;
}

void EtcdServer::freeze() {
    ::kill(process_, SIGSTOP);
    int status = 0;
    waitpid(process_, &status, WUNTRACED);
}

void EtcdServer::thaw() {
    ::kill(process_, SIGCONT);
}

void EtcdServer::wipe() {
    std::filesystem::remove_all(directory_.path() / "data");
}

// ---- cluster ----

EtcdCluster::EtcdCluster(const std::array<Place, 3> &places) {
    const std::uint16_t ports[] = {free_port(), free_port(), free_port()};
    std::string cluster;
    for (std::size_t i = 0; i < places.size(); i++)
        cluster += (i > 0 ? ",m" : "m") + std::to_string(i) + "=http://" + places[i].address + ':' +
                   std::to_string(ports[i]);
    for (std::size_t i = 0; i < places.size(); i++)
        members_.push_back(
            std::make_unique<EtcdServer>("m" + std::to_string(i), ports[i], cluster, places[i]));
    for (const auto &member : members_)
        member->launch();
    for (const auto &member : members_)
        member->await_ready();
}

std::vector<std::string> EtcdCluster::endpoints() const {
    std::vector<std::string> result;
    for (const auto &member : members_)
        result.push_back(member->endpoint());
    return result;
}

} // namespace relay_test
