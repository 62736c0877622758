// Accessors of a publish info, and the printable name of an instance.
#include "platform/ds_common.h"
#include "codec.h"
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

const ds_service_info_t *entry_at(const ds_service_publish_info *info, std::uint32_t index) {
    if (info == nullptr || info->entries == nullptr || index >= info->entries_count) return nullptr;
    return &info->entries[index];
}

std::uint32_t attribute_of(const ds_service_info_t &entry, std::int32_t type) {
    for (std::uint32_t i = 0; entry.attrs != nullptr && i < entry.attrs_count; i++)
        if (entry.attrs[i].type == type) return entry.attrs[i].value;
    return 0;
}

template <typename T> void store(T *out, T value) {
    if (out != nullptr) *out = value;
}

// A text in a buffer of fixed size; what does not fit shows as an ellipsis at the end.
class bounded_text {
  public:
    void append(const char *bytes, std::size_t length) {
        for (std::size_t i = 0; i < length && !is_full_; i++)
            append(bytes[i]);
    }
    void append(char c) {
        if (used_ + 1 == sizeof text_) {
            std::memcpy(text_ + used_ - 3, "...", 3);
            is_full_ = true;
        }
        if (is_full_) return;
        const auto code = static_cast<unsigned char>(c);
        text_[used_++] = code < 0x20 || code == 0x7f ? '?' : c;
    }
    const char *finish() {
        text_[used_] = '\0';
        return text_;
    }
    void clear() {
        used_ = 0;
        is_full_ = false;
    }

  private:
    // Room for the longest name and instance that a daemon accepts, 255 bytes each.
    char text_[528] = {};
    std::size_t used_ = 0;
    bool is_full_ = false;
};

} // namespace

uint32_t ds_get_scope(const ds_service_publish_info *info) {
    const ds_service_info_t *entry = entry_at(info, 0);
    return entry == nullptr ? 0 : entry->scope;
}

const char *ds_get_instance(const ds_service_publish_info *info) {
    const ds_service_info_t *entry = entry_at(info, 0);
    if (entry == nullptr || VIDL_PRESENT(entry, DS_SINFO_BIT_INSTANCE) == 0) return nullptr;
    return entry->instance;
}

uint32_t ds_get_service_endpoint_count(const ds_service_publish_info *info) {
    return info == nullptr ? 0 : info->entries_count;
}

uint32_t ds_get_service_ep_type_at(const ds_service_publish_info *info, uint32_t index) {
    const ds_service_info_t *entry = entry_at(info, index);
    return entry == nullptr ? 0 : entry->ep_type;
}

int ds_get_service_publish_info_at(const ds_service_publish_info *info, uint32_t index,
                                   const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope) {
    return ds_get_service_publish_info_at_v5(info, index, ep_bytes, ep_len, scope, nullptr, nullptr,
                                             nullptr);
}

int ds_get_service_publish_info_at_v2(const ds_service_publish_info *info, uint32_t index,
                                      const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope,
                                      uint32_t *ha_role) {
    return ds_get_service_publish_info_at_v5(info, index, ep_bytes, ep_len, scope, ha_role, nullptr,
                                             nullptr);
}

int ds_get_service_publish_info_at_v5(const ds_service_publish_info *info, uint32_t index,
                                      const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope,
                                      uint32_t *ha_role, uint32_t *issu_role, uint32_t *issu_id) {
    const ds_service_info_t *entry = entry_at(info, index);
    if (entry == nullptr) return -1;
    store<const std::uint8_t *>(ep_bytes, entry->ep_addr);
    store(ep_len, entry->ep_addr_len);
    store(scope, entry->scope);
    store(ha_role, attribute_of(*entry, DS_ATTR_HA_ROLE));
    store(issu_role, attribute_of(*entry, DS_ATTR_ISSU_ROLE));
    store(issu_id, attribute_of(*entry, DS_ATTR_ISSU_ID));
    return 0;
}

int ds_decode_endpoint(const void *bytes, uint64_t length, uint32_t *address, uint32_t *port) {
    ds::platform::ip_endpoint endpoint;
    if (!ds::platform::read_ip_endpoint(bytes, length, endpoint)) return -1;
    store(address, ds::platform::get_integer<std::uint32_t>(endpoint.octets));
    store<std::uint32_t>(port, endpoint.port);
    return 0;
}

const char *ds_service_instance_name(const char *name, const char *instance) {
    // One text per thread: two threads that trace at once do not spoil each other's line.
    static thread_local bounded_text text;
    text.clear();
    if (name != nullptr) text.append(name, std::strlen(name));
    std::size_t length = instance == nullptr ? 0 : std::strlen(instance);
    // The terminator that every instance carries in the database is no part of what people read.
    if (length != 0 && instance[length - 1] == ';') length--;
    if (length != 0) {
        text.append('/');
        text.append(instance, length);
    }
    return text.finish();
}
