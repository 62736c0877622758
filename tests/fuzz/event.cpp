#include "event.h"

#include <array>
#include <cstdio>
#include <cstdlib>

namespace ds::fuzz {

namespace {

std::vector<Attribute> read_attributes(const ds_service_attr_t *attributes, std::uint32_t count) {
    std::vector<Attribute> result;
    for (std::uint32_t i = 0; i < count; i++)
        result.push_back({attributes[i].type, attributes[i].value});
    return result;
}

std::string bytes_of(const void *bytes, std::uint64_t length) {
    return length == 0 ? std::string() : std::string(static_cast<const char *>(bytes), length);
}

} // namespace

Endpoint read_endpoint(const ds_service_info_t &entry) {
    Endpoint endpoint;
    endpoint.type = entry.ep_type;
    endpoint.address = bytes_of(entry.ep_addr, entry.ep_addr_len);
    endpoint.scope = entry.scope;
    if (VIDL_PRESENT(&entry, DS_SINFO_BIT_INSTANCE)) endpoint.instance = entry.instance;
    endpoint.attributes = read_attributes(entry.attrs, entry.attrs_count);
    return endpoint;
}

Endpoints read_endpoints(const ds_service_publish_info &info) {
    Endpoints endpoints;
    endpoints.reserve(info.entries_count);
    for (std::uint32_t i = 0; i < info.entries_count; i++)
        endpoints.push_back(read_endpoint(info.entries[i]));
    return endpoints;
}

Event read_message(Event::Kind kind, std::uint64_t client, const ds_notif_msg &message) {
    Event event;
    event.kind = kind;
    event.client = client;
    event.handle = message.reg_handle;
    event.cookie = message.reg_cookie;
    event.name = message.publish_info.service_name;
    event.endpoints = read_endpoints(message.publish_info);
    return event;
}

Event read_update(const dsr_update_t &update) {
    Event event;
    event.kind = Event::update;
    event.operation = update.operation;
    event.id = update.service_id;
    event.pid = update.pid;
    event.version = update.version;
    event.name = update.service_name;
    Endpoint endpoint;
    endpoint.address = bytes_of(update.ep_bytes, update.ep_len);
    endpoint.scope = update.scope;
    if (update.instance != nullptr) endpoint.instance = update.instance;
    ds_service_attrs_t attributes;
    // What the relay gets back from a bounced update may be anything; the decoder then gives none.
    vidl_ds_service_attrs_decode_ext(&attributes, update.attr_bytes, update.attr_len, std::malloc,
                                     0, 0);
    endpoint.attributes = read_attributes(attributes.attrs, attributes.attrs_count);
    std::free(attributes.attrs);
    event.endpoints.push_back(endpoint);
    return event;
}

std::string text_of(const Endpoints &endpoints) {
    std::string text;
    for (const Endpoint &endpoint : endpoints) {
        text += " [type " + std::to_string(endpoint.type) + " scope " +
                std::to_string(endpoint.scope) + " instance " +
                (endpoint.instance ? "'" + *endpoint.instance + "'" : "none") + " address ";
        for (const char byte : endpoint.address) {
            std::array<char, 4> hex;
            std::snprintf(hex.data(), hex.size(), "%02x", static_cast<unsigned char>(byte));
            text += hex.data();
        }
        for (const Attribute &attribute : endpoint.attributes)
            text += ' ' + std::to_string(attribute.type) + '=' + std::to_string(attribute.value);
        text += ']';
    }
    return text;
}

std::string text_of(const std::vector<Event> &events) {
    static constexpr std::array<const char *, 4> kinds = {"hook", "deletion", "message", "update"};
    std::string text;
    for (const Event &event : events) {
        text += std::string("  ") + kinds[event.kind] + " '" + event.name + "'";
        if (event.kind == Event::update)
            text += " operation " + std::to_string(event.operation) + " id " +
                    std::to_string(event.id) + " pid " + std::to_string(event.pid) + " version " +
                    std::to_string(event.version);
        else if (event.kind != Event::hook)
            text += " to " + std::to_string(event.client) + '.' + std::to_string(event.handle) +
                    " cookie " + std::to_string(event.cookie);
        text += text_of(event.endpoints) + '\n';
    }
    return text;
}

} // namespace ds::fuzz
