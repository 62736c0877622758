#include "host/handlers.h"

#include <algorithm>
#include <cstdint>

#include "host/dump.h"
#include "host/listing.h"
#include "host/names.h"
#include "host/nodes.h"
#include "host/publication.h"
#include "host/server.h"
#include "host/session.h"
#include "host/statistics.h"
#include "host/status.h"
#include "host/wire.h"
#include "proto/frame.h"

namespace ds::host {

namespace {

constexpr const char *out_of_memory = "The daemon has no memory left for this.";

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

std::string bad_address(const std::string &field, const std::string &bytes) {
    return field + " has " + std::to_string(bytes.size()) + " bytes; an Ethernet address has 6.";
}

// Whether the policy forbids it; then the reply says so.
bool is_denied(Call &call, Action action, const std::string &name) {
    const Rule *rule = find_denial(call.server.rules(), call.session.peer(), action, name);
    if (rule == nullptr) return false;
    refuse(call.reply, v1::STATUS_DENIED,
           describe_rule(*rule) + " does not let user " + quoted(call.session.account().name()) +
               " " + action_name(action) + (name.empty() ? "" : " " + quoted(name)) + ".");
    return true;
}

// What is left of a listing or a dump for those who ask.
NameFilter allowed_names(Call &call, Action action) {
    return [&call, action](std::string_view name) {
        return find_denial(call.server.rules(), call.session.peer(), action, name) == nullptr;
    };
}

// Whether the user has as many already as is allowed; then the reply says so.
bool is_over_limit(Call &call, Resource resource) {
    std::string text = call.server.accounts().refusal(call.session.account(), resource);
    if (text.empty()) return false;
    refuse(call.reply, v1::STATUS_LIMIT, std::move(text));
    return true;
}

// Tells a session that somebody else ended its publication.
void tell_withdrawn(Session &publisher, const ds_service_t &service, const Session &by) {
    v1::Withdrawn withdrawn;
    withdrawn.set_service_id(service.service_id);
    withdrawn.set_name(service.selem->name);
    withdrawn.set_instance(std::string(to_client_instance(service.instance)));
    withdrawn.set_scope(static_cast<v1::Scope>(service.scope));
    withdrawn.set_by_pid(static_cast<std::uint32_t>(by.process_id()));
    withdrawn.set_by_uid(by.uid());
    append_event(publisher.replies(), v1::Event::kWithdrawnFieldNumber, withdrawn);
}

void withdraw_by_id(Call &call, const v1::Withdraw &withdraw) {
    Directory &directory = call.server.directory();
    if (std::string text = check_text(service_name_rule, withdraw.name()); !text.empty())
        return refuse(call.reply, v1::STATUS_INVALID, std::move(text));
    ds_service_t *service = directory.find_local_service(withdraw.name(), withdraw.service_id());
    if (service == nullptr)
        return refuse(call.reply, v1::STATUS_NOT_FOUND,
                      "No service " + quoted(withdraw.name()) + " on this node has the id " +
                          std::to_string(withdraw.service_id()) + ".");
    const ds_client_t *client = directory.publisher_of(service);
    Session *publisher =
        client != nullptr ? call.server.sessions().find(client->client_hdl) : nullptr;
    const bool is_own_user = publisher != nullptr && publisher->uid() == call.session.uid();
    if (!is_own_user && call.session.uid() != 0)
        return refuse(call.reply, v1::STATUS_DENIED,
                      "The service was published by another user; only that user and root may "
                      "withdraw it.");
    if (publisher != nullptr && publisher != &call.session)
        tell_withdrawn(*publisher, *service, call.session);
    if (publisher != nullptr) publisher->remove_publication();
    directory.take_down(service);
    call.server.counters().withdrawals++;
}

} // namespace

void refuse(v1::Reply &reply, v1::Status status, std::string text) {
    reply.set_status(status);
    reply.set_text(std::move(text));
}

void handle_hello(Call &call) {
    const v1::Hello &hello = call.request.hello();
    if (std::string text = check_text(display_name_rule, hello.display_name()); !text.empty())
        return refuse(call.reply, v1::STATUS_INVALID, std::move(text));
    ds_client_t *client =
        call.server.directory().add_client(call.session.id(), hello.display_name());
    if (client == nullptr) return refuse(call.reply, v1::STATUS_INTERNAL, out_of_memory);
    call.session.open(client);

    v1::HelloReply &body = *call.reply.mutable_hello();
    body.set_protocol(std::min(hello.protocol(), proto::protocol_version));
    body.set_daemon_version(daemon_version());
    body.set_node(std::string(call.server.directory().node_bytes()));
    body.set_session(call.session.id());
    body.set_frame_bytes_max(proto::frame_bytes_max);
}

void handle_publish(Call &call) {
    const v1::Publish &publish = call.request.publish();
    Directory &directory = call.server.directory();
    if (std::string text = check_publication(publish); !text.empty())
        return refuse(call.reply, v1::STATUS_INVALID, std::move(text));
    if (is_denied(call, Action::publish, publish.name())) return;
    const bool is_refused = is_over_limit(call, Resource::publications);
    if (is_refused && !directory.has_published(call.session.client(), publish)) return;
    if (is_refused) refuse(call.reply, v1::STATUS_OK, {}); // a change is no further publication
    if (!directory.has_room_for(call.session.client(), publish))
        return refuse(call.reply, v1::STATUS_LIMIT,
                      "The instances of " + quoted(publish.name()) + " would take more than " +
                          std::to_string(snapshot_bytes_max) +
                          " bytes in one notification; this limit of a name is fixed, so further "
                          "instances need another name.");
    const ds_service_t *newest = ds_client_get_service_list_head(call.session.client());
    const ds_service_t *service =
        directory.publish(call.session.client(), make_publish_info(publish));
    if (service == nullptr) return refuse(call.reply, v1::STATUS_INTERNAL, out_of_memory);
    call.server.restart().published(*service);
    call.reply.set_service_id(service->service_id);
    call.reply.set_generation(service->gen);
    // What the session did not have before is the first in its list now.
    if (ds_client_get_service_list_head(call.session.client()) != newest)
        call.session.add_publication();
    call.server.counters().publishes++;
}

void handle_withdraw(Call &call) {
    const v1::Withdraw &withdraw = call.request.withdraw();
    if (withdraw.service_id() != 0) return withdraw_by_id(call, withdraw);
    if (std::string text = check_identity(withdraw.name(), withdraw.instance(), withdraw.scope());
        !text.empty())
        return refuse(call.reply, v1::STATUS_INVALID, std::move(text));
    const bool is_withdrawn = call.server.directory().withdraw(
        call.session.client(), withdraw.name(), to_directory_instance(withdraw.instance()),
        static_cast<std::uint32_t>(withdraw.scope()));
    if (!is_withdrawn)
        return refuse(call.reply, v1::STATUS_NOT_FOUND,
                      "This session has not published " + quoted(withdraw.name()) +
                          " with instance " + quoted(withdraw.instance()) + " and scope " +
                          std::to_string(withdraw.scope()) + ".");
    call.session.remove_publication();
    call.server.counters().withdrawals++;
}

void handle_register(Call &call) {
    const v1::Register &request = call.request.register_();
    if (std::string text = check_text(service_name_rule, request.name()); !text.empty())
        return refuse(call.reply, v1::STATUS_INVALID, std::move(text));
    if (is_denied(call, Action::watch, request.name())) return;
    if (is_over_limit(call, Resource::registrations)) return;
    Registration &registration = call.session.add_registration(request.cookie());
    ds_client_reg_t *record = call.server.directory().add_registration(
        call.session.client(), request.name(), reinterpret_cast<std::uint64_t>(&registration));
    if (record == nullptr) {
        call.session.drop_registration(registration);
        return refuse(call.reply, v1::STATUS_INTERNAL, out_of_memory);
    }
    call.session.finish_registration(registration, record);
    call.reply.set_handle(record->handle);
}

void handle_unregister(Call &call) {
    const v1::Unregister &request = call.request.unregister();
    Registration *registration = call.session.find_registration(request.handle());
    if (registration == nullptr || request.name() != registration->record->selem->name)
        return refuse(call.reply, v1::STATUS_NOT_FOUND,
                      "This session has no registration of " + quoted(request.name()) +
                          " with handle " + std::to_string(request.handle()) + ".");
    ds_client_reg_t *record = registration->record;
    call.session.drop_registration(*registration);
    call.server.directory().remove_registration(record);
}

void handle_list(Call &call) {
    const v1::List &list = call.request.list();
    if (list.after().size() > proto::name_bytes_max)
        return refuse(call.reply, v1::STATUS_INVALID,
                      "after has " + std::to_string(list.after().size()) + " bytes; 0 to " +
                          std::to_string(proto::name_bytes_max) + " bytes are allowed.");
    if (list.name().empty()) {
        return encode_page(call.server.directory(), list, allowed_names(call, Action::list),
                           call.page);
    }
    if (std::string text = check_text(service_name_rule, list.name()); !text.empty())
        return refuse(call.reply, v1::STATUS_INVALID, std::move(text));
    if (is_denied(call, Action::list, list.name())) return;
    if (!encode_name(call.server.directory(), list.name(), call.page))
        refuse(call.reply, v1::STATUS_NOT_FOUND, "Nobody publishes " + quoted(list.name()) + ".");
}

void handle_status(Call &call) {
    fill_status(call.server, *call.reply.mutable_status_info());
}

void handle_dump(Call &call) {
    const v1::Dump &dump = call.request.dump();
    const bool is_of_clients = dump.kind() == v1::DUMP_KIND_CLIENTS;
    const TextRule &rule = is_of_clients ? display_name_rule : service_name_rule;
    if (dump.kind() == v1::DUMP_KIND_NONE || !v1::DumpKind_IsValid(dump.kind()))
        return refuse(call.reply, v1::STATUS_INVALID,
                      "kind is " + std::to_string(dump.kind()) +
                          "; 1 (services), 2 (registrations) and 3 (clients) are allowed.");
    if (!dump.node().empty() && dump.node().size() != sizeof(NodeAddress))
        return refuse(call.reply, v1::STATUS_INVALID, bad_address("node", dump.node()));
    if (!v1::Scope_IsValid(dump.scope()))
        return refuse(call.reply, v1::STATUS_INVALID,
                      "scope is " + std::to_string(dump.scope()) +
                          "; 0 (any), 1 (rack), 2 (system) and 3 (local) are allowed.");
    if (dump.after().size() > proto::name_bytes_max)
        return refuse(call.reply, v1::STATUS_INVALID,
                      "after has " + std::to_string(dump.after().size()) + " bytes; 0 to " +
                          std::to_string(proto::name_bytes_max) + " bytes are allowed.");
    if (std::string text = dump.name().empty() ? "" : check_text(rule, dump.name()); !text.empty())
        return refuse(call.reply, v1::STATUS_INVALID, std::move(text));
    if (is_denied(call, Action::dump, is_of_clients ? std::string() : dump.name())) return;
    const NameFilter is_allowed = allowed_names(call, Action::dump);
    v1::DumpReply &body = *call.reply.mutable_dump();
    if (is_of_clients)
        fill_clients(call.server.directory(), call.server.sessions(), dump, is_allowed, body);
    else
        fill_names(call.server.directory(), dump, is_allowed, body);
}

void handle_stats(Call &call) {
    if (is_denied(call, Action::dump, {})) return;
    fill_stats(*call.reply.mutable_stats());
}

void handle_nodes(Call &call) {
    if (is_denied(call, Action::dump, {})) return;
    const std::string &after = call.request.nodes().after();
    if (!after.empty() && after.size() != sizeof(NodeAddress))
        return refuse(call.reply, v1::STATUS_INVALID, bad_address("after", after));
    fill_nodes(call.server, after, *call.reply.mutable_nodes());
}

} // namespace ds::host
