#include "host/records.h"

#include <cstring>
#include <unordered_set>
#include <vector>

namespace ds::host {

namespace {

// The tree link is the first field of an element.
ds_service_elem_t *element_of(avl_node_t *node) {
    return reinterpret_cast<ds_service_elem_t *>(node);
}

} // namespace

bool is_restart_period_open() {
    for (const int slot : {DS_GLOBAL_SLOT_OWN_RESTART_TIMER, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER}) {
        auto *timer = reinterpret_cast<mgd_timer_t *>(ds_globals_get()->slot[slot]);
        if (timer != nullptr && mgd_timer_leaf_running(timer) != 0) return true;
    }
    return false;
}

bool is_live(const ds_service_t *service) {
    return service->proc_id != DS_PROC_ID_FROM_DSR;
}

bool has_live_services(ds_service_elem_t *element) {
    return ds_db_service_element_has_services(element, DS_SCOPE_ANY) != 0;
}

ds_db_t *Records::database() {
    return reinterpret_cast<ds_db_t *>(ds_globals_get()->slot[DS_GLOBAL_SLOT_DB]);
}

ds_node_t *Records::local_node() {
    return reinterpret_cast<ds_node_t *>(ds_globals_get()->slot[DS_GLOBAL_SLOT_LOCAL_NODE]);
}

void Records::notified(ds_service_elem_t *element) {
    notified_ = element;
    changes_++;
}

// ---- clients ----

ds_client_t *Records::add_client(std::uint64_t id, std::string_view name) {
    ds_client_t *client = nullptr;
    if (ds_db_init_client(&client) != 0) return nullptr;
    client->client_hdl = id;
    name.copy(client->name, sizeof client->name - 1);
    ds_db_add_client(client);
    return client;
}

void Records::remove_client(ds_client_t *client) {
    changes_++;
    // The library leaves the elements that the client was only registered on.
    std::vector<std::string> names;
    for (ds_client_reg_t *registration = ds_client_get_client_reg_list_head(client);
         registration != nullptr;
         registration = ds_client_get_next_in_client_reg_list(registration))
        names.emplace_back(registration->selem->name);
    for (ds_service_t *service = ds_client_get_service_list_head(client); service != nullptr;
         service = ds_client_get_next_in_service_list(service))
        sum_.remove(service->selem->name, service->instance, service->scope);
    ds_db_delete_client(client);
    for (const std::string &name : names)
        drop_if_unused(name);
}

bool Records::take_down_one(ds_client_t *client) {
    ds_service_t *service = ds_client_get_service_list_head(client);
    if (service == nullptr) return false;
    changes_++;
    sum_.remove(service->selem->name, service->instance, service->scope);
    ds_db_handle_service_down(service, client);
    return true;
}

void Records::drop_if_unused(const std::string &name) {
    ds_service_elem_t *element = find(name);
    const bool is_used = element == nullptr ||
                         ds_service_get_service_list_head(element) != nullptr ||
                         ds_db_service_element_has_registrations(element) != 0;
    if (is_used) return;
    changes_++;
    ds_db_delete_service_element(element);
}

// ---- publications ----

// In the own restart period the library takes a service that waits for its publisher for the one
// that is published anew, even when the client has it already: the client would then have two of
// the same name, instance and scope, and could end only one of them. The client's own one is meant.
void Records::drop_rivals(const ds_client_t *client, const ds_service_publish_info &info) {
    if (!is_restart_period_open()) return;
    const ds_service_info_t &entry = info.entries[0];
    if (find_own(client, info.service_name, entry.instance, entry.scope) == nullptr) return;
    ds_service_t *following = nullptr;
    for (ds_service_t *service = ds_service_get_service_list_head(find(info.service_name));
         service != nullptr; service = following) {
        following = ds_service_get_next_in_service_list(service);
        const bool is_rival = !is_live(service) && service->node == local_node() &&
                              service->scope == entry.scope && service->instance != nullptr &&
                              std::strcmp(service->instance, entry.instance) == 0;
        if (is_rival) ds_db_handle_service_down(service, nullptr);
    }
}

// `instance` as the directory knows it; null: the client has none such.
ds_service_t *Records::find_own(const ds_client_t *client, const std::string &name,
                                std::string_view instance, std::uint32_t scope) const {
    ds_service_t *service = ds_service_get_service_list_head(find(name));
    while (service != nullptr &&
           !(service->proc_id == client->client_idx && service->scope == scope &&
             service->instance != nullptr && service->instance == instance))
        service = ds_service_get_next_in_service_list(service);
    return service;
}

const ds_service_t *Records::publish(ds_client_t *client, PublishInfo info) {
    drop_rivals(client, *info);
    ds_service_publish_info *published = info.release();
    const ds_service_t *newest = ds_client_get_service_list_head(client);
    notified_ = nullptr;
    changes_++;
    ds_db_publish_service(client->client_idx, local_node(), published, nullptr);
    if (published->held == 0) {
        info.reset(published);
        drop_if_unused(published->service_name);
        return nullptr;
    }
    // What the client did not have before is the first in its list now.
    if (ds_client_get_service_list_head(client) != newest)
        sum_.add(published->service_name, published->entries[0].instance,
                 published->entries[0].scope);
    // Whatever was published was announced, newest record first.
    ds_service_t *service =
        notified_ != nullptr ? ds_service_get_service_list_head(notified_) : nullptr;
    while (service != nullptr && service->publish_info != published)
        service = ds_service_get_next_in_service_list(service);
    return service;
}

bool Records::withdraw(ds_client_t *client, std::string_view name, std::string_view instance,
                       std::uint32_t scope) {
    std::string service_name(name);
    changes_++;
    if (is_restart_period_open()) {
        // The library would look for the name's newest service of that instance, which now may be
        // one that waits for another publisher.
        ds_service_t *service = find_own(client, service_name, instance, scope);
        if (service == nullptr) return false;
        ds_db_handle_service_down(service, client);
    } else {
        std::string instance_copy(instance);
        ds_service_key_t key = {};
        VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, service_name.data());
        VIDL_SET(&key, scope, DS_KEY_BIT_SCOPE, scope);
        VIDL_SET(&key, instance, DS_KEY_BIT_INSTANCE, instance_copy.data());
        if (ds_db_unpublish_service(client->client_idx, local_node(), &key, nullptr) != 0)
            return false;
    }
    sum_.remove(name, instance, scope);
    return true;
}

