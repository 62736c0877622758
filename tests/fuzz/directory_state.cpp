#include "directory_state.h"

#include <unordered_map>

namespace ds::fuzz {

namespace {

using Owners = std::unordered_map<const ds_service_t *, std::uint64_t>;

Owners read_owners() {
    Owners owners;
    for (ds_client_t *client = ds_client_get_client_list_head(); client != nullptr;
         client = ds_client_get_next_in_client_list(client))
        for (ds_service_t *service = ds_client_get_service_list_head(client); service != nullptr;
             service = ds_client_get_next_in_service_list(service))
            owners[service] = client->client_hdl;
    return owners;
}

ServiceState read_service(const ds_service_t &service, const Owners &owners) {
    ServiceState state;
    state.id = service.service_id;
    state.proc_id = service.proc_id;
    state.pid = service.pid;
    state.node = service.node;
    state.gen = service.gen;
    state.scope = service.scope;
    if (service.instance != nullptr) state.instance = service.instance;
    state.entry = entry_text(service.publish_info->entries[0]);
    const auto owner = owners.find(&service);
    if (owner != owners.end()) state.client = owner->second;
    return state;
}

ElementState read_element(ds_service_elem_t &selem, const Owners &owners) {
    ElementState state;
    state.version = selem.selem_version;
    for (ds_service_t *service = ds_service_get_service_list_head(&selem); service != nullptr;
         service = ds_service_get_next_in_service_list(service))
        state.services.push_back(read_service(*service, owners));
    for (ds_client_reg_t *reg = ds_service_get_client_reg_list_head(&selem); reg != nullptr;
         reg = ds_service_get_next_in_client_reg_list(reg))
        state.registrations[{reg->client->client_hdl, reg->handle}] = {reg->reg_arg, reg->creg_ver};
    return state;
}

} // namespace

Elements read_directory(ds_db_t *db) {
    Elements elements;
    const Owners owners = read_owners();
    for (avl_node_t *node = avl_get_first(&db->selem_tree); node != nullptr;
         node = avl_get_next(node)) {
        auto *selem = reinterpret_cast<ds_service_elem_t *>(node);
        elements[selem->name] = read_element(*selem, owners);
    }
    return elements;
}

std::string text_of(const Elements &elements) {
    std::string text;
    for (const auto &[name, element] : elements) {
        text += "'" + name + "' version " + std::to_string(element.version) + '\n';
        for (const ServiceState &service : element.services)
            text += "  service " + std::to_string(service.id) + " proc " +
                    std::to_string(service.proc_id) + " pid " + std::to_string(service.pid) +
                    " node " + service.node->name + " gen " + std::to_string(service.gen) +
                    " scope " + std::to_string(service.scope) + " instance '" +
                    service.instance.value_or("(none)") + "' entry " + service.entry + " client " +
                    std::to_string(service.client) + '\n';
        for (const auto &[key, registration] : element.registrations)
            text += "  registration " + std::to_string(key.first) + '.' +
                    std::to_string(key.second) + " told " +
                    std::to_string(registration.version_told) + '\n';
    }
    return text;
}

std::string text_of(const std::map<RegistrationKey, Told> &told) {
    std::string text;
    for (const auto &[key, message] : told) {
        text += std::to_string(key.first) + '.' + std::to_string(key.second) + " '" + message.name +
                "':";
        for (const std::string &entry : message.entries)
            text += ' ' + entry;
        text += '\n';
    }
    return text;
}

} // namespace ds::fuzz
