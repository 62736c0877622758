#include "host/dump.h"

#include <cstdlib>
#include <memory>
#include <string>

// The public dump call answers for the whole directory at once. Pages take its parts, which fill
// the records of one name or one client.
#include "ds_internal.h"
#include "host/names.h"
#include "host/session.h"
#include "host/snapshot.h"
#include "host/wall_clock.h"

namespace ds::host {

namespace {

constexpr std::size_t dump_page_bytes_max = 32'768; // but for a single record
constexpr std::size_t visits_max = 512;             // names or slots looked at for one page
constexpr std::size_t nested_bytes_max = 1'000'000; // of what one name or client holds

struct Freed {
    void operator()(void *memory) const { std::free(memory); }
};

// Records hold names as numbers.
const char *text_at(std::uint64_t address) {
    return reinterpret_cast<const char *>(address);
}

std::uint32_t attribute(const ds_dump_service_info &record, std::int32_t type) {
    for (std::uint32_t i = 0; i < record.attrs_count; i++)
        if (record.attrs[i].type == type) return record.attrs[i].value;
    return 0;
}

class Dumper {
  public:
    Dumper(const Directory &directory, const v1::Dump &dump, const NameFilter &is_allowed)
        : directory_(directory), is_allowed_(is_allowed) {
        walk_.scope_filter = dump.scope() == v1::SCOPE_NONE
                                 ? std::uint32_t{DS_SCOPE_ANY}
                                 : static_cast<std::uint32_t>(dump.scope());
        if (dump.node().empty()) return;
        const ds_node_t *node = directory.find_node(dump.node());
        is_node_unknown_ = node == nullptr;
        walk_.node_filter = reinterpret_cast<std::uint64_t>(node);
    }

    // Whether there is something to show of the element.
    bool fill_name(ds_service_elem_t *element, bool with_services, v1::DumpedName &name) {
        if (!is_allowed_({element->name, element->name_len})) return false;
        nested_bytes_ = 0;
        if (with_services && !fill_services(element, name)) return false;
        if (!fill_registrations(element, name) && !with_services) return false;
        fill_head(*element, name);
        return true;
    }

    void fill_client(const Session &session, v1::DumpedClient &out) {
        nested_bytes_ = 0;
        ds_client_t *client = session.client();
        out.set_session(session.id());
        out.set_name(client->name);
        out.set_pid(static_cast<std::uint32_t>(session.process_id()));
        out.set_uid(session.uid());
        out.set_number(client->client_idx);
        out.set_services_published(client->services_published);
        out.set_services_updated(client->services_updated);
        out.set_services_deleted(client->services_deleted);
        out.set_registrations_added(client->registrations_added);
        out.set_registrations_deleted(client->registrations_deleted);
        out.set_notifications(client->nnotifs);
        out.set_last_activity_ns(wall_(client->last_activity_time));
        out.set_unsent_bytes(session.unsent_bytes());
        fill_nested(client, out);
    }

  private:
    bool fill_services(ds_service_elem_t *element, v1::DumpedName &name) {
        if (is_node_unknown_) return false;
        ds_dump_selem_info record = {};
        std::uint32_t count = 0;
        ds_fill_services(element, &record, &walk_, &count);
        const std::unique_ptr<ds_dump_service_info, Freed> owner(record.service_infos);
        name.set_service_count(count);
        take_services(record.service_infos, record.service_infos_count, name);
        return count != 0;
    }

    bool fill_registrations(ds_service_elem_t *element, v1::DumpedName &name) {
        ds_dump_selem_info record = {};
        std::uint32_t count = 0;
        ds_fill_service_registrations(element, &record, &walk_, &count);
        const std::unique_ptr<vidl_ds_client_reg_entry, Freed> owner(record.reg_entries);
        name.set_registration_count(count);
        take_registrations(record.reg_entries, record.reg_entries_count, name);
        return count != 0;
    }

    void fill_head(const ds_service_elem_t &element, v1::DumpedName &name) const {
        name.set_name(element.name, element.name_len);
        name.set_last_add_ns(wall_(element.last_add_time));
        name.set_last_delete_ns(wall_(element.last_delete_time));
        name.set_last_modify_ns(wall_(element.last_modify_time));
        name.set_last_register_ns(wall_(element.last_reg_time));
        name.set_last_unregister_ns(wall_(element.last_unreg_time));
        name.set_local_added(element.local_services_added);
        name.set_local_deleted(element.local_services_deleted);
        name.set_remote_added(element.remote_services_added);
        name.set_remote_deleted(element.remote_services_deleted);
        name.set_registrations_added(element.registrations_added);
        name.set_registrations_deleted(element.registrations_deleted);
        name.set_notifications(element.nnotifs);
        name.set_remote_changes(element.remote_change_count);
        name.set_relay_updates_sent(element.relay_updates_sent);
    }

    void fill_nested(ds_client_t *client, v1::DumpedClient &out) {
        ds_dump_client_info record = {};
        std::uint32_t services = 0;
        if (!is_node_unknown_) ds_fill_client_services(client, &record, &walk_, &services);
        const std::unique_ptr<ds_dump_service_info, Freed> service_owner(record.service_infos);
        out.set_service_count(services);
        take_services(record.service_infos, record.service_infos_count, out);
        std::uint32_t registrations = 0;
        ds_fill_client_registrations(client, &record, &walk_, &registrations);
        const std::unique_ptr<vidl_ds_client_reg_entry, Freed> entry_owner(record.reg_entries);
        out.set_registration_count(registrations);
        take_registrations(record.reg_entries, record.reg_entries_count, out);
    }

