#include "host/publication.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "host/names.h"
#include "platform_default/platform_default.h"

namespace ds::host {

namespace {

constexpr std::uint32_t port_max = 65535;

// Memory that the directory may release with free(). Not from calloc(), which passes by the
// allocator's cache of small blocks.
void *allocate(std::size_t bytes) {
    void *memory = std::malloc(bytes);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

template <typename T> T *allocate_cleared(std::size_t count) {
    auto *memory = static_cast<T *>(allocate(count * sizeof(T)));
    std::uninitialized_value_construct_n(memory, count);
    return memory;
}

char *allocate_text(std::string_view text, std::string_view ending = {}) {
    auto *copy = static_cast<char *>(allocate(text.size() + ending.size() + 1));
    *std::ranges::copy(ending, std::ranges::copy(text, copy).out).out = '\0';
    return copy;
}

std::string check_number(const char *field, long value, long min, long max) {
    if (value >= min && value <= max) return {};
    return std::string(field) + " is " + std::to_string(value) + "; " + std::to_string(min) +
           " to " + std::to_string(max) + " are allowed.";
}

std::string check_endpoint(const v1::Endpoint &endpoint, v1::Scope scope) {
    switch (endpoint.kind_case()) {
    case v1::Endpoint::kIpv4:
        return check_number("endpoint.ipv4.port", endpoint.ipv4().port(), 1, port_max);
    case v1::Endpoint::kPath:
        if (std::string text = check_text(path_rule, endpoint.path()); !text.empty()) return text;
        if (endpoint.path().front() != '/')
            return "endpoint.path does not begin with '/'; an absolute path is needed.";
        if (scope != v1::SCOPE_LOCAL)
            return "endpoint.path is given with a scope beyond this node; a path means nothing on "
                   "another node, so the scope has to be LOCAL.";
        return {};
    case v1::Endpoint::KIND_NOT_SET:
        break;
    }
    return "endpoint is missing; one IPv4 address with a port or one path is needed.";
}

void add_attribute(ds_service_info_t &entry, std::int32_t type, std::uint32_t value) {
    if (value == 0) return; // absent reads as 0
    ds_service_attr_t &attribute = entry.attrs[entry.attrs_count++];
    VIDL_SET(&attribute, type, DS_ATTR_BIT_TYPE, type);
    VIDL_SET(&attribute, value, DS_ATTR_BIT_VALUE, value);
}

void set_attributes(ds_service_info_t &entry, const v1::Publish &publish) {
    const bool has_any =
        publish.ha_role() != 0 || publish.issu_role() != 0 || publish.issu_id() != 0;
    if (!has_any) return;
    constexpr std::size_t kinds = 3;
    entry.attrs = allocate_cleared<ds_service_attr_t>(kinds);
    VIDL_SET_BIT(&entry, DS_SINFO_BIT_ATTRS);
    add_attribute(entry, DS_ATTR_HA_ROLE, static_cast<std::uint32_t>(publish.ha_role()));
    add_attribute(entry, DS_ATTR_ISSU_ROLE, static_cast<std::uint32_t>(publish.issu_role()));
    add_attribute(entry, DS_ATTR_ISSU_ID, publish.issu_id());
}

// Clients may give several services one address, so what the directory is given tells them apart.
std::int32_t encode_address(const v1::Publish &publish, std::uint8_t *buffer,
                            std::uint32_t capacity) {
    const v1::Ipv4 &ipv4 = publish.endpoint().ipv4();
    return ds_encode_service_endpoint(
        ipv4.address(), ipv4.port(), static_cast<std::uint32_t>(publish.scope()),
        publish.instance().data(), publish.instance().size(), buffer, capacity);
}

void set_endpoint(ds_service_info_t &entry, const v1::Publish &publish) {
    const v1::Endpoint &endpoint = publish.endpoint();
    const bool is_path = endpoint.has_path();
    const std::uint32_t type = is_path ? DS_EP_TYPE_PATH : DS_EP_TYPE_IP;
    VIDL_SET(&entry, ep_type, DS_SINFO_BIT_EP_TYPE, type);

    const std::size_t needed = is_path ? endpoint.path().size() + DS_ENDPOINT_PATH_HEADER_BYTES
                                       : publish.instance().size() + DS_ENDPOINT_IP_BYTES;
    const auto capacity = static_cast<std::uint32_t>(needed);
    entry.ep_addr = static_cast<std::uint8_t *>(allocate(capacity));
    const std::int32_t written =
        is_path ? ds_encode_path(endpoint.path().data(), endpoint.path().size(), entry.ep_addr,
                                 capacity)
                : encode_address(publish, entry.ep_addr, capacity);
    entry.ep_addr_len = static_cast<std::uint64_t>(written > 0 ? written : 0);
    VIDL_SET_BIT(&entry, DS_SINFO_BIT_EP_ADDR);
}

} // namespace

std::string check_identity(std::string_view name, std::string_view instance, v1::Scope scope) {
    if (std::string text = check_text(service_name_rule, name); !text.empty()) return text;
    if (std::string text = check_text(instance_rule, instance); !text.empty()) return text;
    if (scope >= v1::SCOPE_RACK && scope <= v1::SCOPE_LOCAL) return {};
    return "scope is " + std::to_string(scope) +
           "; 1 (RACK), 2 (SYSTEM) and 3 (LOCAL) are allowed.";
}

std::string check_publication(const v1::Publish &publish) {
    std::string text = check_identity(publish.name(), publish.instance(), publish.scope());
    if (text.empty()) text = check_endpoint(publish.endpoint(), publish.scope());
    if (text.empty()) text = check_number("ha_role", publish.ha_role(), 0, v1::HA_ROLE_STANDBY);
    if (text.empty())
        text = check_number("issu_role", publish.issu_role(), 0, v1::ISSU_ROLE_TERTIARY);
    return text;
}

PublishInfo make_publish_info(const v1::Publish &publish) {
    PublishInfo info(allocate_cleared<ds_service_publish_info>(1));
    VIDL_SET(info.get(), service_name, DS_PINFO_BIT_NAME, allocate_text(publish.name()));
    VIDL_SET_ARRAY(info.get(), entries, DS_PINFO_BIT_ENTRIES,
                   allocate_cleared<ds_service_info_t>(1), 1);

    ds_service_info_t &entry = info->entries[0];
    set_endpoint(entry, publish);
    VIDL_SET(&entry, scope, DS_SINFO_BIT_SCOPE, static_cast<std::uint32_t>(publish.scope()));
    set_attributes(entry, publish);
    VIDL_SET(&entry, instance, DS_SINFO_BIT_INSTANCE,
             allocate_text(publish.instance(), {&instance_end, 1}));
    return info;
}

std::size_t instance_bytes_bound(const v1::Publish &publish) {
    constexpr std::size_t numbers_bytes_max = 100; // every other field of Instance, and the tags
    return numbers_bytes_max + publish.instance().size() +
           (publish.endpoint().has_path() ? publish.endpoint().path().size() : 0);
}

} // namespace ds::host
