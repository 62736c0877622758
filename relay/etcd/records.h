// The values in the store: encoded, and decoded with every bound checked.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "relay/etcd/keys.h"
#include "relay/update.h"

namespace ds::relay::etcd {

inline constexpr std::size_t name_bytes_limit = 255;
inline constexpr std::size_t instance_bytes_limit = 255; // its ending included
inline constexpr std::size_t endpoint_bytes_limit = 4096 + 8;
inline constexpr std::size_t attributes_bytes_limit = 16 * 536;
inline constexpr std::size_t value_bytes_limit = 16 * 1024;

// What a node says about itself.
struct NodeInfo {
    std::string boot_id;
    std::string rack;
    std::string host_name;
    std::uint64_t started_ns = 0; // since 1970
    std::uint64_t session = 0;

    bool operator==(const NodeInfo &) const = default;
};

// Empty when the update may travel, else what is wrong with it in a few words.
std::string check_update(const Update &update);

std::string encode_update(const Update &update);
std::string encode_node(const NodeInfo &node);

// Decodes what stands in the store under that key. Empty on success, else what is wrong with it in
// a few words; the output is written only on success. The operation comes out as DSR_ADD.
std::string decode_update(const EntryKey &key, std::string_view value, Update &out);
std::string decode_node(std::string_view value, NodeInfo &out);

// An upper bound for the bytes that the entry takes in what a client is told of its name.
std::size_t told_bytes(const Update &update);

} // namespace ds::relay::etcd
