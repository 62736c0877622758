#include "relay/update.h"

namespace ds::relay {

namespace {

std::string bytes_of(const void *bytes, std::uint32_t length) {
    return bytes == nullptr ? std::string() : std::string(static_cast<const char *>(bytes), length);
}

} // namespace

Update Update::copy_of(const dsr_update_t &update) {
    Update copy;
    copy.operation = update.operation;
    copy.name = update.service_name != nullptr ? update.service_name : "";
    copy.service_id = update.service_id;
    if (update.instance != nullptr) copy.instance = update.instance;
    copy.scope = update.scope;
    copy.pid = update.pid;
    copy.version = update.version;
    copy.endpoint = bytes_of(update.ep_bytes, update.ep_len);
    copy.attributes = bytes_of(update.attr_bytes, update.attr_len);
    return copy;
}

dsr_update_t Update::borrowed() const {
    dsr_update_t update = {};
    update.operation = operation;
    update.service_name = name.c_str();
    update.service_id = service_id;
    update.instance = instance ? instance->c_str() : nullptr;
    update.scope = scope;
    update.pid = pid;
    update.version = version;
    update.ep_bytes = endpoint.empty() ? nullptr : endpoint.data();
    update.ep_len = static_cast<std::uint32_t>(endpoint.size());
    update.attr_bytes = attributes.empty() ? nullptr : attributes.data();
    update.attr_len = static_cast<std::uint32_t>(attributes.size());
    return update;
}

} // namespace ds::relay
