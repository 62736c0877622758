// A plain directory: what every operation does to names, clients, counters and the outside, written
// without the library's lists, trees and records. Each operation appends what has to be told, in
// order, to `events`.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "directory_state.h"

namespace ds::fuzz {

// What a publication, a withdrawal or a look-up names.
struct Target {
    std::string name;
    std::optional<std::string> instance; // a prefix; none for any
    std::uint32_t scope = 0;
    std::uint32_t proc_id = 0; // 0 for any
    const ds_node_t *node = nullptr;
    std::uint32_t id = 0; // 0 for any
};

using RelayReference = std::optional<ds_dsr_service_ref_t>; // none: a client of this node

class DirectoryModel {
  public:
    DirectoryModel(DirectoryState start, const ds_node_t *local_node)
        : state(std::move(start)), local_(local_node) {}

    // clients and registrations
    void add_client(std::uint64_t handle, std::uint32_t pid, const std::string &name);
    void delete_client(std::uint64_t handle);
    void add_registration(const std::string &name, std::uint64_t client, std::uint64_t cookie);
    bool delete_registration(const std::string &name, std::uint64_t client, std::uint32_t handle);
    ClientState *client(std::uint64_t handle);
    ClientState *client_with_index(std::uint32_t index);

    // services
    int publish(const Target &target, const Endpoints &endpoints, const RelayReference &reference);
    int withdraw(const Target &target);
    void take_down(const std::string &name, ServiceState &service, std::uint64_t client);
    ServiceState *find(const Target &target);

    // the steps that publishing and withdrawing consist of
    ServiceState make_service(const Target &target, const Endpoints &endpoints,
                              const ClientState *client);
    ServiceState &add_service(const std::string &name, ServiceState service, std::uint64_t client);
    void update_service(const std::string &name, ServiceState &service, const Endpoints &endpoints,
                        std::uint64_t client);
    void delete_service(const std::string &name, ServiceState &service, std::uint64_t client);

    // notifications
    void notify(const std::string &name);
    void notify_one(const std::string &name, RegistrationState &registration);

    // relay and restart periods
    int receive(std::uint32_t operation, const Target &target, std::uint32_t version,
                const Endpoint &endpoint);
    void send(const std::string &name, ServiceState &service, std::uint32_t request);
    void connect();
    void disconnect();
    void mark_remote_services();
    void finalize_restart();
    void node_down(const ds_node_t *node);

    DirectoryState state;
    std::vector<Event> events;
    bool is_own_period = false;
    bool is_relay_period = false;

  private:
    bool matches(const ServiceState &service, const Target &target) const;
    void count(ElementState &element, Count which);
    void link(ServiceState &service, std::uint64_t client);
    void unlink(ServiceState &service);
    void drop(const std::string &name, const ServiceState &service);
    bool tell(const std::string &name, ElementState &element, RegistrationState &registration,
              const Endpoints &live);
    void send_publication(const std::string &name, ServiceState &service);
    void replay(const Target &target, const Endpoints &endpoints,
                const ds_dsr_service_ref_t &reference);
    void merge_twin(const std::string &name, ServiceState &service);
    bool settle_local(const std::string &name, ServiceState &service);
    bool settle_remote(const std::string &name, ServiceState &service);

    const ds_node_t *local_;
    bool is_connected_ = false;
};

Endpoints live_endpoints(const ElementState &element);
std::uint32_t scope_of(const Endpoints &endpoints);
bool same_addresses(const Endpoints &a, const Endpoints &b);

} // namespace ds::fuzz
