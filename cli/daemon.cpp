#include "cli/daemon.h"

#include <new>

namespace ds::cli {
namespace {

using client::Failure;
using client::Outcome;

Failure failure_of(int error) {
    switch (error) {
    case DS_CLIENT_OK:
        return Failure::none;
    case DS_CLIENT_ERROR_UNREACHABLE:
    case DS_CLIENT_ERROR_SYSTEM:
        return Failure::unreachable;
    case DS_CLIENT_ERROR_TIMEOUT:
        return Failure::timeout;
    case DS_CLIENT_ERROR_DISCONNECTED:
        return Failure::closed;
    case DS_CLIENT_ERROR_REFUSED:
        return Failure::refused;
    default:
        return Failure::protocol;
    }
}

struct Answer {
    v1::Reply &reply;
    int error = DS_CLIENT_OK;
    bool is_there = false;
};

void take_answer(void *ctx, const ds_client_reply_t *reply) {
    auto &answer = *static_cast<Answer *>(ctx);
    answer.is_there = true;
    answer.error = reply->error;
    const auto bytes = static_cast<int>(reply->message_bytes);
    if (reply->message != nullptr && !answer.reply.ParseFromArray(reply->message, bytes)) {
        answer.error = DS_CLIENT_ERROR_PROTOCOL;
    }
}

v1::Instance to_message(const ds_client_instance_t &instance) {
    v1::Instance message;
    message.set_service_id(instance.service_id);
    message.set_instance(instance.instance);
    message.set_scope(static_cast<v1::Scope>(instance.scope));
    const std::string node(reinterpret_cast<const char *>(instance.node), sizeof instance.node);
    if (node.find_first_not_of('\0') != node.npos) message.set_node(node);
    message.set_local(instance.is_local != 0);
    if (instance.path != nullptr) {
        message.mutable_endpoint()->set_path(instance.path);
    } else if (instance.ipv4_port != 0) {
        message.mutable_endpoint()->mutable_ipv4()->set_address(instance.ipv4_address);
        message.mutable_endpoint()->mutable_ipv4()->set_port(instance.ipv4_port);
    }
    message.set_ha_role(static_cast<v1::HaRole>(instance.ha_role));
    message.set_issu_role(static_cast<v1::IssuRole>(instance.issu_role));
    message.set_issu_id(instance.issu_id);
    message.set_generation(instance.generation);
    message.set_pid(instance.pid);
    return message;
}

} // namespace

v1::Snapshot to_message(const ds_client_snapshot_t &snapshot) {
    v1::Snapshot message;
    message.set_name(snapshot.name);
    message.set_version(snapshot.version);
    for (std::size_t i = 0; i < snapshot.instance_count; i++)
        *message.add_instances() = to_message(*snapshot.instances[i]);
    message.set_reconciling(snapshot.is_reconciling != 0);
    message.set_resynced(snapshot.is_resynced != 0);
    return message;
}

Outcome Daemon::connect(const std::string &path, client::Deadline deadline) {
    if (path.empty() || path.size() > 107) {
        return client::failed(Failure::unreachable, "a socket path has 1 to 107 bytes");
    }
    ds_client_options_t options{};
    options.size = sizeof options;
    options.socket = path.c_str();
    options.display_name = "dsctl";
    options.flags = DS_CLIENT_NO_RECONNECT;
    int error = ds_client_create(&options, &handle_);
    if (error == DS_CLIENT_OK) {
        error = ds_client_wait_connected(handle_, client::left_ms(deadline));
    }
    return outcome_of(error);
}

Outcome Daemon::outcome_of(int error) const {
    if (error == DS_CLIENT_OK) return {};
    ds_client_info_t info{};
    info.size = sizeof info;
    std::string text;
    if (ds_client_get_info(handle_, &info) == DS_CLIENT_OK) text = info.reason;
    if (text.empty() && error == DS_CLIENT_ERROR_TIMEOUT)
        text = "the daemon did not answer in time";
    if (text.empty()) text = ds_client_strerror(error);
    return {failure_of(error), static_cast<v1::Status>(info.status), text};
}

Outcome Daemon::call(const v1::Request &request, v1::Reply &reply, client::Deadline deadline) {
    const std::string bytes = request.SerializeAsString();
    Answer answer{reply};
    std::uint64_t query = 0;
    int error = ds_client_query(handle_, bytes.data(), bytes.size(), take_answer, &answer, &query);
    while (error == DS_CLIENT_OK && !answer.is_there) {
        error = ds_client_wait(handle_, client::left_ms(deadline));
        if (error == DS_CLIENT_ERROR_INTERRUPTED) error = DS_CLIENT_OK;
    }
    if (!answer.is_there) {
        ds_client_cancel(handle_, query); // the answer would have nowhere to go
        return outcome_of(error);
    }
    if (answer.error != DS_CLIENT_ERROR_REFUSED) return outcome_of(answer.error);
    return {Failure::refused, reply.status(), reply.text()};
}

Outcome Daemon::dispatch() {
    const int error = ds_client_dispatch(handle_);
    if (error == DS_CLIENT_ERROR_NO_MEMORY) throw std::bad_alloc();
    ds_client_info_t info{};
    info.size = sizeof info;
    ds_client_get_info(handle_, &info);
    return outcome_of(info.state == DS_CLIENT_DISCONNECTED ? info.error : DS_CLIENT_OK);
}

} // namespace ds::cli
