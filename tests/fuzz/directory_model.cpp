#include "directory_model.h"

#include <algorithm>

namespace ds::fuzz {

Endpoints live_endpoints(const ElementState &element) {
    Endpoints live;
    for (const ServiceState &service : element.services)
        if (!service.is_placeholder())
            live.insert(live.end(), service.endpoints.begin(), service.endpoints.end());
    return live;
}

std::uint32_t scope_of(const Endpoints &endpoints) {
    return endpoints.empty() ? 0 : endpoints.front().scope;
}

bool same_addresses(const Endpoints &a, const Endpoints &b) {
    return !a.empty() && std::equal(a.begin(), a.end(), b.begin(), b.end(),
                                    [](const Endpoint &one, const Endpoint &other) {
                                        return one.type == other.type &&
                                               one.address == other.address;
                                    });
}

void DirectoryModel::count(ElementState &element, Count which) {
    element.counts[which]++;
    if (which != remote_changes) state.counts[which]++;
}

// ---- clients and registrations ----

ClientState *DirectoryModel::client(std::uint64_t handle) {
    for (ClientState &client : state.clients)
        if (client.handle == handle) return &client;
    return nullptr;
}

ClientState *DirectoryModel::client_with_index(std::uint32_t index) {
    for (ClientState &client : state.clients)
        if (client.index == index) return &client;
    return nullptr;
}

void DirectoryModel::add_client(std::uint64_t handle, std::uint32_t pid, const std::string &name) {
    state.counts[clients_added]++;
    auto &clients = state.clients;
    const auto first_of_process = std::find_if(
        clients.begin(), clients.end(), [&](const ClientState &other) { return other.pid == pid; });
    const auto place = first_of_process == clients.end() ? clients.begin() : first_of_process + 1;
    clients.insert(place, {handle, ++state.last_client_index, pid, name, 0, {}});
}

void DirectoryModel::delete_client(std::uint64_t handle) {
    state.counts[clients_deleted]++;
    for (auto &[name, element] : state.elements) {
        const auto gone = std::erase_if(element.registrations,
                                        [&](const auto &other) { return other.client == handle; });
        for (std::size_t i = 0; i < gone; i++)
            count(element, registrations_deleted);
    }
    std::map<std::size_t, std::pair<std::string, ServiceState *>> owned; // by rank
    for (auto &[name, element] : state.elements)
        for (ServiceState &service : element.services)
            if (service.client == handle) owned[service.rank] = {name, &service};
    for (auto &[rank, entry] : owned)
        take_down(entry.first, *entry.second, handle);
    std::erase_if(state.clients, [&](const auto &other) { return other.handle == handle; });
}

void DirectoryModel::add_registration(const std::string &name, std::uint64_t client_handle,
                                      std::uint64_t cookie) {
    ClientState &owner = *client(client_handle);
    ElementState &element = state.elements[name];
    element.registrations.push_front({client_handle, ++owner.last_registration, cookie, 0, 0});
    count(element, registrations_added);
    owner.counts[client_registered]++;
}

bool DirectoryModel::delete_registration(const std::string &name, std::uint64_t client_handle,
                                         std::uint32_t handle) {
    const auto element = state.elements.find(name);
    if (element == state.elements.end()) return false;
    const auto gone = std::erase_if(element->second.registrations, [&](const auto &other) {
        return other.client == client_handle && other.handle == handle;
    });
    if (gone == 0) return false;
    count(element->second, registrations_deleted);
    client(client_handle)->counts[client_unregistered]++;
    return true;
}

void DirectoryModel::link(ServiceState &service, std::uint64_t client_handle) {
    unlink(service);
    for (auto &[name, element] : state.elements)
        for (ServiceState &other : element.services)
            if (other.client == client_handle) other.rank++;
    service.client = client_handle;
    service.rank = 0;
}

void DirectoryModel::unlink(ServiceState &service) {
    if (service.client == 0) return;
    for (auto &[name, element] : state.elements)
        for (ServiceState &other : element.services)
            if (other.client == service.client && other.rank > service.rank) other.rank--;
    service.client = 0;
    service.rank = 0;
}

// ---- the steps ----

bool DirectoryModel::matches(const ServiceState &service, const Target &target) const {
    const bool instance_fits =
        !target.instance || (service.instance && service.instance->starts_with(*target.instance));
    const bool is_anybodys = service.is_placeholder() && !is_relay_period;
    const std::uint32_t process = service.is_placeholder() ? service.pid : service.proc_id;
    const bool process_fits = target.proc_id == 0 || is_anybodys || process == target.proc_id;
    const bool node_fits = target.node == nullptr || service.node == target.node;
    const bool id_fits = target.id == 0 || service.id == target.id;
    const bool scope_counts = target.proc_id != 0 || target.node != nullptr;
    const bool scope_fits = !scope_counts || target.scope == 0 || service.scope == target.scope;
    return instance_fits && process_fits && node_fits && id_fits && scope_fits;
}

ServiceState *DirectoryModel::find(const Target &target) {
    const auto element = state.elements.find(target.name);
    if (element == state.elements.end()) return nullptr;
    for (ServiceState &service : element->second.services)
        if (matches(service, target)) return &service;
    return nullptr;
}

ServiceState DirectoryModel::make_service(const Target &target, const Endpoints &endpoints,
                                          const ClientState *publisher) {
    ServiceState made;
    made.id = target.id != 0 ? target.id : state.next_service_id++;
    made.proc_id = target.proc_id;
    made.pid = publisher != nullptr ? publisher->pid : target.proc_id;
    made.node = target.node;
    made.scope = scope_of(endpoints);
    if (!endpoints.empty()) made.instance = endpoints.front().instance;
    made.endpoints = endpoints;
    return made;
}

ServiceState &DirectoryModel::add_service(const std::string &name, ServiceState service,
                                          std::uint64_t client_handle) {
    ElementState &element = state.elements[name];
    element.services.push_front(std::move(service));
    ServiceState &added = element.services.front();
    element.version++;
    if (added.node != local_) {
        count(element, remote_changes);
        count(element, remote_added);
    } else if (!added.is_placeholder()) {
        count(element, local_added);
    }
    if (client_handle != 0) {
        link(added, client_handle);
        client(client_handle)->counts[client_published]++;
    }
    if (!added.is_placeholder()) state.nodes[added.node][node_added]++;
    return added;
}

void DirectoryModel::update_service(const std::string &name, ServiceState &service,
                                    const Endpoints &endpoints, std::uint64_t client_handle) {
    ElementState &element = state.elements[name];
    service.endpoints = endpoints;
    service.gen++;
    element.version++;
    if (client_handle != 0) client(client_handle)->counts[client_updated]++;
    if (service.is_placeholder()) {
        if (client_handle != 0) link(service, client_handle);
        return;
    }
    count(element, service.node == local_ ? local_updated : remote_updated);
    if (service.node != local_) count(element, remote_changes);
    state.nodes[service.node][node_updated]++;
}

// A placeholder was never seen, so nothing counts it when it goes.
void DirectoryModel::delete_service(const std::string &name, ServiceState &service,
                                    std::uint64_t client_handle) {
    if (!service.is_placeholder()) {
        ElementState &element = state.elements[name];
        element.version++;
        count(element, service.node == local_ ? local_deleted : remote_deleted);
        if (service.node != local_) count(element, remote_changes);
        if (client_handle != 0) client(client_handle)->counts[client_deleted]++;
        state.nodes[service.node][node_deleted]++;
    }
    drop(name, service);
}

void DirectoryModel::drop(const std::string &name, const ServiceState &service) {
    auto &services = state.elements[name].services;
    const auto at = std::find_if(services.begin(), services.end(),
                                 [&](const ServiceState &other) { return &other == &service; });
    unlink(*at);
    services.erase(at);
}

// ---- publishing and withdrawing ----

int DirectoryModel::publish(const Target &target, const Endpoints &endpoints,
                            const RelayReference &reference) {
    state.elements[target.name]; // stays, whatever becomes of the publication
    const bool is_local = target.node == local_;
    if (reference && (is_relay_period || (is_own_period && is_local))) {
        replay(target, endpoints, *reference);
        return 0;
    }
    const ClientState *publisher = nullptr;
    if (is_local && !reference) {
        publisher = client_with_index(target.proc_id);
        if (publisher == nullptr) return -1;
    }
    const std::uint64_t handle = publisher != nullptr ? publisher->handle : 0;
    ServiceState *service = find(target);
    if (service != nullptr) {
        const bool is_takeover = service->is_placeholder() && publisher != nullptr;
        update_service(target.name, *service, endpoints, handle);
        if (is_takeover) {
            service->proc_id = publisher->index;
            service->pid = publisher->pid;
        }
        if (is_local && is_own_period)
            service->flags = (service->flags & ~std::uint32_t{DS_SERVICE_FLAG_DSR_CONFIRMED}) |
                             DS_SERVICE_FLAG_RECONCILE;
    } else {
        service = &add_service(target.name, make_service(target, endpoints, publisher), handle);
        if (is_local && is_own_period && scope_of(endpoints) != DS_SCOPE_LOCAL)
            merge_twin(target.name, *service);
    }
    send_publication(target.name, *service);
    notify(target.name);
    return 0;
}

int DirectoryModel::withdraw(const Target &target) {
    const ClientState *publisher = nullptr;
    if (target.node == local_) {
        publisher = client_with_index(target.proc_id);
        if (publisher == nullptr) return -1;
    }
    ServiceState *service = find(target);
    if (service == nullptr) return -1;
    take_down(target.name, *service, publisher != nullptr ? publisher->handle : 0);
    return 0;
}

void DirectoryModel::take_down(const std::string &name, ServiceState &service,
                               std::uint64_t client_handle) {
    const bool is_announced = !service.endpoints.empty();
    const std::uint32_t scope = scope_of(service.endpoints);
    if (service.node == local_ && (scope == DS_SCOPE_RACK || scope == DS_SCOPE_SYSTEM))
        send(name, service, DS_REMOTE_WITHDRAWN);
    delete_service(name, service, client_handle);
    if (is_announced) notify(name);
    const ElementState &element = state.elements[name];
    if (element.services.empty() && element.registrations.empty()) state.elements.erase(name);
}

// ---- notifications ----

// False when the registration has seen this version.
bool DirectoryModel::tell(const std::string &name, ElementState &element,
                          RegistrationState &registration, const Endpoints &live) {
    if (registration.version_told != 0 && registration.version_told == element.version)
        return false;
    registration.version_told = element.version;
    registration.times_told++;
    client(registration.client)->counts[client_notified]++;
    Event event;
    event.client = registration.client;
    event.handle = registration.handle;
    event.cookie = registration.cookie;
    event.name = name;
    event.endpoints = live;
    event.kind = Event::deletion;
    if (live.empty()) events.push_back(event);
    event.kind = Event::message;
    events.push_back(std::move(event));
    return true;
}

void DirectoryModel::notify(const std::string &name) {
    ElementState &element = state.elements[name];
    const Endpoints live = live_endpoints(element);
    Event hook;
    hook.name = name;
    hook.endpoints = live;
    events.push_back(std::move(hook));
    for (RegistrationState &registration : element.registrations) {
        count(element, notifications);
        tell(name, element, registration, live);
    }
}

void DirectoryModel::notify_one(const std::string &name, RegistrationState &registration) {
    ElementState &element = state.elements[name];
    const Endpoints live = live_endpoints(element);
    if (!live.empty()) tell(name, element, registration, live);
}

} // namespace ds::fuzz
