#include "relay/etcd/records.h"

#include "platform/dsr.h"
#include "relay.pb.h"
#include "relay/etcd/text.h"

namespace ds::relay::etcd {

namespace {

constexpr std::uint32_t smallest_pid = 2; // 0 and 1 mean "none" and "placeholder" to the directory
constexpr std::size_t text_bytes_limit = 255;
constexpr std::size_t told_overhead_bytes = 96; // numbers, node address and field headers

std::string check_texts(const Update &update) {
    if (update.name.empty() || update.name.size() > name_bytes_limit) return "bad length of name";
    if (!is_printable(update.name)) return "name is not printable";
    if (update.name.find(';') != std::string::npos) return "name holds ';'";
    if (!update.instance) return {};
    if (update.instance->size() > instance_bytes_limit) return "bad length of instance";
    return is_printable(*update.instance) ? "" : "instance is not printable";
}

bool is_of_key(const Update &update, const EntryKey &key) {
    return update.name == key.name && update.instance == key.instance &&
           update.service_id == key.service_id && update.scope == key.scope;
}

} // namespace

std::string check_update(const Update &update) {
    if (std::string problem = check_texts(update); !problem.empty()) return problem;
    if (update.scope != DSR_SCOPE_RACK && update.scope != DSR_SCOPE_SYSTEM)
        return "scope is neither rack nor system";
    if (update.pid < smallest_pid) return "process id is 0 or 1";
    if (update.endpoint.empty() || update.endpoint.size() > endpoint_bytes_limit)
        return "bad length of endpoint";
    if (update.attributes.size() > attributes_bytes_limit) return "bad length of attributes";
    return {};
}

std::string encode_update(const Update &update) {
    v1::UpdateRecord record;
    record.set_name(update.name);
    if (update.instance) record.set_instance(*update.instance);
    record.set_service_id(update.service_id);
    record.set_scope(update.scope);
    record.set_pid(update.pid);
    record.set_version(update.version);
    record.set_endpoint(update.endpoint);
    record.set_attributes(update.attributes);
    return record.SerializeAsString();
}

std::string encode_node(const NodeInfo &node) {
    v1::NodeRecord record;
    record.set_boot_id(node.boot_id);
    record.set_rack(node.rack);
    record.set_host_name(node.host_name);
    record.set_started_ns(node.started_ns);
    record.set_session(node.session);
    return record.SerializeAsString();
}

std::string decode_update(const EntryKey &key, std::string_view value, Update &out) {
    v1::UpdateRecord record;
    if (value.size() > value_bytes_limit) return "value is too long";
    if (!record.ParseFromArray(value.data(), static_cast<int>(value.size())))
        return "value is not a record";
    Update update;
    update.operation = DSR_ADD;
    update.name = record.name();
    if (record.has_instance()) update.instance = record.instance();
    update.service_id = record.service_id();
    update.scope = record.scope();
    update.pid = record.pid();
    update.version = record.version();
    update.endpoint = record.endpoint();
    update.attributes = record.attributes();
    if (std::string problem = check_update(update); !problem.empty()) return problem;
    if (!is_of_key(update, key)) return "record does not agree with its key";
    out = std::move(update);
    return {};
}

std::string decode_node(std::string_view value, NodeInfo &out) {
    v1::NodeRecord record;
    if (value.size() > value_bytes_limit) return "value is too long";
    if (!record.ParseFromArray(value.data(), static_cast<int>(value.size())))
        return "value is not a record";
    if (!is_key_part(record.boot_id())) return "bad boot id";
    if (!is_key_part(record.rack())) return "bad rack";
    if (record.host_name().size() > text_bytes_limit || !is_printable(record.host_name()))
        return "bad host name";
    out = {record.boot_id(), record.rack(), record.host_name(), record.started_ns(),
           record.session()};
    return {};
}

std::size_t told_bytes(const Update &update) {
    return update.endpoint.size() + (update.instance ? update.instance->size() : 0) +
           told_overhead_bytes;
}

} // namespace ds::relay::etcd
