// The library on the default platform, without a daemon around it: a block, clients, timers that
// expire on demand, and a record of what the host and the relay were told.
//
// The directory lives as long as the process; reset() empties it between two inputs, counters and
// serials too, so that an input does the same whatever ran before it.
#pragma once
#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "event.h"

namespace ds::fuzz {

using Address = std::array<std::uint8_t, 6>;
inline constexpr std::size_t node_count = 4; // this node is the first

Address address_of(std::size_t node);

class Harness {
  public:
    static Harness &instance();

    void reset();
    void check_structure() const; // ends the run when an invariant of the database is broken

    ds_db_t *database() const;
    ds_node_t *local_node() const { return nodes_.front(); }
    const std::vector<ds_node_t *> &nodes() const { return nodes_; }
    // Log lines, on the console and in the rings, cost more than what they are about. Most
    // histories are run without them.
    void set_logging(bool is_on);

    ds_client_t *add_client();
    void delete_client(ds_client_t *client);

    void open_own_period();
    void expire_own_period(); // settles it; without effect when it is not open
    void disconnect_relay();
    void expire_relay_period();
    bool is_own_period_open() const;

    std::vector<Event> events; // whoever compares them removes them

  private:
    Harness();

    static int on_hook(ds_service_elem_t *selem, ds_service_publish_info *info);
    static int on_send(std::uint64_t client, ds_notif_msg *message);
    static int on_delete(std::uint64_t client, ds_notif_msg *message);
    static int on_relay_send(void *context, const dsr_update_t *update);
    void check_that_pools_are_empty() const;
    void forget_counts();
    void expire(std::uint32_t slot);
    void release_timer(std::uint32_t slot);

    ds_globals_t block_ = {};
    std::FILE *console_ = nullptr;
    std::array<rtrace_handle_t, DS_CHANNEL_COUNT> channels_ = {};
    std::vector<ds_node_t *> nodes_;
    std::uint64_t last_client_ = 0;
};

// A publish info that owns all it has, as the library wants it. A borrowed one keeps its top-level
// structure.
class PublishInfo {
  public:
    PublishInfo(const std::string &name, const Endpoints &endpoints, bool is_borrowed);
    ~PublishInfo(); // frees what nobody took
    PublishInfo(const PublishInfo &) = delete;
    PublishInfo &operator=(const PublishInfo &) = delete;

    ds_service_publish_info *get() { return info_; }
    bool settle(); // right after the call that was given the info; true: a record took it

  private:
    bool is_borrowed_;
    bool is_taken_ = false;
    ds_service_publish_info own_ = {};
    ds_service_publish_info *info_;
};

// An endpoint of an address that depends on the port only.
Endpoint ip_endpoint(std::uint32_t port, std::uint32_t scope,
                     const std::optional<std::string> &instance);

} // namespace ds::fuzz
