#include "directory_model.h"

#include <algorithm>

namespace ds::fuzz {

namespace {

std::vector<std::string> live_entries(const ElementState &element) {
    std::vector<std::string> entries;
    for (const ServiceState &service : element.services)
        if (!service.is_placeholder()) entries.push_back(service.entry);
    return entries;
}

// The wanted instance is a prefix; proc_id and scope of 0 mean any, and placeholders are anybody's.
bool matches(const ServiceState &service, const Target &target) {
    const bool instance_fits =
        !target.instance || (service.instance && service.instance->starts_with(*target.instance));
    const bool process_fits =
        target.proc_id == 0 || service.is_placeholder() || service.proc_id == target.proc_id;
    const bool scope_fits = target.scope == 0 || service.scope == target.scope;
    const bool id_fits = target.id == 0 || service.id == target.id;
    return instance_fits && process_fits && scope_fits && id_fits && service.node == target.node;
}

} // namespace

void DirectoryModel::adopt(Elements new_elements, std::map<RegistrationKey, Told> new_told,
                           std::uint32_t next_id) {
    elements = std::move(new_elements);
    told = std::move(new_told);
    next_id_ = next_id;
}

ServiceState *DirectoryModel::find(const Target &target) {
    const auto element = elements.find(target.name);
    if (element == elements.end()) return nullptr;
    for (ServiceState &service : element->second.services)
        if (matches(service, target)) return &service;
    return nullptr;
}

void DirectoryModel::publish(const Target &target, const std::uint64_t *client,
                             const std::string &entry) {
    ElementState &element = elements[target.name];
    if (ServiceState *service = find(target)) {
        if (service->is_placeholder() && client != nullptr) {
            service->proc_id = clients[*client].index;
            service->pid = clients[*client].process;
            service->client = *client;
        }
        service->entry = entry;
        service->gen++;
    } else {
        ServiceState made;
        made.id = target.id != 0 ? target.id : next_id_++;
        made.proc_id = target.proc_id;
        made.pid = client != nullptr ? clients[*client].process : target.proc_id;
        made.node = target.node;
        made.scope = target.scope;
        made.instance = target.instance;
        made.entry = entry;
        made.client = client != nullptr ? *client : 0;
        element.services.push_front(made);
    }
    element.version++;
    tell_all(target.name, element);
}

bool DirectoryModel::withdraw(const Target &target) {
    const ServiceState *service = find(target);
    if (service == nullptr) return false;
    const auto &services = elements[target.name].services;
    for (std::size_t i = 0; i < services.size(); i++)
        if (&services[i] == service) {
            remove_at(target.name, i);
            break;
        }
    return true;
}

// A placeholder was never seen, so nobody sees it go.
void DirectoryModel::remove_at(const std::string &name, std::size_t index) {
    ElementState &element = elements[name];
    const auto at = element.services.begin() + static_cast<std::ptrdiff_t>(index);
    if (!at->is_placeholder()) element.version++;
    element.services.erase(at);
    tell_all(name, element);
    if (element.services.empty() && element.registrations.empty()) elements.erase(name);
}

void DirectoryModel::register_name(const std::string &name, RegistrationKey key,
                                   std::uint64_t cookie) {
    elements[name].registrations[key] = {cookie, 0};
}

void DirectoryModel::unregister(const std::string &name, RegistrationKey key) {
    elements[name].registrations.erase(key);
    told.erase(key);
}

void DirectoryModel::tell(const std::string &name, const ElementState &element,
                          RegistrationKey key) {
    told[key] = {name, element.registrations.at(key).cookie, live_entries(element)};
}

void DirectoryModel::tell_all(const std::string &name, ElementState &element) {
    for (auto &[key, registration] : element.registrations) {
        const bool has_seen =
            registration.version_told != 0 && registration.version_told == element.version;
        if (has_seen) continue;
        registration.version_told = element.version;
        tell(name, element, key);
    }
}

void DirectoryModel::tell_one(const std::string &name, RegistrationKey key) {
    ElementState &element = elements[name];
    RegistrationState &registration = element.registrations[key];
    const bool has_seen =
        registration.version_told != 0 && registration.version_told == element.version;
    if (has_seen || live_entries(element).empty()) return;
    registration.version_told = element.version;
    tell(name, element, key);
}

void DirectoryModel::delete_client(std::uint64_t client) {
    for (auto &[name, element] : elements)
        std::erase_if(element.registrations,
                      [&](const auto &pair) { return pair.first.first == client; });
    std::erase_if(told, [&](const auto &pair) { return pair.first.first == client; });
    std::vector<std::string> names;
    for (const auto &[name, element] : elements)
        for (const ServiceState &service : element.services)
            if (service.client == client) names.push_back(name);
    for (const std::string &name : names) {
        const auto &services = elements[name].services;
        const auto own = std::find_if(services.begin(), services.end(), [&](const auto &service) {
            return service.client == client;
        });
        remove_at(name, static_cast<std::size_t>(own - services.begin()));
    }
    clients.erase(client);
}

// Every version rises, whether or not the name lost anything; empty names stay.
void DirectoryModel::node_down(const ds_node_t *node) {
    for (auto &[name, element] : elements) {
        const auto removed = std::erase_if(
            element.services, [&](const auto &service) { return service.node == node; });
        element.version++;
        if (removed != 0) tell_all(name, element);
    }
}

std::uint32_t DirectoryModel::published_names() const {
    return static_cast<std::uint32_t>(
        std::count_if(elements.begin(), elements.end(),
                      [](const auto &pair) { return !live_entries(pair.second).empty(); }));
}

std::uint32_t DirectoryModel::registered_names() const {
    return static_cast<std::uint32_t>(
        std::count_if(elements.begin(), elements.end(),
                      [](const auto &pair) { return !pair.second.registrations.empty(); }));
}

} // namespace ds::fuzz
