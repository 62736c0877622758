// Marshalling: encodings of this platform's own, made to be easy to read in a debugger.
//   attributes: 'A', count (u32), then per attribute presence (u8), type, value (u32), further
//   (u64) endpoint:   'I', four address bytes, port (u32)      path: 'P', the text, NUL
#include <cstdlib>
#include <cstring>

#include "platform/ds_common.h"
#include "recording.h"

using namespace recording;

namespace {

constexpr size_t attribute_bytes = 17;

std::string plain(const char *function) {
    return std::string(function) + "()";
}

// ds_common's accessors and codecs log their name only: they take no pointer worth a name.
bool fails(const char *function) {
    note(plain(function));
    return should_fail(function).fails;
}

template <typename T> void put(uint8_t *&at, T value) {
    memcpy(at, &value, sizeof value);
    at += sizeof value;
}

template <typename T> T take(const uint8_t *&at) {
    T value;
    memcpy(&value, at, sizeof value);
    at += sizeof value;
    return value;
}

bool is_ip(const void *bytes, uint64_t length) {
    return bytes != nullptr && length == 9 && *static_cast<const uint8_t *>(bytes) == 'I';
}

uint32_t attribute_value(const ds_service_info_t &entry, int32_t type) {
    for (uint32_t index = 0; index < entry.attrs_count; ++index)
        if (entry.attrs[index].type == type) return entry.attrs[index].value;
    return 0;
}

const ds_service_info_t *entry_at(const ds_service_publish_info *info, uint32_t index) {
    return info != nullptr && index < info->entries_count ? &info->entries[index] : nullptr;
}

void store(uint32_t *out, uint32_t value) {
    if (out != nullptr) *out = value;
}

// The common part of the three readers of one endpoint.
const ds_service_info_t *read_entry(const ds_service_publish_info *info, uint32_t index,
                                    const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope) {
    const ds_service_info_t *entry = entry_at(info, index);
    if (entry == nullptr) return nullptr;
    if (ep_bytes != nullptr) *ep_bytes = entry->ep_addr;
    if (ep_len != nullptr) *ep_len = entry->ep_addr_len;
    store(scope, entry->scope);
    return entry;
}

} // namespace

namespace recording {

std::vector<uint8_t> encode_ip(const uint8_t (&address)[4], uint32_t port) {
    std::vector<uint8_t> bytes(9);
    uint8_t *at = bytes.data();
    put<uint8_t>(at, 'I');
    for (const uint8_t octet : address)
        put(at, octet);
    put(at, port);
    return bytes;
}

std::vector<uint8_t> encode_path(std::string_view path) {
    std::vector<uint8_t> bytes{'P'};
    bytes.insert(bytes.end(), path.begin(), path.end());
    bytes.push_back(0);
    return bytes;
}

} // namespace recording

// ---- codecs ----

extern "C" int32_t vidl_ds_service_attrs_encode_ext(const ds_service_attrs_t *attrs, void *buffer,
                                                    uint32_t capacity, uint32_t, uint32_t,
                                                    uint32_t) {
    note("vidl_ds_service_attrs_encode_ext(" + std::to_string(attrs->attrs_count) + ", " +
         std::to_string(capacity) + ")");
    const Failure failure = should_fail("vidl_ds_service_attrs_encode_ext");
    if (failure.fails) return failure.result;
    if (attrs->attrs_count == 0) return 0;
    const size_t size = 5 + attrs->attrs_count * attribute_bytes;
    if (size > capacity) return -1;
    auto *at = static_cast<uint8_t *>(buffer);
    put<uint8_t>(at, 'A');
    put(at, attrs->attrs_count);
    for (uint32_t index = 0; index < attrs->attrs_count; ++index) {
        const ds_service_attr_t &attribute = attrs->attrs[index];
        put(at, attribute.presence[0]);
        put(at, attribute.type);
        put(at, attribute.value);
        put(at, attribute.further);
    }
    return static_cast<int32_t>(size);
}

extern "C" int32_t vidl_ds_service_attrs_decode_ext(ds_service_attrs_t *attrs, const void *bytes,
                                                    uint64_t length, vidl_alloc_fn alloc, uint32_t,
                                                    uint32_t) {
    VIDL_CLEAR(attrs);
    if (fails("vidl_ds_service_attrs_decode_ext")) return -1;
    const auto *at = static_cast<const uint8_t *>(bytes);
    if (length < 5 || take<uint8_t>(at) != 'A') return -1;
    const auto count = take<uint32_t>(at);
    if (length != 5 + count * attribute_bytes) return -1;
    // An empty list still owns an array here, which is the harder case for the caller.
    auto *array = static_cast<ds_service_attr_t *>(alloc((count + 1) * sizeof(ds_service_attr_t)));
    if (array == nullptr) return -1;
    memset(array, 0, (count + 1) * sizeof *array);
    for (uint32_t index = 0; index < count; ++index) {
        array[index].presence[0] = take<uint8_t>(at);
        array[index].type = take<int32_t>(at);
        array[index].value = take<uint32_t>(at);
        array[index].further = take<uint64_t>(at);
    }
    VIDL_SET_ARRAY(attrs, attrs, DS_ATTRS_BIT_ATTRS, array, count);
    return static_cast<int32_t>(length);
}

