#include "publish_info_builder.h"

#include <algorithm>
#include <cstring>

namespace {

char *copy_text(const std::string &text) {
    auto *copy = static_cast<char *>(recording::host_malloc(text.size() + 1));
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

} // namespace

PublishInfoBuilder &PublishInfoBuilder::ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d,
                                           uint32_t port) {
    return raw(DS_EP_TYPE_IP, recording::encode_ip({a, b, c, d}, port));
}

PublishInfoBuilder &PublishInfoBuilder::path(const std::string &text) {
    return raw(DS_EP_TYPE_PATH, recording::encode_path(text));
}

PublishInfoBuilder &PublishInfoBuilder::raw(uint32_t type, std::vector<uint8_t> bytes) {
    Endpoint endpoint;
    endpoint.type = type;
    endpoint.bytes = std::move(bytes);
    entries_.push_back(std::move(endpoint));
    return *this;
}

PublishInfoBuilder &PublishInfoBuilder::endpoints(uint32_t count) {
    for (uint32_t index = 0; index < count; ++index)
        ip(10, 0, 0, static_cast<uint8_t>(index + 1), 1000 + index);
    return *this;
}

PublishInfoBuilder &PublishInfoBuilder::scope(uint32_t value) {
    entries_.back().scope = value;
    return *this;
}

PublishInfoBuilder &PublishInfoBuilder::instance(const std::string &text) {
    entries_.back().instance = text;
    return *this;
}

PublishInfoBuilder &PublishInfoBuilder::attribute(int32_t type, uint32_t value) {
    ds_service_attr_t attribute{};
    VIDL_SET(&attribute, type, DS_ATTR_BIT_TYPE, type);
    VIDL_SET(&attribute, value, DS_ATTR_BIT_VALUE, value);
    entries_.back().attributes.push_back(attribute);
    return *this;
}

PublishInfoBuilder &PublishInfoBuilder::roles(uint32_t ha_role, uint32_t issu_role,
                                              uint32_t issu_id) {
    return attribute(DS_ATTR_HA_ROLE, ha_role)
        .attribute(DS_ATTR_ISSU_ROLE, issu_role)
        .attribute(DS_ATTR_ISSU_ID, issu_id);
}

ds_service_publish_info *PublishInfoBuilder::build() const {
    auto *info = static_cast<ds_service_publish_info *>(
        recording::host_malloc(sizeof(ds_service_publish_info)));
    fill(info);
    return info;
}

void PublishInfoBuilder::build_borrowed(ds_service_publish_info *storage) const {
    VIDL_CLEAR(storage);
    fill(storage);
    storage->borrowed = 1;
}

void PublishInfoBuilder::fill(ds_service_publish_info *info) const {
    VIDL_SET(info, service_name, DS_PINFO_BIT_NAME, copy_text(name_));
    if (entries_.empty()) return;
    const size_t size = entries_.size() * sizeof(ds_service_info_t);
    auto *entries = static_cast<ds_service_info_t *>(recording::host_malloc(size));
    for (size_t index = 0; index < entries_.size(); ++index)
        fill_entry(&entries[index], entries_[index]);
    VIDL_SET_ARRAY(info, entries, DS_PINFO_BIT_ENTRIES, entries,
                   static_cast<uint32_t>(entries_.size()));
}

void PublishInfoBuilder::fill_entry(ds_service_info_t *entry, const Endpoint &endpoint) {
    VIDL_SET(entry, ep_type, DS_SINFO_BIT_EP_TYPE, endpoint.type);
    VIDL_SET(entry, scope, DS_SINFO_BIT_SCOPE, endpoint.scope);
    if (!endpoint.bytes.empty()) {
        auto *bytes = static_cast<uint8_t *>(recording::host_malloc(endpoint.bytes.size()));
        std::copy(endpoint.bytes.begin(), endpoint.bytes.end(), bytes);
        VIDL_SET_BYTES(entry, ep_addr, DS_SINFO_BIT_EP_ADDR, bytes, endpoint.bytes.size());
    }
    if (endpoint.instance)
        VIDL_SET(entry, instance, DS_SINFO_BIT_INSTANCE, copy_text(*endpoint.instance));
    if (!endpoint.attributes.empty()) {
        const auto count = static_cast<uint32_t>(endpoint.attributes.size());
        auto *attributes = static_cast<ds_service_attr_t *>(
            recording::host_malloc(count * sizeof(ds_service_attr_t)));
        std::copy(endpoint.attributes.begin(), endpoint.attributes.end(), attributes);
        VIDL_SET_ARRAY(entry, attrs, DS_SINFO_BIT_ATTRS, attributes, count);
    }
}

void free_publish_info(ds_service_publish_info *info) {
    if (info == nullptr) return;
    vidl_ds_service_publish_info_free_ext(info, recording::host_free, 0);
    if (info->borrowed == 0) recording::host_free(info);
}
