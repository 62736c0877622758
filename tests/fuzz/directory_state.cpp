#include "directory_state.h"

#include <unordered_map>

namespace ds::fuzz {

namespace {

struct Owner {
    std::uint64_t client = 0;
    std::size_t rank = 0;
};
using Owners = std::unordered_map<const ds_service_t *, Owner>;

Owners read_owners() {
    Owners owners;
    for (ds_client_t *client = ds_client_get_client_list_head(); client != nullptr;
         client = ds_client_get_next_in_client_list(client)) {
        std::size_t rank = 0;
        for (ds_service_t *service = ds_client_get_service_list_head(client); service != nullptr;
             service = ds_client_get_next_in_service_list(service))
            owners[service] = {client->client_hdl, rank++};
    }
    return owners;
}

ServiceState read_service(const ds_service_t &service, const Owners &owners) {
    ServiceState state;
    state.id = service.service_id;
    state.proc_id = service.proc_id;
    state.pid = service.pid;
    state.node = service.node;
    state.gen = service.gen;
    state.relay_gen = service.prev_ver;
    state.flags = service.flags;
    state.scope = service.scope;
    if (service.instance != nullptr) state.instance = service.instance;
    state.endpoints = read_endpoints(*service.publish_info);
    const auto owner = owners.find(&service);
    if (owner != owners.end()) {
        state.client = owner->second.client;
        state.rank = owner->second.rank;
    }
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
        state.registrations.push_back(
            {reg->client->client_hdl, reg->handle, reg->reg_arg, reg->creg_ver, reg->nnotifs});
    state.counts = {
        selem.local_services_added,    selem.remote_services_added,  selem.local_services_deleted,
        selem.remote_services_deleted, selem.local_services_updated, selem.remote_services_updated,
        selem.registrations_added,     selem.registrations_deleted,  selem.nnotifs,
        selem.relay_updates_sent,      selem.remote_change_count};
    return state;
}

ClientState read_client(ds_client_t &client) {
    ClientState state;
    state.handle = client.client_hdl;
    state.index = client.client_idx;
    state.pid = static_cast<std::uint32_t>(ds_client_pid(&client));
    state.name = client.name;
    state.last_registration = client.reg_handle_counter;
    state.counts = {client.services_published,    client.services_updated,
                    client.services_deleted,      client.registrations_added,
                    client.registrations_deleted, client.nnotifs};
    return state;
}

template <std::size_t N> std::string text_of(const std::array<std::uint32_t, N> &counts) {
    std::string text = " counts";
    for (const std::uint32_t count : counts)
        text += ' ' + std::to_string(count);
    return text + '\n';
}

std::string text_of(const ServiceState &service) {
    return "  service " + std::to_string(service.id) + " proc " + std::to_string(service.proc_id) +
           " pid " + std::to_string(service.pid) + " node " + service.node->name + " gen " +
           std::to_string(service.gen) + " relay " + std::to_string(service.relay_gen) + " flags " +
           std::to_string(service.flags) + " scope " + std::to_string(service.scope) +
           " instance " + (service.instance ? "'" + *service.instance + "'" : "none") + " client " +
           std::to_string(service.client) + '.' + std::to_string(service.rank) +
           text_of(service.endpoints) + '\n';
}

} // namespace

DirectoryState read_directory(const ds_db_t *db, const std::vector<ds_node_t *> &nodes) {
    DirectoryState state;
    const Owners owners = read_owners();
    for (avl_node_t *node = avl_get_first(const_cast<avl_root_t *>(&db->selem_tree));
         node != nullptr; node = avl_get_next(node)) {
        auto *selem = reinterpret_cast<ds_service_elem_t *>(node);
        state.elements.emplace_hint(state.elements.end(), selem->name,
                                    read_element(*selem, owners));
    }
    for (ds_client_t *client = ds_client_get_client_list_head(); client != nullptr;
         client = ds_client_get_next_in_client_list(client))
        state.clients.push_back(read_client(*client));
    for (const ds_node_t *node : nodes)
        state.nodes[node] = {node->services_added, node->services_deleted, node->services_updated,
                             node->down_count};
    state.counts = {
        db->local_services_added,    db->remote_services_added,  db->local_services_deleted,
        db->remote_services_deleted, db->local_services_updated, db->remote_services_updated,
        db->registrations_added,     db->registrations_deleted,  db->nnotifs,
        db->relay_updates_sent,      db->clients_added,          db->clients_deleted,
        db->relay_adds_sent,         db->relay_deletes_sent,     db->relay_modifies_sent,
        db->relay_updates_received};
    state.last_client_index = db->client_idx_counter;
    state.next_service_id = db->next_service_id;
    return state;
}

std::string text_of(const DirectoryState &state) {
    std::string text = " last index " + std::to_string(state.last_client_index) + " next id " +
                       std::to_string(state.next_service_id) + text_of(state.counts);
    for (const auto &[name, element] : state.elements) {
        text +=
            " '" + name + "' version " + std::to_string(element.version) + text_of(element.counts);
        for (const ServiceState &service : element.services)
            text += text_of(service);
        for (const RegistrationState &registration : element.registrations)
            text += "  registration " + std::to_string(registration.client) + '.' +
                    std::to_string(registration.handle) + " told " +
                    std::to_string(registration.version_told) + " times " +
                    std::to_string(registration.times_told) + '\n';
    }
    for (const ClientState &client : state.clients)
        text += " client " + std::to_string(client.handle) + " '" + client.name + "' index " +
                std::to_string(client.index) + text_of(client.counts);
    for (const auto &[node, counts] : state.nodes)
        text += std::string(" node ") + node->name + text_of(counts);
    return text;
}

} // namespace ds::fuzz