    template <typename Out>
    void take_services(const ds_dump_service_info *records, std::uint32_t count, Out &out) {
        for (std::uint32_t i = 0; i < count && nested_bytes_ < nested_bytes_max; i++) {
            if (!is_allowed_(text_at(records[i].service_name))) continue;
            v1::DumpedService &service = *out.add_services();
            fill_service(records[i], service);
            nested_bytes_ += service.ByteSizeLong();
        }
    }

    template <typename Out>
    void take_registrations(const vidl_ds_client_reg_entry *entries, std::uint32_t count,
                            Out &out) {
        for (std::uint32_t i = 0; i < count && nested_bytes_ < nested_bytes_max; i++) {
            if (!is_allowed_(text_at(entries[i].service_name))) continue;
            v1::DumpedRegistration &registration = *out.add_registrations();
            registration.set_name(text_at(entries[i].service_name));
            registration.set_pid(entries[i].pid);
            registration.set_client(entries[i].client_name);
            registration.set_created_ns(wall_(entries[i].created_time));
            registration.set_notified_ns(wall_(entries[i].last_notif_time));
            registration.set_notifications(entries[i].nnotifs);
            nested_bytes_ += registration.ByteSizeLong();
        }
    }

    void fill_service(const ds_dump_service_info &record, v1::DumpedService &out) const {
        out.set_name(text_at(record.service_name));
        out.set_publisher(record.proc_id);
        out.set_added_ns(wall_(record.added_time));
        out.set_updated_ns(wall_(record.update_time));
        out.set_relay_sent_ns(wall_(record.last_relay_send_time));
        v1::Instance &instance = *out.mutable_instance();
        instance.set_service_id(record.service_id);
        instance.set_instance(std::string(to_client_instance(record.instance)));
        instance.set_scope(static_cast<v1::Scope>(record.scope));
        if (record.node_addr != nullptr) {
            const auto *address = reinterpret_cast<const char *>(record.node_addr);
            instance.set_node(address, record.node_addr_len);
            instance.set_local(instance.node() == directory_.node_bytes());
        }
        std::string endpoint;
        encode_endpoint(record.ep_type, record.ep_addr, record.ep_addr_len, endpoint);
        instance.mutable_endpoint()->ParseFromString(endpoint);
        instance.set_ha_role(static_cast<v1::HaRole>(attribute(record, DS_ATTR_HA_ROLE)));
        instance.set_issu_role(static_cast<v1::IssuRole>(attribute(record, DS_ATTR_ISSU_ROLE)));
        instance.set_issu_id(attribute(record, DS_ATTR_ISSU_ID));
        instance.set_pid(record.pid);
    }

    const Directory &directory_;
    const NameFilter &is_allowed_;
    WallClock wall_;
    ds_dump_walk_ctx walk_ = {};
    bool is_node_unknown_ = false;
    std::size_t nested_bytes_ = 0;
};

} // namespace

void fill_names(const Directory &directory, const v1::Dump &dump, const NameFilter &is_allowed,
                v1::DumpReply &reply) {
    Dumper dumper(directory, dump, is_allowed);
    const bool with_services = dump.kind() == v1::DUMP_KIND_SERVICES;
    if (!dump.name().empty()) {
        ds_service_elem_t *element = directory.find(dump.name());
        if (element != nullptr && !dumper.fill_name(element, with_services, *reply.add_names()))
            reply.mutable_names()->RemoveLast();
        return;
    }
    std::size_t bytes = 0;
    std::size_t visits = 0;
    ds_service_elem_t *last = nullptr;
    ds_service_elem_t *element =
        dump.after().empty() ? directory.first() : directory.first_behind(dump.after());
    for (; element != nullptr && visits < visits_max; element = Directory::next(element)) {
        v1::DumpedName &name = *reply.add_names();
        const bool is_shown = dumper.fill_name(element, with_services, name);
        if (is_shown) bytes += name.ByteSizeLong();
        const bool is_full = is_shown && bytes > dump_page_bytes_max && reply.names_size() > 1;
        if (!is_shown || is_full) reply.mutable_names()->RemoveLast();
        if (is_full) break;
        last = element;
        visits++;
    }
    if (element != nullptr && last != nullptr) reply.set_next(last->name, last->name_len);
}

void fill_clients(const Directory &directory, const SessionTable &sessions, const v1::Dump &dump,
                  const NameFilter &is_allowed, v1::DumpReply &reply) {
    Dumper dumper(directory, dump, is_allowed);
    std::size_t bytes = 0;
    const auto take = [&](const Session &session) {
        if (session.client() == nullptr) return true;
        if (!dump.name().empty() && dump.name() != session.client()->name) return true;
        v1::DumpedClient &client = *reply.add_clients();
        dumper.fill_client(session, client);
        bytes += client.ByteSizeLong();
        const bool has_room = bytes <= dump_page_bytes_max || reply.clients_size() == 1;
        if (!has_room) reply.mutable_clients()->RemoveLast();
        return has_room;
    };
    reply.set_next_client(sessions.visit_behind(dump.after_client(), visits_max, take));
}

} // namespace ds::host
