// The two endpoint codecs; docs/formats.md describes the bytes. The first byte tells them apart.
#include "codec.h"
#include "platform/vidl.h"
#include "platform_default/platform_default.h"
#include <cstdint>
#include <cstring>

namespace {

using ds::platform::endpoint_tag_ip;
using ds::platform::endpoint_tag_path;
using ds::platform::endpoint_tag_service;
using ds::platform::get_integer;
using ds::platform::put_integer;

constexpr std::uint64_t path_header_bytes = DS_ENDPOINT_PATH_HEADER_BYTES; // tag, zero, length
constexpr std::uint64_t path_text_bytes_max = 4000;
static_assert(path_header_bytes + path_text_bytes_max <= DS_ENDPOINT_PATH_BYTES_MAX);

enum { vipc_bit_address, vipc_bit_port };
enum { path_bit_path };

bool is_path(const void *text, std::uint64_t length) {
    return length != 0 && length <= path_text_bytes_max && std::memchr(text, 0, length) == nullptr;
}

} // namespace

namespace ds::platform {

bool read_ip_endpoint(const void *bytes, std::uint64_t length, ip_endpoint &endpoint) {
    if (bytes == nullptr || length < DS_ENDPOINT_IP_BYTES) return false;
    const auto *at = static_cast<const std::uint8_t *>(bytes);
    const bool is_plain = at[0] == endpoint_tag_ip && at[1] == 0 && length == DS_ENDPOINT_IP_BYTES;
    if (!is_plain && at[0] != endpoint_tag_service) return false;
    endpoint.port = get_integer<std::uint16_t>(at + 2);
    endpoint.octets = at + 4;
    return true;
}

} // namespace ds::platform

int32_t ds_encode_endpoint(uint32_t address, uint32_t port, void *buffer, uint32_t capacity) {
    if (buffer == nullptr || capacity < DS_ENDPOINT_IP_BYTES || port > 0xffff) return -1;
    auto *at = static_cast<std::uint8_t *>(buffer);
    at[0] = endpoint_tag_ip;
    at[1] = 0;
    put_integer(at + 2, static_cast<std::uint16_t>(port));
    put_integer(at + 4, address);
    return DS_ENDPOINT_IP_BYTES;
}

int32_t ds_encode_service_endpoint(uint32_t address, uint32_t port, uint32_t scope,
                                   const char *instance, uint64_t length, void *buffer,
                                   uint32_t capacity) {
    if (instance == nullptr || scope > 0xff || capacity < length + DS_ENDPOINT_IP_BYTES) return -1;
    if (ds_encode_endpoint(address, port, buffer, capacity) < 0) return -1;
    auto *at = static_cast<std::uint8_t *>(buffer);
    at[0] = endpoint_tag_service;
    at[1] = static_cast<std::uint8_t>(scope);
    std::memcpy(at + DS_ENDPOINT_IP_BYTES, instance, length);
    return static_cast<int32_t>(DS_ENDPOINT_IP_BYTES + length);
}

int32_t ds_encode_path(const char *path, uint64_t length, void *buffer, uint32_t capacity) {
    if (path == nullptr || buffer == nullptr || !is_path(path, length)) return -1;
    if (capacity < path_header_bytes + length) return -1;
    auto *at = static_cast<std::uint8_t *>(buffer);
    at[0] = endpoint_tag_path;
    at[1] = 0;
    put_integer(at + 2, static_cast<std::uint16_t>(length));
    std::memcpy(at + path_header_bytes, path, length);
    return static_cast<int32_t>(path_header_bytes + length);
}

int32_t vidl_vipc_endpoint_decode_ext(vidl_vipc_endpoint_t *ep, const void *bytes, uint64_t length,
                                      vidl_alloc_fn, uint32_t, uint32_t) {
    if (ep == nullptr) return -1;
    VIDL_CLEAR(ep);
    ds::platform::ip_endpoint endpoint;
    if (!ds::platform::read_ip_endpoint(bytes, length, endpoint)) return -1;
    std::memcpy(ep->address, endpoint.octets, sizeof ep->address);
    VIDL_SET_BIT(ep, vipc_bit_address);
    VIDL_SET(ep, port, vipc_bit_port, endpoint.port);
    return static_cast<int32_t>(length);
}

int32_t vidl_ds_ep_path_decode_ext(vidl_ds_ep_path_t *path, const void *bytes, uint64_t length,
                                   vidl_alloc_fn alloc, uint32_t, uint32_t) {
    if (path == nullptr) return -1;
    VIDL_CLEAR(path);
    if (bytes == nullptr || alloc == nullptr || length < path_header_bytes) return -1;
    const auto *at = static_cast<const std::uint8_t *>(bytes);
    if (at[0] != endpoint_tag_path || at[1] != 0) return -1;
    const std::uint64_t text_bytes = get_integer<std::uint16_t>(at + 2);
    const std::uint8_t *text = at + path_header_bytes;
    if (length - path_header_bytes != text_bytes || !is_path(text, text_bytes)) return -1;
    auto *copy = static_cast<char *>(alloc(text_bytes + 1));
    if (copy == nullptr) return -1;
    std::memcpy(copy, text, text_bytes);
    copy[text_bytes] = '\0';
    VIDL_SET(path, path, path_bit_path, copy);
    return static_cast<int32_t>(length);
}
