// Integers of the marshalled formats: most significant byte first, at any address.
#pragma once
#include <cstddef>
#include <cstdint>

namespace ds::platform {

template <typename T> void put_integer(std::uint8_t *at, T value) {
    for (std::size_t i = 0; i < sizeof(T); i++)
        at[i] = static_cast<std::uint8_t>(value >> (8 * (sizeof(T) - 1 - i)));
}

template <typename T> T get_integer(const std::uint8_t *at) {
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); i++)
        value = static_cast<T>(static_cast<T>(value << 7 << 1) | at[i]);
    return value;
}

enum : std::uint8_t {
    endpoint_tag_ip = 0x01,
    endpoint_tag_path = 0x02,
    endpoint_tag_service = 0x03,
    attrs_tag = 0xa1
};

// The endpoint of an IP encoding, of a service's or of none; false when the bytes are no such
// encoding. The octets stand in printing order.
struct ip_endpoint {
    const std::uint8_t *octets;
    std::uint16_t port;
};
bool read_ip_endpoint(const void *bytes, std::uint64_t length, ip_endpoint &endpoint);

} // namespace ds::platform
