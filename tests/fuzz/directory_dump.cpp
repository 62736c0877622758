#include "directory_dump.h"

#include <algorithm>
#include <cstdlib>

#include "input.h"

namespace ds::fuzz {

namespace {

const char *text_at(std::uint64_t address) {
    return reinterpret_cast<const char *>(address);
}

// ---- reading a response ----

DumpedService read(const ds_dump_service_info &record) {
    DumpedService service;
    service.name = text_at(record.service_name);
    service.endpoint.type = record.ep_type;
    service.endpoint.address.assign(reinterpret_cast<const char *>(record.ep_addr),
                                    record.ep_addr_len);
    service.endpoint.scope = record.scope;
    if (VIDL_PRESENT(&record, DS_DSVC_BIT_INSTANCE)) service.endpoint.instance = record.instance;
    for (std::uint32_t i = 0; i < record.attrs_count; i++)
        service.endpoint.attributes.push_back({record.attrs[i].type, record.attrs[i].value});
    service.node_address = record.node_addr;
    service.id = record.service_id;
    service.pid = record.pid;
    service.proc_id = record.proc_id;
    return service;
}

DumpedRegistration read(const vidl_ds_client_reg_entry &entry) {
    return {text_at(entry.service_name), entry.client_name, entry.pid, entry.nnotifs};
}

template <typename Record> DumpedRecord read_lists(const Record &record) {
    DumpedRecord result;
    for (std::uint32_t i = 0; i < record.service_infos_count; i++)
        result.services.push_back(read(record.service_infos[i]));
    for (std::uint32_t i = 0; i < record.reg_entries_count; i++)
        result.registrations.push_back(read(record.reg_entries[i]));
    std::free(record.service_infos);
    std::free(record.reg_entries);
    return result;
}

DumpedRecord read(const ds_dump_selem_info &record) {
    DumpedRecord result = read_lists(record);
    result.name = record.name;
    result.counts = {record.local_services_added,
                     record.remote_services_added,
                     record.local_services_deleted,
                     record.remote_services_deleted,
                     record.local_services_updated,
                     record.remote_services_updated,
                     record.registrations_added,
                     record.registrations_deleted,
                     record.nnotifs,
                     record.relay_updates_sent,
                     record.remote_change_count};
    require(VIDL_PRESENT(&record, DS_DSEL_BIT_LOCAL_SERVICES_UPDATED) == 0 &&
                VIDL_PRESENT(&record, DS_DSEL_BIT_REMOTE_SERVICES_UPDATED) == 0,
            "a dump shows an element's updates");
    return result;
}

DumpedRecord read(const ds_dump_client_info &record) {
    DumpedRecord result = read_lists(record);
    result.name = text_at(record.client_name);
    result.pid = record.pid;
    result.counts = {record.services_published,    record.services_updated,
                     record.services_deleted,      record.registrations_added,
                     record.registrations_deleted, record.nnotifs};
    return result;
}

// ---- making the expected answer ----

DumpedService expected(const std::string &name, const ServiceState &service) {
    return {name,           service.endpoints.front(), service.node->addr, service.id, service.pid,
            service.proc_id};
}

DumpedRegistration expected(const DirectoryState &state, const std::string &name,
                            const RegistrationState &registration) {
    const auto owner =
        std::find_if(state.clients.begin(), state.clients.end(),
                     [&](const auto &client) { return client.handle == registration.client; });
    return {name, owner->name, owner->pid, registration.times_told};
}

DumpedRecord expected(const DirectoryState &state, const std::string &name,
                      const ElementState &element, const DumpRequest &request) {
    DumpedRecord record;
    record.name = name;
    record.counts.assign(element.counts.begin(), element.counts.end());
    record.counts[local_updated] = record.counts[remote_updated] = 0;
    const bool wants_services = (request.flags & DS_DUMP_REQ_SERVICES) != 0;
    if (wants_services)
        for (const ServiceState &service : element.services)
            if (is_live(service, request.scope, request.node))
                record.services.push_back(expected(name, service));
    if (!wants_services || !record.services.empty())
        for (const RegistrationState &registration : element.registrations)
            record.registrations.push_back(expected(state, name, registration));
    return record;
}

DumpedRecord expected(const DirectoryState &state, const ClientState &client) {
    DumpedRecord record;
    record.name = client.name;
    record.pid = client.pid;
    record.counts.assign(client.counts.begin(), client.counts.end());
    std::map<std::size_t, DumpedService> services;             // by rank
    std::map<std::uint32_t, DumpedRegistration> registrations; // by handle
    for (const auto &[name, element] : state.elements) {
        for (const ServiceState &service : element.services)
            if (service.client == client.handle && !service.is_placeholder())
                services[service.rank] = expected(name, service);
        for (const RegistrationState &registration : element.registrations)
            if (registration.client == client.handle)
                registrations[registration.handle] = expected(state, name, registration);
    }
    for (const auto &[rank, service] : services)
        record.services.push_back(service);
    for (auto at = registrations.rbegin(); at != registrations.rend(); ++at)
        record.registrations.push_back(at->second);
    return record;
}

} // namespace

bool is_live(const ServiceState &service, std::uint32_t scope, const ds_node_t *node) {
    return !service.is_placeholder() && (scope == DS_SCOPE_ANY || service.scope == scope) &&
           (node == nullptr || service.node == node);
}

std::uint32_t published_names(const DirectoryState &state, const std::optional<std::string> &name,
                              std::uint32_t scope, const ds_node_t *node) {
    return count_names(state, name, [&](const ElementState &element) {
        return std::any_of(element.services.begin(), element.services.end(),
                           [&](const auto &service) { return is_live(service, scope, node); });
    });
}

std::uint32_t registered_names(const DirectoryState &state,
                               const std::optional<std::string> &name) {
    return count_names(state, name,
                       [](const ElementState &element) { return !element.registrations.empty(); });
}

std::uint32_t client_count(const DirectoryState &state, const std::optional<std::string> &name) {
    return static_cast<std::uint32_t>(
        std::count_if(state.clients.begin(), state.clients.end(),
                      [&](const auto &client) { return !name || client.name == *name; }));
}

bool can_be_dumped(const DirectoryState &state) {
    for (const auto &[name, element] : state.elements)
        for (const ServiceState &service : element.services)
            if (service.endpoints.size() != 1) return false;
    return true;
}

Dump take_dump(const DumpRequest &request) {
    ds_dump_resp_info response;
    VIDL_CLEAR(&response);
    VIDL_SET(&response, request_flags, DS_RESP_BIT_REQUEST_FLAGS, request.flags);
    Dump dump;
    const int result = ds_prepare_dump_resp_info(
        request.name ? request.name->c_str() : nullptr,
        request.node != nullptr ? request.node->addr : nullptr, request.scope, &response,
        &dump.elements_counted, &dump.clients_counted);
    require(result == 0, "a dump was refused");
    for (std::uint32_t i = 0; i < response.selem_infos_count; i++)
        dump.elements.push_back(read(response.selem_infos[i]));
    for (std::uint32_t i = 0; i < response.client_infos_count; i++)
        dump.clients.push_back(read(response.client_infos[i]));
    std::free(response.selem_infos);
    std::free(response.client_infos);
    dump.counts = {response.local_services_added,
                   response.remote_services_added,
                   response.local_services_deleted,
                   response.remote_services_deleted,
                   response.local_services_updated,
                   response.remote_services_updated,
                   response.registrations_added,
                   response.registrations_deleted,
                   response.nnotifs,
                   response.relay_updates_sent,
                   response.clients_added,
                   response.clients_deleted,
                   response.relay_adds_sent,
                   response.relay_deletes_sent,
                   response.relay_modifies_sent,
                   response.relay_updates_received};
    return dump;
}

Dump expected_dump(const DirectoryState &state, const DumpRequest &request) {
    Dump dump;
    dump.counts = state.counts;
    if ((request.flags & DS_DUMP_REQ_SERVICES) != 0)
        dump.elements_counted = published_names(state, request.name, request.scope, request.node);
    else if ((request.flags & DS_DUMP_REQ_REGISTRATIONS) != 0)
        dump.elements_counted = registered_names(state, request.name);
    else if ((request.flags & DS_DUMP_REQ_CLIENTS) != 0)
        dump.clients_counted = client_count(state, request.name);
    for (const auto &[name, element] : state.elements) {
        if (dump.elements.size() == dump.elements_counted) break;
        if (request.name && *request.name != name) continue;
        DumpedRecord record = expected(state, name, element, request);
        if (!record.services.empty() || !record.registrations.empty())
            dump.elements.push_back(std::move(record));
    }
    if (dump.clients_counted != 0)
        for (const ClientState &client : state.clients)
            if (!request.name || client.name == *request.name)
                dump.clients.push_back(expected(state, client));
    return dump;
}

std::string text_of(const Dump &dump) {
    std::string text = " counted " + std::to_string(dump.elements_counted) + ' ' +
                       std::to_string(dump.clients_counted) + '\n';
    for (const auto *records : {&dump.elements, &dump.clients})
        for (const DumpedRecord &record : *records) {
            text += " '" + record.name + "' pid " + std::to_string(record.pid) + " counts";
            for (const std::uint32_t count : record.counts)
                text += ' ' + std::to_string(count);
            text += '\n';
            for (const DumpedService &service : record.services)
                text += "  service '" + service.name + "' id " + std::to_string(service.id) +
                        " pid " + std::to_string(service.pid) + " proc " +
                        std::to_string(service.proc_id) + text_of(Endpoints{service.endpoint}) +
                        '\n';
            for (const DumpedRegistration &registration : record.registrations)
                text += "  registration '" + registration.name + "' of '" +
                        registration.client_name + "' pid " + std::to_string(registration.pid) +
                        " told " + std::to_string(registration.times_told) + '\n';
        }
    return text;
}

} // namespace ds::fuzz
