#include "cli/endpoint.h"

#include <charconv>
#include <cstdint>

#include "cli/utf8.h"
#include "proto/frame.h"

namespace ds::cli {
namespace {

// A whole decimal number up to `max`. Leading zeros are refused: some programs read them as octal.
std::optional<std::uint32_t> parse_number(std::string_view text, std::uint32_t max) {
    if (text.empty() || (text.size() > 1 && text[0] == '0')) return std::nullopt;
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value > max)
        return std::nullopt;
    return value;
}

std::optional<std::uint32_t> parse_address(std::string_view text) {
    std::uint32_t address = 0;
    for (int octet = 0; octet < 4; octet++) {
        const std::size_t dot = text.find('.');
        if ((dot == text.npos) != (octet == 3)) return std::nullopt;
        const auto value = parse_number(text.substr(0, dot), 255);
        if (!value) return std::nullopt;
        address = address << 8 | *value;
        text.remove_prefix(dot == text.npos ? text.size() : dot + 1);
    }
    return address;
}

std::optional<std::string> parse_path(std::string_view text, v1::Endpoint &endpoint) {
    if (text.size() > proto::path_bytes_max) return "a path has at most 4000 bytes";
    if (!is_utf8(text)) return "a path must be UTF-8";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) return "a path must not hold control characters";
    }
    endpoint.set_path(std::string(text));
    return std::nullopt;
}

} // namespace

std::optional<std::string> parse_endpoint(std::string_view text, v1::Endpoint &endpoint) {
    if (text.empty()) return "an endpoint is a.b.c.d:port or an absolute path, not empty";
    if (text[0] == '/') return parse_path(text, endpoint);
    const std::size_t colon = text.find(':');
    if (colon == text.npos) {
        return "an endpoint is a.b.c.d:port or an absolute path, not '" + std::string(text) + "'";
    }
    const auto address = parse_address(text.substr(0, colon));
    if (!address) return "not an IPv4 address: '" + std::string(text.substr(0, colon)) + "'";
    const auto port = parse_number(text.substr(colon + 1), 65535);
    if (!port || *port == 0) {
        return "a port is 1 to 65535, not '" + std::string(text.substr(colon + 1)) + "'";
    }
    endpoint.mutable_ipv4()->set_address(*address);
    endpoint.mutable_ipv4()->set_port(*port);
    return std::nullopt;
}

std::string endpoint_text(const v1::Endpoint &endpoint) {
    if (endpoint.has_path()) return endpoint.path();
    if (!endpoint.has_ipv4()) return {};
    const std::uint32_t address = endpoint.ipv4().address();
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += std::to_string(address >> shift & 0xff);
        text += shift > 0 ? '.' : ':';
    }
    return text + std::to_string(endpoint.ipv4().port());
}

} // namespace ds::cli
