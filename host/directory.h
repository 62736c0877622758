// The directory library in the daemon: its start, its global block, its callbacks, and the calls of
// it that the daemon makes, each in the form that the daemon needs.
//
// There is one per process, since the library has one database that lives until the process ends.
// All calls come from the loop's thread. Element and service pointers stay good until the next call
// that changes the directory.
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

class Directory {
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

    // ---- clients ----

    // Null when memory ran out. An empty name is filled with the process name.
    ds_client_t *add_client(std::uint64_t id, std::string_view name);
    // Ends all that the client registered and published.
    void remove_client(ds_client_t *client);
    // Ends one publication of the client; false when it has none.
    bool take_down_one(ds_client_t *client);

    // ---- publications ----

    // The record that now holds the info; null when it was refused, then the info is gone.
    const ds_service_t *publish(ds_client_t *client, PublishInfo info);
    // False when the client has no such publication. `instance` as clients write it.
    bool withdraw(ds_client_t *client, std::string_view name, std::string_view instance,
                  std::uint32_t scope);
    // Ends any local publication.
    void take_down(ds_service_t *service);
    ds_service_t *find_local_service(const std::string &name, std::uint32_t service_id) const;
    ds_client_t *publisher_of(const ds_service_t *service) const; // null: nobody on this node
    // Whether the client has published exactly that already.
    bool has_published(const ds_client_t *client, const v1::Publish &publish) const;
    // False when the name's snapshot could outgrow a frame with this publication. A publication
    // that replaces one of the client is counted once.
    bool has_room_for(const ds_client_t *client, const v1::Publish &publish) const;

    // ---- registrations ----

    // Null when memory ran out. When the name has live services, on_registration_changed is called
    // for it before this returns; an empty name is passed over in silence.
    ds_client_reg_t *add_registration(ds_client_t *client, const std::string &name,
                                      std::uint64_t argument);
    void remove_registration(ds_client_reg_t *registration);

    // ---- reading ----

    ds_service_elem_t *find(const std::string &name) const;
    // The first element behind that name, whether or not there is one of that name; names are in
    // order of length, then of bytes. Null at the end.
    ds_service_elem_t *first_behind(std::string_view name) const;
    ds_service_elem_t *first() const;
    static ds_service_elem_t *next(ds_service_elem_t *element);
    // After a restart period or the end of a node: names that nobody publishes or watches.
    void drop_empty_names();
    Totals totals() const;
    std::uint64_t publications() const { return sum_.count(); } // by clients of this node
    // Rises whenever an element may have changed or gone, so that what was encoded before is of the
    // past.
    std::uint64_t changes() const { return changes_; }
    void changed() { changes_++; } // by a call of the library that was not made here
    const NodeAddress &node() const { return node_; }
    std::string_view node_bytes() const {
        return {reinterpret_cast<const char *>(node_.data()), node_.size()};
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
    void drop_if_unused(const std::string &name);

    DirectoryClients &clients_;
    relay::Engine &engine_;
    PublicationSum &sum_;
    NodeAddress node_;
    std::function<void(mgd_timer_t *)> timer_handler_;
    ds_node_t *local_node_ = nullptr;
    Timers timers_;
    std::uint64_t changes_ = 0;
    ds_service_elem_t *notified_ = nullptr;               // element of the latest notification run
    std::unordered_set<const ds_service_elem_t *> large_; // elements whose snapshots need measuring
};

} // namespace ds::host
