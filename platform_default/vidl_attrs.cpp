// The attribute list codec; docs/formats.md describes the bytes.
#include "codec.h"
#include "platform/vidl.h"
#include <cstdint>
#include <cstring>

namespace {

using ds::platform::attrs_tag;
using ds::platform::get_integer;
using ds::platform::put_integer;

constexpr std::uint32_t attributes_max = 64;
constexpr std::uint32_t list_header_bytes = 2; // tag, count
constexpr std::size_t attribute_bytes = 17;  // presence, type, value, further
constexpr std::uint8_t presence_known = (1u << DS_ATTR_NFIELDS) - 1;

// The caller reserves room per attribute; the encoding of a list must stay within it.
constexpr std::uint32_t caller_bytes_per_attribute = 536;
static_assert(list_header_bytes + attribute_bytes <= caller_bytes_per_attribute);

std::size_t encoded_bytes(std::uint32_t count) {
    return count == 0 ? 0 : list_header_bytes + count * attribute_bytes;
}

void encode_attribute(const ds_service_attr_t &attribute, std::uint8_t *at) {
    at[0] = attribute.presence[0] & presence_known;
    put_integer(at + 1, static_cast<std::uint32_t>(attribute.type));
    put_integer(at + 5, attribute.value);
    put_integer(at + 9, attribute.further);
}

bool decode_attribute(const std::uint8_t *at, ds_service_attr_t &attribute) {
    if ((at[0] & ~presence_known) != 0) return false;
    attribute.presence[0] = at[0];
    attribute.type = static_cast<std::int32_t>(get_integer<std::uint32_t>(at + 1));
    attribute.value = get_integer<std::uint32_t>(at + 5);
    attribute.further = get_integer<std::uint64_t>(at + 9);
    return true;
}

// Attributes of a well-sized list; 0 when the bytes are none. A list of none has no bytes at all,
// so a stated count of 0 is as wrong as one beyond the limit.
std::uint32_t stated_count(const std::uint8_t *bytes, std::uint64_t length) {
    if (length < list_header_bytes || bytes[0] != attrs_tag) return 0;
    const std::uint32_t count = bytes[1];
    return count <= attributes_max && length == encoded_bytes(count) ? count : 0;
}

} // namespace

int32_t vidl_ds_service_attrs_encode_ext(const ds_service_attrs_t *attrs, void *buffer,
                                         uint32_t capacity, uint32_t, uint32_t, uint32_t) {
    if (attrs == nullptr) return -1;
    const std::uint32_t count = attrs->attrs_count;
    if (count == 0) return 0;
    if (count > attributes_max || attrs->attrs == nullptr || buffer == nullptr) return -1;
    if (encoded_bytes(count) > capacity) return -1;
    auto *at = static_cast<std::uint8_t *>(buffer);
    at[0] = attrs_tag;
    at[1] = static_cast<std::uint8_t>(count);
    at += list_header_bytes;
    for (std::uint32_t i = 0; i < count; i++, at += attribute_bytes)
        encode_attribute(attrs->attrs[i], at);
    return static_cast<int32_t>(encoded_bytes(count));
}

int32_t vidl_ds_service_attrs_decode_ext(ds_service_attrs_t *attrs, const void *bytes,
                                         uint64_t length, vidl_alloc_fn alloc, uint32_t, uint32_t) {
    if (attrs == nullptr) return -1;
    VIDL_CLEAR(attrs);
    if (length == 0) return 0;
    if (bytes == nullptr || alloc == nullptr) return -1;
    const auto *at = static_cast<const std::uint8_t *>(bytes);
    const std::uint32_t count = stated_count(at, length);
    if (count == 0) return -1;
    at += list_header_bytes;
    // Everything is checked before memory is asked for, so that a refusal has nothing to give back.
    for (std::uint32_t i = 0; i < count; i++) {
        ds_service_attr_t probe = {};
        if (!decode_attribute(at + i * attribute_bytes, probe)) return -1;
    }
    auto *array = static_cast<ds_service_attr_t *>(alloc(count * sizeof(ds_service_attr_t)));
    if (array == nullptr) return -1;
    std::memset(array, 0, count * sizeof *array);
    for (std::uint32_t i = 0; i < count; i++)
        decode_attribute(at + i * attribute_bytes, array[i]);
    VIDL_SET_ARRAY(attrs, attrs, DS_ATTRS_BIT_ATTRS, array, count);
    return static_cast<int32_t>(length);
}
