#include "host/statistics.h"

#include "ds_server_lib.h"
#include "host/wall_clock.h"

namespace ds::host {

void fill_stats(v1::StatsReply &reply) {
    ds_dump_resp_info response = {};
    std::uint32_t names = 0;
    std::uint32_t clients = 0;
    ds_prepare_dump_resp_info(nullptr, nullptr, DS_SCOPE_ANY, &response, &names, &clients);
    const WallClock wall;
    reply.set_clients_added(response.clients_added);
    reply.set_clients_deleted(response.clients_deleted);
    reply.set_last_client_add_ns(wall(response.last_client_add_time));
    reply.set_last_client_delete_ns(wall(response.last_client_delete_time));
    reply.set_local_services_added(response.local_services_added);
    reply.set_local_services_updated(response.local_services_updated);
    reply.set_local_services_deleted(response.local_services_deleted);
    reply.set_remote_services_added(response.remote_services_added);
    reply.set_remote_services_updated(response.remote_services_updated);
    reply.set_remote_services_deleted(response.remote_services_deleted);
    reply.set_registrations_added(response.registrations_added);
    reply.set_registrations_deleted(response.registrations_deleted);
    reply.set_notifications(response.nnotifs);
    reply.set_relay_updates_sent(response.relay_updates_sent);
    reply.set_relay_adds_sent(response.relay_adds_sent);
    reply.set_relay_modifies_sent(response.relay_modifies_sent);
    reply.set_relay_deletes_sent(response.relay_deletes_sent);
    reply.set_relay_updates_received(response.relay_updates_received);
}

} // namespace ds::host