void Records::take_down(ds_service_t *service) {
    changes_++;
    sum_.remove(service->selem->name, service->instance, service->scope);
    ds_db_handle_service_down(service, publisher_of(service));
}

ds_client_t *Records::publisher_of(const ds_service_t *service) const {
    return is_live(service) ? ds_db_find_client_by_client_idx(service->proc_id) : nullptr;
}

ds_service_t *Records::find_local_service(const std::string &name, std::uint32_t service_id) const {
    for (ds_service_t *service = ds_service_get_service_list_head(find(name)); service != nullptr;
         service = ds_service_get_next_in_service_list(service))
        if (service->service_id == service_id && service->node == local_node()) return service;
    return nullptr;
}

// ---- registrations ----

ds_client_reg_t *Records::add_registration(ds_client_t *client, const std::string &name,
                                           std::uint64_t argument) {
    ds_client_reg_t *registration = nullptr;
    ds_db_add_new_registration(name.c_str(), client, argument, &registration);
    if (registration == nullptr) {
        drop_if_unused(name);
        return nullptr;
    }
    ds_notify_client(registration, registration->selem);
    return registration;
}

void Records::remove_registration(ds_client_reg_t *registration) {
    const std::string name = registration->selem->name;
    ds_db_delete_registration(name.c_str(), registration->client, registration->handle);
    drop_if_unused(name);
}

// ---- names ----

ds_service_elem_t *Records::find(const std::string &name) const {
    ds_service_elem_t *element = nullptr;
    ds_db_find_service_element(name.c_str(), &element);
    return element;
}

ds_service_elem_t *Records::first() const {
    return element_of(avl_get_first(&database()->selem_tree));
}

ds_service_elem_t *Records::next(ds_service_elem_t *element) {
    return element_of(avl_get_next(&element->tree_link));
}

void Records::drop_twins() {
    for (ds_service_elem_t *element = first(); element != nullptr; element = next(element)) {
        std::unordered_set<std::uint32_t> live_ids;
        std::vector<ds_service_t *> waiting;
        for (ds_service_t *service = ds_service_get_service_list_head(element); service != nullptr;
             service = ds_service_get_next_in_service_list(service)) {
            if (service->node != local_node()) continue;
            if (is_live(service))
                live_ids.insert(service->service_id);
            else
                waiting.push_back(service);
        }
        for (ds_service_t *service : waiting)
            if (live_ids.contains(service->service_id)) ds_db_delete_service(service, nullptr);
    }
}

void Records::drop_empty_names() {
    ds_service_elem_t *following = nullptr;
    for (ds_service_elem_t *element = first(); element != nullptr; element = following) {
        following = next(element);
        const bool is_used = ds_service_get_service_list_head(element) != nullptr ||
                             ds_db_service_element_has_registrations(element) != 0;
        if (!is_used) ds_db_delete_service_element(element);
    }
    changes_++;
}

} // namespace ds::host
