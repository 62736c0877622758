#include "host/nodes.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <vector>

#include "host/wall_clock.h"

namespace ds::host {

namespace {

constexpr std::uint64_t ns_per_ms = 1'000'000;

struct Known {
    const ds_node_t *heard = nullptr; // of, by the directory
    std::optional<relay::NodeStatus> alive;
};
using Nodes = std::map<NodeAddress, Known>; // of one page, and one behind it if there is one

NodeAddress address_of(const ds_node_t &node) {
    NodeAddress address;
    std::copy_n(node.addr, address.size(), address.begin());
    return address;
}

Nodes nodes_behind(const Server &server, const Directory &directory,
                   const std::optional<NodeAddress> &after) {
    Nodes nodes;
    // The node table has no order of its own.
    directory.for_each_node([&](const ds_node_t &node) {
        const NodeAddress address = address_of(node);
        if (after && address <= *after) return;
        nodes[address].heard = &node;
        if (nodes.size() > nodes_max + 1) nodes.erase(std::prev(nodes.end()));
    });
    // No node has the address of zeros.
    for (relay::NodeStatus &node :
         server.engine().nodes_behind(after.value_or(NodeAddress()), nodes_max + 1))
        nodes[node.address].alive = std::move(node);
    return nodes;
}

void fill_counters(const ds_node_t &node, const WallClock &wall, v1::Node &out) {
    out.set_services_added(node.services_added);
    out.set_services_updated(node.services_updated);
    out.set_services_deleted(node.services_deleted);
    out.set_last_change_ns(wall(node.last_change_time));
    out.set_times_down(node.down_count);
    out.set_last_down_ns(wall(node.last_down_time));
}

void fill_alive(const relay::NodeStatus &node, v1::Node &out) {
    out.set_rack(node.rack);
    out.set_host_name(node.host_name);
    out.set_started_ns(node.started_ns);
    out.set_services(node.entries);
}

void fill_own(Server &server, v1::Node &out) {
    std::array<char, 256> host_name = {};
    gethostname(host_name.data(), host_name.size() - 1);
    out.set_local(true);
    out.set_state(v1::NODE_STATE_UP);
    out.set_rack(server.config().relay.rack);
    out.set_host_name(host_name.data());
    out.set_started_ns(wall_now_ns() - server.uptime_ms() * ns_per_ms);
    out.set_services(server.directory().publications());
}

} // namespace

void fill_nodes(Server &server, const std::string &after, v1::NodesReply &reply) {
    std::optional<NodeAddress> behind;
    if (!after.empty()) std::copy_n(after.begin(), behind.emplace().size(), behind->begin());
    Directory &directory = server.directory();
    const bool is_connected = server.engine().status().is_connected;
    const WallClock wall;
    for (const auto &[address, known] : nodes_behind(server, directory, behind)) {
        if (reply.nodes_size() == static_cast<int>(nodes_max)) {
            reply.set_next(reply.nodes().rbegin()->address());
            return;
        }
        v1::Node &out = *reply.add_nodes();
        out.set_address(reinterpret_cast<const char *>(address.data()), address.size());
        if (known.heard != nullptr) fill_counters(*known.heard, wall, out);
        if (address == directory.node()) {
            fill_own(server, out);
        } else if (!is_connected) {
            out.set_state(v1::NODE_STATE_UNKNOWN);
        } else if (known.alive) {
            out.set_state(v1::NODE_STATE_UP);
            fill_alive(*known.alive, out);
        } else {
            out.set_state(v1::NODE_STATE_DOWN);
        }
    }
}

} // namespace ds::host
