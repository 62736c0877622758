#include "cli/json.h"

#include "cli/endpoint.h"
#include "cli/output.h"
#include "cli/relay_status.h"
#include "cli/vocabulary.h"

template class nlohmann::basic_json<nlohmann::ordered_map>;

namespace ds::cli {

void put_time(Json &json, const std::string &key, std::uint64_t wall_ns, std::uint64_t now_ns) {
    json[key] = nullptr;
    json[key + "_age_ns"] = nullptr;
    if (wall_ns == 0) return;
    json[key] = rfc3339_text(wall_ns);
    json[key + "_age_ns"] = age_ns(wall_ns, now_ns);
}

Json text_or_null(std::string text) {
    if (text.empty()) return nullptr;
    return Json(std::move(text));
}

std::string json_line(const Json &value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string json_document(const Json &value) {
    return value.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json instance_json(std::string_view name, const v1::Instance &instance) {
    Json json;
    json["name"] = name;
    json["instance"] = instance.instance();
    json["scope"] = text_or_null(scope_text(instance.scope()));
    json["endpoint"] = endpoint_text(instance.endpoint());
    json["ha_role"] = text_or_null(ha_text(instance.ha_role()));
    json["issu_role"] = text_or_null(issu_text(instance.issu_role()));
    json["issu_id"] = instance.issu_id();
    json["node"] = node_text(instance.node());
    json["local"] = instance.local();
    json["id"] = instance.service_id();
    json["generation"] = instance.generation();
    json["pid"] = instance.pid();
    return json;
}

Json snapshot_json(const v1::Snapshot &snapshot) {
    Json json;
    json["name"] = snapshot.name();
    json["version"] = snapshot.version();
    json["reconciling"] = snapshot.reconciling();
    json["instances"] = Json::array();
    for (const v1::Instance &instance : snapshot.instances()) {
        json["instances"].push_back(instance_json(snapshot.name(), instance));
    }
    return json;
}

Json status_json(const v1::StatusReply &status, std::uint64_t now_ns) {
    Json json;
    json["daemon_version"] = status.daemon_version();
    json["pid"] = status.pid();
    json["uptime_ms"] = status.uptime_ms();
    json["node"] = node_text(status.node());
    json["socket"] = status.socket();
    json["trace_directory"] = text_or_null(status.trace_directory());
    json["relay"] = status.relay();
    json["sessions"] = status.sessions();
    json["sessions_total"] = status.sessions_total();
    json["names"] = status.names();
    json["services"] = status.services();
    json["registrations"] = status.registrations();
    json["publishes"] = status.publishes();
    json["withdrawals"] = status.withdrawals();
    json["notifications"] = status.notifications();
    json["coalesced"] = status.coalesced();
    json["bad_frames"] = status.bad_frames();
    json["queued_bytes"] = status.queued_bytes();
    json["resident_bytes"] = status.resident_bytes();
    json["relay_status"] =
        status.has_relay_status() ? relay_json(status.relay_status(), now_ns) : Json(nullptr);
    return json;
}

} // namespace ds::cli
