#include "cli/relay_status.h"

#include <cstdio>
#include <string>

namespace ds::cli {
namespace {

constexpr std::uint32_t us_per_ms = 1000;

std::string ms_text(std::uint32_t us) {
    char text[32];
    std::snprintf(text, sizeof text, "%u.%03ums", us / us_per_ms, us % us_per_ms);
    return text;
}

std::string latency_text(const v1::RelayStatus &relay) {
    if (relay.echo_count() == 0) return "nothing came back yet";
    return "last " + ms_text(relay.echo_last_us()) + ", p50 " + ms_text(relay.echo_p50_us()) +
           ", p99 " + ms_text(relay.echo_p99_us());
}

std::string endpoint_text(const v1::RelayStatus &relay) {
    if (relay.version().empty()) return relay.endpoint();
    return relay.endpoint() + " (etcd " + relay.version() + ')';
}

} // namespace

Fields relay_fields(const v1::RelayStatus &relay, std::uint64_t now_ns) {
    const auto number = [](auto value) { return std::to_string(value); };
    Fields fields = {
        {"  state", relay.state()},
        {"  endpoint", endpoint_text(relay)},
        {"  epoch", relay.epoch()},
        {"  revision", number(relay.revision())},
        {"  nodes", number(relay.nodes())},
        {"  latency", latency_text(relay)},
        {"  waiting", number(relay.waiting())},
        {"  connections", number(relay.sessions())},
        {"  outages", number(relay.outages())},
        {"  audits", number(relay.audits())},
        {"  repairs", number(relay.repairs())},
        {"  leases lost", number(relay.leases_lost())},
        {"  epoch changes", number(relay.epoch_changes())},
        {"  writes", number(relay.writes())},
        {"  operations", number(relay.operations())},
        {"  echoes", number(relay.echoes())},
        {"  fenced", number(relay.fenced())},
        {"  cleanups", number(relay.cleanups())},
        {"  refused", number(relay.refused())},
    };
    if (!relay.fatal().empty()) fields.emplace_back("  given up", relay.fatal());
    for (const v1::RelayRefusal &refusal : relay.refusals())
        fields.emplace_back("  refusal", refusal.key() + ": " + refusal.reason());
    for (const v1::RelayError &error : relay.errors())
        fields.emplace_back("  error", error.text() + " (" + number(error.count()) + ", last " +
                                           age_text(age_ns(error.last_ns(), now_ns)) + " ago)");
    return fields;
}

Json relay_json(const v1::RelayStatus &relay, std::uint64_t now_ns) {
    Json json;
    json["state"] = relay.state();
    json["connected"] = relay.connected();
    json["fatal"] = text_or_null(relay.fatal());
    json["endpoint"] = relay.endpoint();
    json["version"] = text_or_null(relay.version());
    json["epoch"] = text_or_null(relay.epoch());
    json["revision"] = relay.revision();
    json["nodes"] = relay.nodes();
    json["echo_delay"] = {{"count", relay.echo_count()},
                          {"last_us", relay.echo_last_us()},
                          {"p50_us", relay.echo_p50_us()},
                          {"p99_us", relay.echo_p99_us()}};
    json["waiting"] = relay.waiting();
    json["sessions"] = relay.sessions();
    json["outages"] = relay.outages();
    json["audits"] = relay.audits();
    json["repairs"] = relay.repairs();
    json["leases_lost"] = relay.leases_lost();
    json["epoch_changes"] = relay.epoch_changes();
    json["writes"] = relay.writes();
    json["operations"] = relay.operations();
    json["echoes"] = relay.echoes();
    json["fenced"] = relay.fenced();
    json["cleanups"] = relay.cleanups();
    json["refused"] = relay.refused();
    json["refusals"] = Json::array();
    for (const v1::RelayRefusal &refusal : relay.refusals())
        json["refusals"].push_back({{"key", refusal.key()}, {"reason", refusal.reason()}});
    json["errors"] = Json::array();
    for (const v1::RelayError &error : relay.errors()) {
        Json one = {{"text", error.text()}, {"count", error.count()}};
        put_time(one, "last", error.last_ns(), now_ns);
        json["errors"].push_back(std::move(one));
    }
    return json;
}

} // namespace ds::cli
