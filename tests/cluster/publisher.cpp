#include "tests/cluster/publisher.h"

#include <poll.h>

#include <sstream>
#include <stdexcept>

#include "client/ds_client.h"

namespace cluster_test {

namespace {

using system_test::ClientProcess;

constexpr std::uint32_t address = 0x0a000001; // 10.0.0.1
constexpr std::uint32_t backoff_first_ms = 20, backoff_max_ms = 200;
constexpr int wait_ms = 30'000;

void check(int error) {
    if (error != DS_CLIENT_OK) throw std::runtime_error(ds_client_strerror(error));
}

// The process's side.
class Servant {
  public:
    explicit Servant(const std::string &socket) {
        ds_client_options_t options{};
        options.size = sizeof options;
        options.socket = socket.c_str();
        options.display_name = "publisher";
        options.backoff_first_ms = backoff_first_ms;
        options.backoff_max_ms = backoff_max_ms;
        check(ds_client_create(&options, &handle_));
        check(ds_client_wait_connected(handle_, wait_ms));
    }
    ~Servant() { ds_client_destroy(handle_); }
    Servant(const Servant &) = delete;
    Servant &operator=(const Servant &) = delete;

    // Serves the daemon's connection and the test's commands.
    void serve(ClientProcess::Report &report) {
        for (;;) {
            pollfd ready[] = {{report.commands(), POLLIN, 0}, {ds_client_fd(handle_), POLLIN, 0}};
            if (poll(ready, 2, -1) < 0) continue;
            if (ready[1].revents != 0) check(ds_client_dispatch(handle_));
            if (ready[0].revents == 0) continue;
            const std::string command = report.next_command();
            if (command.empty()) return;
            obey(command);
            report.line("done");
        }
    }

  private:
    void obey(const std::string &command) {
        std::istringstream words(command);
        std::string verb;
        Service key;
        std::uint32_t scope = 0, port = 0;
        words >> verb >> key.name >> key.instance >> scope >> port;
        key.scope = static_cast<v1::Scope>(scope);
        ds_publication_t *&publication = publications_[key];
        if (verb == "withdraw" || verb == "retract") {
            check(ds_client_publication_withdraw(publication));
        } else {
            publish(publication, key, port);
        }
        if (verb == "offer" || verb == "retract")
            check(ds_client_dispatch(handle_)); // sends it
        else
            check(ds_client_publication_wait(publication, wait_ms));
    }

    void publish(ds_publication_t *&publication, const Service &key, std::uint32_t port) {
        ds_client_service_t service{};
        service.size = sizeof service;
        service.name = key.name.c_str();
        service.instance = key.instance.c_str();
        service.scope = key.scope;
        service.ipv4_address = address;
        service.ipv4_port = port;
        if (publication == nullptr)
            check(ds_client_publish(handle_, &service, nullptr, nullptr, &publication));
        else
            check(ds_client_publication_update(publication, &service));
    }

    ds_client_handle_t *handle_ = nullptr;
    std::map<Service, ds_publication_t *> publications_;
};

} // namespace

Publisher::Publisher(const std::string &socket) {
    process_.emplace([socket](ClientProcess::Report &report) {
        Servant servant(socket);
        report.line("connected");
        servant.serve(report);
    });
    process_->next_line();
}

void Publisher::tell(const std::string &verb, const Service &service, std::uint32_t port) {
    std::ostringstream command;
    command << verb << ' ' << service.name << ' ' << service.instance << ' ' << service.scope << ' '
            << port;
    process_->tell(command.str());
    process_->next_line();
}

void Publisher::publish(const Service &service, std::uint32_t port) {
    tell("publish", service, port);
    published_[service] = port;
}

void Publisher::withdraw(const Service &service) {
    tell("withdraw", service, 0);
    published_.erase(service);
}

void Publisher::offer(const Service &service, std::uint32_t port) {
    tell("offer", service, port);
    published_[service] = port;
}

void Publisher::retract(const Service &service) {
    tell("retract", service, 0);
    published_.erase(service);
}

void Publisher::kill() {
    process_->kill();
    process_.reset();
    published_.clear();
}

} // namespace cluster_test
