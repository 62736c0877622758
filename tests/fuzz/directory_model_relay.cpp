// The model's relay: updates out and in, and the periods after a restart.
#include "directory_model.h"

#include <algorithm>

namespace ds::fuzz {

namespace {

bool is_replicated(const ServiceState &service) {
    const std::uint32_t scope = scope_of(service.endpoints);
    return scope == DS_SCOPE_RACK || scope == DS_SCOPE_SYSTEM;
}

void adopt(ServiceState &service, std::uint32_t id, std::uint32_t gen) {
    service.id = id;
    service.gen = gen;
    service.relay_gen = gen;
    service.flags |= DS_SERVICE_FLAG_DSR_CONFIRMED;
}

} // namespace

// ---- out ----

void DirectoryModel::send(const std::string &name, ServiceState &service, std::uint32_t request) {
    const bool is_withdrawal = request == DS_REMOTE_WITHDRAWN;
    const bool is_known = service.relay_gen != 0;
    if (!is_connected_ || service.endpoints.empty() || (is_withdrawal && !is_known)) return;
    Event update;
    update.kind = Event::update;
    update.operation = is_withdrawal                                ? DSR_DELETE
                       : request == DS_REMOTE_PUBLISHED && is_known ? DSR_MODIFY
                                                                    : DSR_ADD;
    update.id = service.id;
    update.pid = service.pid;
    update.version = service.gen;
    update.name = name;
    update.endpoints = {service.endpoints.front()};
    update.endpoints.front().type = 0; // does not travel
    state.counts[update.operation == DSR_ADD      ? relay_adds
                 : update.operation == DSR_MODIFY ? relay_modifies
                                                  : relay_deletes]++;
    count(state.elements[name], relay_sent);
    service.relay_gen = service.gen;
    events.push_back(std::move(update));
}

void DirectoryModel::send_publication(const std::string &name, ServiceState &service) {
    if (service.node == local_ && is_replicated(service) && !is_own_period)
        send(name, service, DS_REMOTE_PUBLISHED);
}

void DirectoryModel::connect() {
    is_connected_ = true;
    if (is_own_period) return;
    for (auto &[name, element] : state.elements)
        for (ServiceState &service : element.services) {
            if (service.node != local_ || !is_replicated(service)) continue;
            service.relay_gen = 0;
            send(name, service, DS_REMOTE_PUBLISHED);
        }
}

void DirectoryModel::disconnect() {
    is_connected_ = false;
    is_relay_period = true;
    mark_remote_services();
}

// ---- in ----

int DirectoryModel::receive(std::uint32_t operation, const Target &target, std::uint32_t version,
                            const Endpoint &endpoint) {
    const bool is_own = target.node == local_;
    if (is_own && !is_own_period) {
        Event update;
        update.kind = Event::update;
        update.operation = DSR_DELETE;
        update.id = target.id;
        update.pid = target.proc_id;
        update.version = version + 1;
        update.name = target.name;
        update.endpoints = {endpoint};
        events.push_back(std::move(update));
        return 0;
    }
    if (is_own && operation == DSR_DELETE) return -1;
    state.counts[relay_received]++;
    if (operation == DSR_DELETE) return withdraw(target);
    return publish(target, {endpoint}, ds_dsr_service_ref_t{target.id, version});
}

void DirectoryModel::node_down(const ds_node_t *node) {
    state.nodes[node][node_downs]++;
    for (auto &[name, element] : state.elements) {
        bool has_lost = false;
        for (auto at = element.services.begin(); at != element.services.end();) {
            ServiceState &service = *at++;
            if (service.node != node) continue;
            drop(name, service);
            has_lost = true;
        }
        element.version++; // whether or not the name lost anything
        if (has_lost && !element.registrations.empty()) notify(name);
    }
}

// ---- restart periods ----

// A delivery in a period is matched with what stands here, or waits as a placeholder.
void DirectoryModel::replay(const Target &target, const Endpoints &endpoints,
                            const ds_dsr_service_ref_t &reference) {
    for (ServiceState &service : state.elements[target.name].services)
        if (service.node == target.node && service.pid == target.proc_id &&
            same_addresses(service.endpoints, endpoints)) {
            adopt(service, reference.id, reference.gen);
            return;
        }
    Target placeholder = target;
    placeholder.proc_id = DS_PROC_ID_FROM_DSR;
    ServiceState &added =
        add_service(target.name, make_service(placeholder, endpoints, nullptr), 0);
    adopt(added, reference.id, reference.gen); // an id of 0 stays 0, and has used up a serial
    added.pid = target.proc_id;
}

// A client published again what the relay had replayed: one record goes on, under the relay's id.
void DirectoryModel::merge_twin(const std::string &name, ServiceState &service) {
    service.flags |= DS_SERVICE_FLAG_RECONCILE;
    for (ServiceState &other : state.elements[name].services) {
        if (!other.is_placeholder() || other.node != service.node || other.pid != service.pid ||
            !same_addresses(other.endpoints, service.endpoints))
            continue;
        adopt(service, other.id, other.gen);
        drop(name, other);
        return;
    }
}

void DirectoryModel::mark_remote_services() {
    for (auto &[name, element] : state.elements)
        for (ServiceState &service : element.services)
            if (service.node != local_) service.flags = DS_SERVICE_FLAG_RECONCILE;
}

void DirectoryModel::finalize_restart() {
    for (auto &[name, element] : state.elements) {
        bool is_changed = false;
        for (auto at = element.services.begin(); at != element.services.end();) {
            ServiceState &service = *at++;
            is_changed |=
                service.node == local_ ? settle_local(name, service) : settle_remote(name, service);
        }
        if (!is_changed) continue;
        element.version++;
        notify(name);
    }
}

bool DirectoryModel::settle_local(const std::string &name, ServiceState &service) {
    if (!is_replicated(service)) return false;
    const std::uint32_t flags = service.flags;
    service.flags = 0;
    if ((flags & DS_SERVICE_FLAG_RECONCILE) != 0) { // published in the period
        if (service.is_placeholder()) service.proc_id = service.pid;
        send(name, service, DS_REMOTE_PUBLISHED);
        return true;
    }
    if ((flags & DS_SERVICE_FLAG_DSR_CONFIRMED) == 0) return false;
    send(name, service, DS_REMOTE_WITHDRAWN); // the relay alone knows it
    drop(name, service);
    return true;
}

bool DirectoryModel::settle_remote(const std::string &name, ServiceState &service) {
    const std::uint32_t flags = service.flags;
    service.flags = 0;
    if (flags == DS_SERVICE_FLAG_RECONCILE) { // not replayed
        drop(name, service);
        return true;
    }
    const bool was_entered = flags == DS_SERVICE_FLAG_DSR_CONFIRMED;
    const bool was_entered_before_a_second_disconnect =
        service.is_placeholder() && (flags & DS_SERVICE_FLAG_DSR_CONFIRMED) != 0;
    if (!was_entered && !was_entered_before_a_second_disconnect) return false;
    service.proc_id = service.pid;
    return true;
}

} // namespace ds::fuzz
