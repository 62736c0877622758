// The records of the one directory, as the daemon changes them: the calls of the library, each in
// the form that the daemon needs, with what the daemon adds to it. Whatever is published goes into
// the publication sum, and a name goes when its last service and its last registration have gone.
//
// Needs the library and its global block, but neither the loop nor the clients' protocol. Element
// and service pointers stay good until the next call that changes the directory.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "ds_server_lib.h"
#include "host/publication_sum.h"
#include "host/publish_info.h"
#include "relay/engine.h"

namespace ds::host {

// Whether a restart period is open; while it is, snapshots say that they are reconciling.
bool is_restart_period_open();

// Records that still wait for their publisher are not live.
bool is_live(const ds_service_t *service);
bool has_live_services(ds_service_elem_t *element);

class Records {
  public:
    using NodeAddress = relay::NodeAddress;

    Records(PublicationSum &sum, const NodeAddress &node) : sum_(sum), node_(node) {}
    Records(const Records &) = delete;
    Records &operator=(const Records &) = delete;

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
    // False when the client has no such publication. `instance` as the directory knows it.
    bool withdraw(ds_client_t *client, std::string_view name, std::string_view instance,
                  std::uint32_t scope);
    // Ends any local publication.
    void take_down(ds_service_t *service);
    std::uint64_t publications() const { return sum_.count(); } // by clients of this node
    ds_service_t *find_local_service(const std::string &name, std::uint32_t service_id) const;
    ds_client_t *publisher_of(const ds_service_t *service) const; // null: nobody on this node

    // ---- registrations ----

    // Null when memory ran out. When the name has live services, the client is told of them before
    // this returns; an empty name is passed over in silence.
    ds_client_reg_t *add_registration(ds_client_t *client, const std::string &name,
                                      std::uint64_t argument);
    void remove_registration(ds_client_reg_t *registration);

    // ---- names ----

    ds_service_elem_t *find(const std::string &name) const;
    ds_service_elem_t *first() const;
    static ds_service_elem_t *next(ds_service_elem_t *element);
    // Before a restart period is settled: services that wait for their publisher although a live
    // one has taken over their identity already. When the relay replays twice in a period, such a
    // twin can remain; its withdrawal would take the live one's entry away.
    void drop_twins();
    // After a restart period or the end of a node: names that nobody publishes or watches.
    void drop_empty_names();

    // ---- changes ----

    // Rises whenever an element may have changed or gone, so that what was encoded before is of the
    // past.
    std::uint64_t changes() const { return changes_; }
    void changed() { changes_++; } // by a call of the library that was not made here
    // To be called by the library's notification hook.
    void notified(ds_service_elem_t *element);

    const NodeAddress &node() const { return node_; }

  protected:
    static ds_db_t *database();

  private:
    static ds_node_t *local_node();
    ds_service_t *find_own(const ds_client_t *client, const std::string &name,
                           std::string_view instance, std::uint32_t scope) const;
    void drop_rivals(const ds_client_t *client, const ds_service_publish_info &info);
    void drop_if_unused(const std::string &name);

    PublicationSum &sum_;
    const NodeAddress node_;
    std::uint64_t changes_ = 0;
    ds_service_elem_t *notified_ = nullptr; // element of the latest notification run
};

} // namespace ds::host
