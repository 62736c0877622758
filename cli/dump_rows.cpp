#include "cli/dump_rows.h"

#include "cli/endpoint.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

std::string time_cell(std::uint64_t wall_ns) {
    return wall_ns == 0 ? "" : local_text(wall_ns);
}

std::string age_cell(std::uint64_t wall_ns, std::uint64_t now_ns) {
    return wall_ns == 0 ? "" : age_text(age_ns(wall_ns, now_ns));
}

void append(Cells &cells, Cells more) {
    for (std::string &cell : more)
        cells.push_back(std::move(cell));
}

Cells service_row(const v1::DumpedName &name, const v1::DumpedService &service, bool wide,
                  std::uint64_t now_ns) {
    const v1::Instance &instance = service.instance();
    Cells cells = {name.name(),
                   instance.instance(),
                   scope_text(instance.scope()),
                   endpoint_text(instance.endpoint()),
                   ha_text(instance.ha_role()),
                   issu_cell(instance),
                   node_cell(instance),
                   number(instance.pid()),
                   number(name.registration_count()),
                   time_cell(service.added_ns()),
                   age_cell(service.added_ns(), now_ns)};
    if (!wide) return cells;
    append(cells,
           {id_text(instance.service_id()), node_text(instance.node()), number(service.publisher()),
            time_cell(service.updated_ns()), age_cell(service.updated_ns(), now_ns),
            time_cell(service.relay_sent_ns()), age_cell(service.relay_sent_ns(), now_ns)});
    return cells;
}

Cells holder_cells(const v1::DumpedClient &client) {
    return {number(client.session()), client.name(), number(client.pid())};
}

template <class Record> std::string cut_text(const Record &record) {
    const auto part = [](std::uint64_t listed, std::uint64_t all, const char *what) {
        if (listed >= all) return std::string();
        return number(listed) + " of " + number(all) + ' ' + what;
    };
    const auto listed = [](int count) { return static_cast<std::uint64_t>(count); };
    const std::string services =
        part(listed(record.services_size()), record.service_count(), "services");
    const std::string registrations =
        part(listed(record.registrations_size()), record.registration_count(), "registrations");
    const bool both = !services.empty() && !registrations.empty();
    return services + (both ? " and " : "") + registrations;
}

std::string cut_sentence(const std::string &whose, const std::string &parts) {
    if (parts.empty()) return {};
    return whose + ": only " + parts + " fit into a frame and are shown";
}

} // namespace

Cells dump_titles(v1::DumpKind kind, bool wide) {
    Cells titles;
    switch (kind) {
    case v1::DUMP_KIND_SERVICES:
        titles = {"NAME", "INSTANCE", "SCOPE", "ENDPOINT", "HA", "ISSU",
                  "NODE", "PID",      "REGS",  "ADDED",    "AGE"};
        if (wide) {
            append(titles, {"ID", "ADDRESS", "PUBLISHER", "UPDATED", "UPDATED_AGO", "RELAYED",
                            "RELAYED_AGO"});
        }
        break;
    case v1::DUMP_KIND_REGISTRATIONS:
        titles = {"NAME", "CLIENT", "PID", "NOTIFS", "CREATED", "AGE"};
        if (wide) append(titles, {"NOTIFIED", "NOTIFIED_AGO"});
        break;
    default:
        titles = {"SESSION",  "CLIENT", "PID",      "HOLDS", "NAME",
                  "INSTANCE", "SCOPE",  "ENDPOINT", "SINCE", "AGE"};
        if (wide) append(titles, {"ID", "NOTIFS"});
    }
    return titles;
}

std::vector<Cells> service_rows(const v1::DumpedName &name, bool wide, std::uint64_t now_ns) {
    std::vector<Cells> rows;
    for (const v1::DumpedService &service : name.services())
        rows.push_back(service_row(name, service, wide, now_ns));
    return rows;
}

std::vector<Cells> registration_rows(const v1::DumpedName &name, bool wide, std::uint64_t now_ns) {
    std::vector<Cells> rows;
    for (const v1::DumpedRegistration &one : name.registrations()) {
        rows.push_back({name.name(), one.client(), number(one.pid()), number(one.notifications()),
                        time_cell(one.created_ns()), age_cell(one.created_ns(), now_ns)});
        if (!wide) continue;
        append(rows.back(), {time_cell(one.notified_ns()), age_cell(one.notified_ns(), now_ns)});
    }
    return rows;
}

std::vector<Cells> holding_rows(const v1::DumpedClient &client, bool wide, std::uint64_t now_ns) {
    std::vector<Cells> rows;
    for (const v1::DumpedService &service : client.services()) {
        const v1::Instance &instance = service.instance();
        rows.push_back(holder_cells(client));
        append(rows.back(), {"service", service.name(), instance.instance(),
                             scope_text(instance.scope()), endpoint_text(instance.endpoint()),
                             time_cell(service.added_ns()), age_cell(service.added_ns(), now_ns)});
        if (wide) append(rows.back(), {id_text(instance.service_id()), ""});
    }
    for (const v1::DumpedRegistration &one : client.registrations()) {
        rows.push_back(holder_cells(client));
        append(rows.back(), {"registration", one.name(), "", "", "", time_cell(one.created_ns()),
                             age_cell(one.created_ns(), now_ns)});
        if (wide) append(rows.back(), {"", number(one.notifications())});
    }
    if (rows.empty()) rows.push_back(holder_cells(client));
    return rows;
}

