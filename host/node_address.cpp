#include "host/node_address.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace ds::host {

namespace {

constexpr NodeAddress no_address = {};
constexpr NodeAddress fallback = {0x02, 0, 0, 0, 0, 0x01}; // locally administered

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

std::optional<NodeAddress> parse_node_address(std::string_view text) {
    NodeAddress address = {};
    if (text.size() != address.size() * 3 - 1) return std::nullopt;
    for (std::size_t i = 0; i < address.size(); i++) {
        const int high = hex_digit(text[i * 3]);
        const int low = hex_digit(text[i * 3 + 1]);
        const bool separated = i + 1 == address.size() || text[i * 3 + 2] == ':';
        if (high < 0 || low < 0 || !separated) return std::nullopt;
        address[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    if (address == no_address) return std::nullopt;
    return address;
}

std::string node_address_text(const NodeAddress &address) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1],
                  address[2], address[3], address[4], address[5]);
    return text;
}

NodeAddress first_ethernet_address() {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return fallback;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> owner(list, freeifaddrs);
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET) continue;
        const auto *link = reinterpret_cast<const sockaddr_ll *>(entry->ifa_addr);
        if ((entry->ifa_flags & IFF_LOOPBACK) != 0 || link->sll_hatype != ARPHRD_ETHER) continue;
        NodeAddress address = {};
        if (link->sll_halen != address.size()) continue;
        std::copy_n(link->sll_addr, address.size(), address.begin());
        if (address != no_address) return address;
    }
    return fallback;
}

} // namespace ds::host
