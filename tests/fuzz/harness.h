// The library on the default platform, without a daemon around it: a block, clients, timers that
// expire on demand, and a record of what registrations and the relay were told.
//
// The directory lives as long as the process; reset() empties it between two inputs.
#pragma once
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ds_server_lib.h"
#include "platform_default/platform_default.h"

namespace ds::fuzz {

using Address = std::array<std::uint8_t, 6>;
inline constexpr Address local_address = {2, 0, 0, 0, 0, 0};

// A registration: the handle of its client in callbacks, and its own.
using RegistrationKey = std::pair<std::uint64_t, std::uint32_t>;

struct Told {
    std::string name;
    std::uint64_t cookie = 0;
    std::vector<std::string> entries; // as text, see entry_text
    bool operator==(const Told &) const = default;
};

struct Sent {
    std::uint32_t operation;
    std::string name;
    std::uint32_t version;
};

std::string entry_text(const ds_service_info_t &entry);

class Harness {
  public:
    static Harness &instance();

    void reset();
    void check_structure() const; // ends the run when an invariant of the database is broken

    ds_db_t *database() const;
    ds_node_t *local_node() const { return local_node_; }

    ds_client_t *add_client();
    void delete_client(ds_client_t *client);

    void open_own_period();
    void expire_own_period(); // settles it; without effect when it is not open
    void disconnect_relay();
    void expire_relay_period();
    bool is_period_open() const;

    std::map<RegistrationKey, Told> told; // the newest message of each registration
    std::vector<Sent> sent;               // to the relay

  private:
    Harness();

    static int on_hook(ds_service_elem_t *selem, ds_service_publish_info *info);
    static int on_send(std::uint64_t client, ds_notif_msg *message);
    static int on_delete(std::uint64_t client, ds_notif_msg *message);
    static int on_relay_send(void *context, const dsr_update_t *update);
    void expire(std::uint32_t slot);
    void release_timer(std::uint32_t slot);

    ds_globals_t block_ = {};
    ds_node_t *local_node_ = nullptr;
    std::uint64_t last_client_ = 0;
    std::uint32_t last_index_ = 0;
    bool deletion_is_pending_ = false; // slot 45 was called, 44 has to follow
};

// A publish info with one endpoint that owns all it has, as the library wants it. `borrowed` ones
// keep their top-level structure; destroy with discard_info after the call.
void fill_info(ds_service_publish_info &info, const char *name, const char *instance,
               std::uint32_t scope, std::uint32_t port);
// Frees what a failed call left.
void discard_info(ds_service_publish_info &info);

} // namespace ds::fuzz
