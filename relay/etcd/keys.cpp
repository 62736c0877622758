#include "relay/etcd/keys.h"

#include <charconv>
#include <cstdio>

#include "platform/dsr.h"
#include "relay/etcd/text.h"

namespace ds::relay::etcd {

namespace {

constexpr char instance_mark = ';';
constexpr std::size_t id_digits = 8;
constexpr std::size_t address_bytes = 17; // "02:00:00:00:00:01"

std::optional<std::uint32_t> parse_hex(std::string_view digits) {
    std::uint32_t value = 0;
    for (const char c : digits) // only what this code writes: lower case
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::nullopt;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (result.ec != std::errc() || result.ptr != digits.data() + digits.size())
        return std::nullopt;
    return value;
}

// Cuts the text up to the next slash off the front.
std::optional<std::string_view> take_part(std::string_view &text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const std::string_view part = text.substr(0, slash);
    text.remove_prefix(slash + 1);
    return part;
}

bool take_prefix(std::string_view &text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

} // namespace

KeyRange range_of(std::string prefix) {
    std::string end = prefix;
    end.back()++; // prefixes end with a slash
    return {std::move(prefix), std::move(end)};
}

std::string address_text(const NodeAddress &address) {
    char text[address_bytes + 1];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1],
                  address[2], address[3], address[4], address[5]);
    return text;
}

std::optional<NodeAddress> parse_address(std::string_view text) {
    if (text.size() != address_bytes) return std::nullopt;
    NodeAddress address = {};
    for (std::size_t i = 0; i < address.size(); i++) {
        const auto octet = parse_hex(text.substr(i * 3, 2));
        if (!octet || (i + 1 < address.size() && text[i * 3 + 2] != ':')) return std::nullopt;
        address[i] = static_cast<std::uint8_t>(*octet);
    }
    if (address == NodeAddress{}) return std::nullopt;
    return address;
}

Keys::Keys(const std::string &cluster, const std::string &rack)
    : root_("/ds/v1/" + cluster + "/"), epoch_(root_ + "epoch"), nodes_(root_ + "nodes/"),
      probe_(root_ + "probe/"), racks_(root_ + "rack/"), system_(root_ + "system/"), rack_(rack) {}

std::string Keys::entry(const NodeAddress &node, const Update &update) const {
    char id[id_digits + 1];
    std::snprintf(id, sizeof id, "%08x", update.service_id);
    std::string key = update.scope == DSR_SCOPE_RACK ? racks_ + rack_ + "/" : system_;
    key.append(address_text(node)).append("/").append(id).append("/").append(update.name);
    if (update.instance) key.append(1, instance_mark).append(*update.instance);
    return key;
}

KeyRange Keys::system_entries_of(const NodeAddress &node) const {
    return range_of(system_ + address_text(node) + "/");
}

KeyRange Keys::rack_entries_of(const std::string &rack, const NodeAddress &node) const {
    return range_of(racks_ + rack + "/" + address_text(node) + "/");
}

std::optional<NodeAddress> Keys::parse_node(std::string_view key) const {
    if (!take_prefix(key, nodes_)) return std::nullopt;
    return parse_address(key);
}

std::optional<EntryKey> Keys::parse_entry(std::string_view key) const {
    EntryKey entry;
    if (take_prefix(key, system_)) {
        entry.scope = DSR_SCOPE_SYSTEM;
    } else if (take_prefix(key, racks_)) {
        entry.scope = DSR_SCOPE_RACK;
        const auto rack = take_part(key);
        if (!rack || !is_key_part(*rack)) return std::nullopt;
        entry.rack = *rack;
    } else {
        return std::nullopt;
    }
    const auto address = take_part(key);
    const auto id = take_part(key);
    const auto node = parse_address(address.value_or(""));
    if (!node || !id || id->size() != id_digits) return std::nullopt;
    const auto service_id = parse_hex(*id);
    if (!service_id) return std::nullopt;
    entry.node = *node;
    entry.service_id = *service_id;
    const std::size_t mark = key.find(instance_mark);
    entry.name = key.substr(0, mark);
    if (mark != std::string_view::npos) entry.instance = key.substr(mark + 1);
    return entry;
}

} // namespace ds::relay::etcd
