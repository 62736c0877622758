#include "cli/dump_json.h"

#include "cli/output.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

Json service_json(const v1::DumpedService &service, std::uint64_t now_ns) {
    Json json = instance_json(service.name(), service.instance());
    json.erase("generation"); // not told
    json["publisher"] = service.publisher();
    put_time(json, "added", service.added_ns(), now_ns);
    put_time(json, "updated", service.updated_ns(), now_ns);
    put_time(json, "relay_sent", service.relay_sent_ns(), now_ns);
    return json;
}

Json registration_json(const v1::DumpedRegistration &registration, std::uint64_t now_ns) {
    Json json;
    json["name"] = registration.name();
    json["client"] = registration.client();
    json["pid"] = registration.pid();
    json["notifications"] = registration.notifications();
    put_time(json, "created", registration.created_ns(), now_ns);
    put_time(json, "notified", registration.notified_ns(), now_ns);
    return json;
}

template <class Holder> Json services_json(const Holder &holder, std::uint64_t now_ns) {
    Json array = Json::array();
    for (const v1::DumpedService &service : holder.services())
        array.push_back(service_json(service, now_ns));
    return array;
}

template <class Holder> Json registrations_json(const Holder &holder, std::uint64_t now_ns) {
    Json array = Json::array();
    for (const v1::DumpedRegistration &registration : holder.registrations())
        array.push_back(registration_json(registration, now_ns));
    return array;
}

} // namespace

Json dumped_name_json(const v1::DumpedName &name, v1::DumpKind kind, std::uint64_t now_ns) {
    Json json;
    json["name"] = name.name();
    if (kind != v1::DUMP_KIND_REGISTRATIONS) {
        json["service_count"] = name.service_count();
        json["services"] = services_json(name, now_ns);
    }
    json["registration_count"] = name.registration_count();
    json["registrations"] = registrations_json(name, now_ns);
    put_time(json, "last_add", name.last_add_ns(), now_ns);
    put_time(json, "last_delete", name.last_delete_ns(), now_ns);
    put_time(json, "last_modify", name.last_modify_ns(), now_ns);
    put_time(json, "last_register", name.last_register_ns(), now_ns);
    put_time(json, "last_unregister", name.last_unregister_ns(), now_ns);
    json["local_added"] = name.local_added();
    json["local_deleted"] = name.local_deleted();
    json["remote_added"] = name.remote_added();
    json["remote_deleted"] = name.remote_deleted();
    json["remote_changes"] = name.remote_changes();
    json["registrations_added"] = name.registrations_added();
    json["registrations_deleted"] = name.registrations_deleted();
    json["notifications"] = name.notifications();
    json["relay_updates_sent"] = name.relay_updates_sent();
    return json;
}

Json client_json(const v1::DumpedClient &client, std::uint64_t now_ns) {
    Json json;
    const std::string user = user_name(client.uid());
    json["session"] = client.session();
    json["number"] = client.number();
    json["name"] = client.name();
    json["pid"] = client.pid();
    json["uid"] = client.uid();
    json["user"] = user.empty() ? Json(nullptr) : Json(user);
    json["service_count"] = client.service_count();
    json["registration_count"] = client.registration_count();
    json["notifications"] = client.notifications();
    json["unsent_bytes"] = client.unsent_bytes();
    put_time(json, "last_activity", client.last_activity_ns(), now_ns);
    json["services_published"] = client.services_published();
    json["services_updated"] = client.services_updated();
    json["services_deleted"] = client.services_deleted();
    json["registrations_added"] = client.registrations_added();
    json["registrations_deleted"] = client.registrations_deleted();
    return json;
}

Json dumped_client_json(const v1::DumpedClient &client, std::uint64_t now_ns) {
    Json json = client_json(client, now_ns);
    json["services"] = services_json(client, now_ns);
    json["registrations"] = registrations_json(client, now_ns);
    return json;
}

Json node_json(const v1::Node &node, std::uint64_t now_ns) {
    Json json;
    json["node"] = node_text(node.address());
    json["local"] = node.local();
    json["state"] = node_state_text(node.state());
    const bool is_up = node.state() == v1::NODE_STATE_UP;
    json["rack"] = is_up ? Json(node.rack()) : nullptr;
    json["host"] = is_up ? Json(node.host_name()) : nullptr;
    put_time(json, "started", node.started_ns(), now_ns);
    json["services"] = is_up ? Json(node.services()) : nullptr;
    json["services_added"] = node.services_added();
    json["services_updated"] = node.services_updated();
    json["services_deleted"] = node.services_deleted();
    put_time(json, "last_change", node.last_change_ns(), now_ns);
    json["times_down"] = node.times_down();
    put_time(json, "last_down", node.last_down_ns(), now_ns);
    return json;
}

Json stats_json(const v1::StatsReply &stats, std::uint64_t now_ns) {
    Json json;
    json["clients_added"] = stats.clients_added();
    json["clients_deleted"] = stats.clients_deleted();
    put_time(json, "last_client_add", stats.last_client_add_ns(), now_ns);
    put_time(json, "last_client_delete", stats.last_client_delete_ns(), now_ns);
    json["local_services_added"] = stats.local_services_added();
    json["local_services_updated"] = stats.local_services_updated();
    json["local_services_deleted"] = stats.local_services_deleted();
    json["remote_services_added"] = stats.remote_services_added();
    json["remote_services_updated"] = stats.remote_services_updated();
    json["remote_services_deleted"] = stats.remote_services_deleted();
    json["registrations_added"] = stats.registrations_added();
    json["registrations_deleted"] = stats.registrations_deleted();
    json["notifications"] = stats.notifications();
    json["relay_updates_sent"] = stats.relay_updates_sent();
    json["relay_adds_sent"] = stats.relay_adds_sent();
    json["relay_modifies_sent"] = stats.relay_modifies_sent();
    json["relay_deletes_sent"] = stats.relay_deletes_sent();
    json["relay_updates_received"] = stats.relay_updates_received();
    return json;
}

} // namespace ds::cli
