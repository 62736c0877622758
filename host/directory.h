// The directory library in the daemon: its start, its global block, its callbacks, and what of its
// records only the daemon asks for.
//
// There is one per process, since the library has one database that lives until the process ends.
// All calls come from the loop's thread.
#pragma once
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "ds_server_lib.h"
#include "host/config.h"
#include "host/loop.h"
#include "host/node_address.h"
#include "host/publication.h"
#include "host/publication_sum.h"
#include "host/records.h"
#include "host/timers.h"
#include "relay/engine.h"

namespace ds::host {

// What the library asks of the side that holds its clients.
class DirectoryClients {
  public:
    // A registration has something new to tell. `argument` is the one of add_registration. Called
    // while the library walks the element: remember it, change nothing in the directory.
    virtual void on_registration_changed(std::uint64_t argument) = 0;
    virtual long process_id(std::uint64_t client) = 0;
    virtual const char *process_name(std::uint64_t client) = 0;

  protected:
    ~DirectoryClients() = default;
};

class Directory : public Records {
  public:
    // Records in use: names published or registered for; services, those included that wait for
    // their publisher.
    struct Totals {
        std::uint32_t names = 0;
        std::uint32_t services = 0;
        std::uint32_t registrations = 0;
    };

    // Throws StartError when the library refuses to start.
    Directory(Loop &loop, DirectoryClients &clients, relay::Engine &engine, PublicationSum &sum,
              const Config &config);
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    // Who is told that a timer of the library expired; the timer counts as running meanwhile.
    void on_timer(std::function<void(mgd_timer_t *)> handler) {
        timer_handler_ = std::move(handler);
    }

    // ---- publications ----

    // Whether the client has published exactly that already.
    bool has_published(const ds_client_t *client, const v1::Publish &publish) const;
    // False when the name's snapshot could outgrow a frame with this publication. A publication
    // that replaces one of the client is counted once.
    bool has_room_for(const ds_client_t *client, const v1::Publish &publish) const;

    // ---- reading ----

    // The first element behind that name, whether or not there is one of that name; names are in
    // order of length, then of bytes. Null at the end.
    ds_service_elem_t *first_behind(std::string_view name) const;
    Totals totals() const;
    std::string_view node_bytes() const {
        return {reinterpret_cast<const char *>(node().data()), node().size()};
    }
    // Null when nothing was ever heard of that node. `address` has 6 bytes.
    const ds_node_t *find_node(const std::string &address) const;
    void for_each_node(const std::function<void(const ds_node_t &)> &function) const;

  private:
    static int on_notify(ds_service_elem_t *element, ds_service_publish_info *info);
    static int on_send(std::uint64_t client, ds_notif_msg *message);
    static int on_delete(std::uint64_t client, ds_notif_msg *message);
    static long on_process_id(std::uint64_t client);
    static const char *on_process_name(std::uint64_t client);
    static int on_relay_send(void *engine, const dsr_update_t *update);
    static void on_expired(mgd_timer_t *timer);

    void fill_block(std::FILE *console);

    DirectoryClients &clients_;
    relay::Engine &engine_;
    std::function<void(mgd_timer_t *)> timer_handler_;
    Timers timers_;
    std::unordered_set<const ds_service_elem_t *> large_; // elements whose snapshots need measuring
};

} // namespace ds::host