extern "C" int32_t vidl_vipc_endpoint_decode_ext(vidl_vipc_endpoint_t *ep, const void *bytes,
                                                 uint64_t length, vidl_alloc_fn, uint32_t,
                                                 uint32_t) {
    VIDL_CLEAR(ep);
    if (fails("vidl_vipc_endpoint_decode_ext") || !is_ip(bytes, length)) return -1;
    const uint8_t *at = static_cast<const uint8_t *>(bytes) + 1;
    memcpy(ep->address, at, sizeof ep->address);
    at += sizeof ep->address;
    ep->port = take<uint32_t>(at);
    ep->presence[0] = 3;
    return static_cast<int32_t>(length);
}

extern "C" int32_t vidl_ds_ep_path_decode_ext(vidl_ds_ep_path_t *path, const void *bytes,
                                              uint64_t length, vidl_alloc_fn alloc, uint32_t,
                                              uint32_t) {
    VIDL_CLEAR(path);
    const auto *at = static_cast<const uint8_t *>(bytes);
    if (fails("vidl_ds_ep_path_decode_ext") || at == nullptr || length < 2 || *at != 'P') return -1;
    auto *text = static_cast<char *>(alloc(length - 1));
    if (text == nullptr) return -1;
    memcpy(text, at + 1, length - 1);
    text[length - 2] = '\0';
    VIDL_SET(path, path, 0, text);
    return static_cast<int32_t>(length);
}

extern "C" void vidl_ds_service_publish_info_free_ext(ds_service_publish_info *info,
                                                      vidl_free_fn release, uint32_t zero) {
    note("vidl_ds_service_publish_info_free_ext(" + std::to_string(zero) + ")");
    for (uint32_t index = 0; index < info->entries_count && info->entries != nullptr; ++index) {
        release(info->entries[index].ep_addr);
        release(info->entries[index].attrs);
        release(info->entries[index].instance);
    }
    release(info->entries);
    release(info->service_name);
    info->entries = nullptr;
    info->entries_count = 0;
    info->service_name = nullptr;
}

// ---- the directory service's common library ----

extern "C" uint32_t ds_get_scope(const ds_service_publish_info *info) {
    note(plain("ds_get_scope"));
    const ds_service_info_t *entry = entry_at(info, 0);
    return entry == nullptr ? 0 : entry->scope;
}

extern "C" const char *ds_get_instance(const ds_service_publish_info *info) {
    note(plain("ds_get_instance"));
    const ds_service_info_t *entry = entry_at(info, 0);
    const bool has_instance = entry != nullptr && VIDL_PRESENT(entry, DS_SINFO_BIT_INSTANCE);
    return has_instance ? entry->instance : nullptr;
}

extern "C" uint32_t ds_get_service_endpoint_count(const ds_service_publish_info *info) {
    note(plain("ds_get_service_endpoint_count"));
    return info == nullptr ? 0 : info->entries_count;
}

extern "C" uint32_t ds_get_service_ep_type_at(const ds_service_publish_info *info, uint32_t index) {
    note(plain("ds_get_service_ep_type_at"));
    const ds_service_info_t *entry = entry_at(info, index);
    return entry == nullptr ? 0 : entry->ep_type;
}

extern "C" int ds_get_service_publish_info_at(const ds_service_publish_info *info, uint32_t index,
                                              const uint8_t **ep_bytes, uint64_t *ep_len,
                                              uint32_t *scope) {
    note(plain("ds_get_service_publish_info_at"));
    return read_entry(info, index, ep_bytes, ep_len, scope) == nullptr ? -1 : 0;
}

extern "C" int ds_get_service_publish_info_at_v2(const ds_service_publish_info *info,
                                                 uint32_t index, const uint8_t **ep_bytes,
                                                 uint64_t *ep_len, uint32_t *scope,
                                                 uint32_t *ha_role) {
    note(plain("ds_get_service_publish_info_at_v2"));
    const ds_service_info_t *entry = read_entry(info, index, ep_bytes, ep_len, scope);
    if (entry == nullptr) return -1;
    store(ha_role, attribute_value(*entry, DS_ATTR_HA_ROLE));
    return 0;
}

extern "C" int ds_get_service_publish_info_at_v5(const ds_service_publish_info *info,
                                                 uint32_t index, const uint8_t **ep_bytes,
                                                 uint64_t *ep_len, uint32_t *scope,
                                                 uint32_t *ha_role, uint32_t *issu_role,
                                                 uint32_t *issu_id) {
    note(plain("ds_get_service_publish_info_at_v5"));
    const ds_service_info_t *entry = read_entry(info, index, ep_bytes, ep_len, scope);
    if (entry == nullptr) return -1;
    store(ha_role, attribute_value(*entry, DS_ATTR_HA_ROLE));
    store(issu_role, attribute_value(*entry, DS_ATTR_ISSU_ROLE));
    store(issu_id, attribute_value(*entry, DS_ATTR_ISSU_ID));
    return 0;
}

extern "C" int ds_decode_endpoint(const void *bytes, uint64_t length, uint32_t *address,
                                  uint32_t *port) {
    if (fails("ds_decode_endpoint") || !is_ip(bytes, length)) return -1;
    const auto *octets = static_cast<const uint8_t *>(bytes) + 1;
    *address = static_cast<uint32_t>(octets[0]) << 24 | static_cast<uint32_t>(octets[1]) << 16 |
               static_cast<uint32_t>(octets[2]) << 8 | octets[3];
    const uint8_t *at = octets + 4;
    *port = take<uint32_t>(at);
    return 0;
}

extern "C" const char *ds_service_instance_name(const char *name, const char *instance) {
    static char text[512];
    note("ds_service_instance_name(" + quoted(name) + ", " + quoted(instance) + ")");
    snprintf(text, sizeof text, "%s%s%s", name == nullptr ? "" : name,
             instance == nullptr ? "" : ":", instance == nullptr ? "" : instance);
    return text;
}