Cells client_titles(bool wide) {
    Cells titles = {"SESSION", "NAME",   "PID",    "USER",   "SERVICES",
                    "REGS",    "NOTIFS", "UNSENT", "ACTIVE", "ACTIVE_AGO"};
    if (wide) {
        append(titles,
               {"NUMBER", "PUBLISHED", "UPDATED", "WITHDRAWN", "REGISTERED", "UNREGISTERED"});
    }
    return titles;
}

Cells client_row(const v1::DumpedClient &client, bool wide, std::uint64_t now_ns) {
    const std::string user = user_name(client.uid());
    Cells cells = {number(client.session()),
                   client.name(),
                   number(client.pid()),
                   user.empty() ? number(client.uid()) : user,
                   number(client.service_count()),
                   number(client.registration_count()),
                   number(client.notifications()),
                   number(client.unsent_bytes()),
                   time_cell(client.last_activity_ns()),
                   age_cell(client.last_activity_ns(), now_ns)};
    if (!wide) return cells;
    append(cells, {number(client.number()), number(client.services_published()),
                   number(client.services_updated()), number(client.services_deleted()),
                   number(client.registrations_added()), number(client.registrations_deleted())});
    return cells;
}

Cells node_titles(bool wide) {
    Cells titles = {"NODE", "LOCAL",    "STATE", "RACK",      "HOST",
                    "AGE",  "SERVICES", "DOWN",  "LAST_DOWN", "LAST_DOWN_AGO"};
    if (wide) append(titles, {"ADDED", "UPDATED", "DELETED", "CHANGED", "CHANGED_AGO"});
    return titles;
}

Cells node_row(const v1::Node &node, bool wide, std::uint64_t now_ns) {
    Cells cells = {node_text(node.address()),
                   node.local() ? "yes" : "no",
                   node_state_text(node.state()),
                   node.rack(),
                   node.host_name(),
                   age_cell(node.started_ns(), now_ns),
                   node.state() == v1::NODE_STATE_UP ? number(node.services()) : "",
                   number(node.times_down()),
                   time_cell(node.last_down_ns()),
                   age_cell(node.last_down_ns(), now_ns)};
    if (!wide) return cells;
    append(cells, {number(node.services_added()), number(node.services_updated()),
                   number(node.services_deleted()), time_cell(node.last_change_ns()),
                   age_cell(node.last_change_ns(), now_ns)});
    return cells;
}

Fields stats_fields(const v1::StatsReply &stats, std::uint64_t now_ns) {
    // The counters wrap, and so does their difference.
    const auto present = [](std::uint32_t added, std::uint32_t deleted) {
        return number(std::uint32_t{added - deleted});
    };
    const auto moment = [now_ns](std::uint64_t wall_ns) {
        if (wall_ns == 0) return std::string("never");
        return local_text(wall_ns) + ", " + age_text(age_ns(wall_ns, now_ns)) + " ago";
    };
    return {
        {"clients", present(stats.clients_added(), stats.clients_deleted())},
        {"  came", number(stats.clients_added())},
        {"  left", number(stats.clients_deleted())},
        {"  last came", moment(stats.last_client_add_ns())},
        {"  last left", moment(stats.last_client_delete_ns())},
        {"local services", present(stats.local_services_added(), stats.local_services_deleted())},
        {"  added", number(stats.local_services_added())},
        {"  updated", number(stats.local_services_updated())},
        {"  deleted", number(stats.local_services_deleted())},
        {"remote services",
         present(stats.remote_services_added(), stats.remote_services_deleted())},
        {"  added", number(stats.remote_services_added())},
        {"  updated", number(stats.remote_services_updated())},
        {"  deleted", number(stats.remote_services_deleted())},
        {"registrations", present(stats.registrations_added(), stats.registrations_deleted())},
        {"  added", number(stats.registrations_added())},
        {"  deleted", number(stats.registrations_deleted())},
        {"notifications", number(stats.notifications())},
        {"relay updates sent", number(stats.relay_updates_sent())},
        {"  adds", number(stats.relay_adds_sent())},
        {"  modifies", number(stats.relay_modifies_sent())},
        {"  deletes", number(stats.relay_deletes_sent())},
        {"relay updates received", number(stats.relay_updates_received())},
    };
}

std::string what_was_cut(const v1::DumpedName &name) {
    return cut_sentence(full_name(name.name(), ""), cut_text(name));
}

std::string what_was_cut(const v1::DumpedClient &client) {
    return cut_sentence("session " + number(client.session()) + ' ' + cell(client.name()),
                        cut_text(client));
}

} // namespace ds::cli
