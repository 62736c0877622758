// Databases of the library, filled once and reused by every benchmark that asks for their size.
//
// Each has its own global block, so several live beside each other in one process; use() makes one
// of them the library's. Services are spread over clients of a thousand publications each, one
// process per client, and have system scope: each change is encoded and handed to a relay that does
// nothing. The host is as small as one can be: its callbacks do nothing, its trace channels are
// open and lie in anonymous memory.
//
// A benchmark leaves a database as it found it.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ds_server_lib.h"

namespace ds::bench {

// "bench/service/0000123": names in no particular order of the tree, all of one length.
std::string service_name(std::size_t index);

struct InfoDeleter {
    void operator()(ds_service_publish_info *info) const;
};
using Info = std::unique_ptr<ds_service_publish_info, InfoDeleter>;

// Ethernet addresses: of the node that the databases live on, and of another one.
inline constexpr std::uint8_t node_address[6] = {0x02, 0, 0, 0, 0, 0x01};
inline constexpr std::uint8_t other_node_address[6] = {0x02, 0, 0, 0, 0, 0x02};
inline constexpr char instance_text[] = "primary;";

// A publication of one IPv4 endpoint with that port. Throws std::bad_alloc.
Info make_info(const std::string &name, std::uint32_t port);

// A withdrawal's key; its texts stay the caller's.
ds_service_key_t make_key(std::string &name, std::string &instance);

class Database {
  public:
    // What filling it took.
    struct Footprint {
        double seconds = 0;
        double heap_bytes_per_service = 0; // all that the allocator handed out
        double pool_bytes_per_service = 0; // of it in record pools
    };

    // The database with that many services, filled at the first call; 0: one for guests.
    static Database &of_size(std::int64_t services);

    void use();
    std::size_t size() const { return size_; }
    ds_node_t *node() const { return node_; }
    // A client without services of its own; the benchmarks publish as this one.
    ds_client_t *publisher() const { return publisher_; }
    const Footprint &footprint() const { return footprint_; }
    // The client that published the service of that index.
    std::uint32_t owner_idx(std::size_t index) const;
    std::uint64_t pool_bytes() const;
    ds_globals_t &block() { return block_; }
    // Deletes every name, when none of them has a service or a registration.
    void delete_empty_names();

    // Client handles are given out once; the process id of a client is process_id(handle).
    static ds_client_t *add_client(std::uint64_t process);
    // Publishes; the info is the library's afterwards. False when it was refused.
    bool publish(std::uint32_t client_idx, Info info);
    bool withdraw(std::uint32_t client_idx, std::string &name);

  private:
    explicit Database(std::size_t services);
    void fill();

    std::size_t size_;
    ds_globals_t block_ = {};
    ds_node_t *node_ = nullptr;
    ds_client_t *publisher_ = nullptr;
    std::vector<std::uint32_t> owners_;
    Footprint footprint_;
};

// Ends the process with a message: a benchmark whose preparation failed must not print figures.
[[noreturn]] void fail(const char *what);

} // namespace ds::bench
