// The keys of a cluster in the store.
//
//   /ds/v1/<cluster>/epoch                                          random, made once
//   /ds/v1/<cluster>/nodes/<address>                                a live daemon, on its lease
//   /ds/v1/<cluster>/probe/<address>                                written and watched by its node
//   /ds/v1/<cluster>/rack/<rack>/<address>/<service id>/<service>   entries of scope rack
//   /ds/v1/<cluster>/system/<address>/<service id>/<service>        entries of scope system
//
// <address> is "02:00:00:00:00:01", <service id> eight hexadecimal digits, <service> the name, for
// a service with an instance followed by ";" and the instance. The service stands in the key
// because a daemon that restarts with the process id of its predecessor gives the same ids again:
// two services never share a key, and a deletion can only hit the service that it names.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "relay/engine.h"
#include "relay/update.h"

namespace ds::relay::etcd {

// Keys from `begin` up to, but not including, `end`.
struct KeyRange {
    std::string begin;
    std::string end;
};

// All keys that begin with the prefix.
KeyRange range_of(std::string prefix);

std::string address_text(const NodeAddress &address);
std::optional<NodeAddress> parse_address(std::string_view text);

// What a key says about its entry.
struct EntryKey {
    NodeAddress node = {};
    std::uint32_t scope = 0; // DSR_SCOPE_RACK or DSR_SCOPE_SYSTEM
    std::string rack;        // empty for scope system
    std::uint32_t service_id = 0;
    std::string name;
    std::optional<std::string> instance;
};

class Keys {
  public:
    Keys(const std::string &cluster, const std::string &rack);

    const std::string &epoch() const { return epoch_; }
    std::string node(const NodeAddress &address) const { return nodes_ + address_text(address); }
    std::string probe(const NodeAddress &address) const { return probe_ + address_text(address); }
    // Scope DSR_SCOPE_RACK goes under this node's rack.
    std::string entry(const NodeAddress &node, const Update &update) const;

    KeyRange nodes() const { return range_of(nodes_); }
    // The epoch and the nodes, which are neighbours.
    KeyRange epoch_and_nodes() const { return {epoch_, range_of(nodes_).end}; }
    KeyRange system_entries() const { return range_of(system_); }
    KeyRange rack_entries() const { return range_of(racks_ + rack_ + "/"); }
    KeyRange entries_of_all_racks() const { return range_of(racks_); }
    KeyRange system_entries_of(const NodeAddress &node) const;
    KeyRange rack_entries_of(const std::string &rack, const NodeAddress &node) const;

    // Nothing when the key is not of that form.
    std::optional<NodeAddress> parse_node(std::string_view key) const;
    std::optional<EntryKey> parse_entry(std::string_view key) const;

  private:
    std::string root_, epoch_, nodes_, probe_, racks_, system_;
    std::string rack_;
};

} // namespace ds::relay::etcd
