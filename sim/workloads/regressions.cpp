#include "sim/workloads/regressions.h"

#include <utility>

#include "ds_server_lib.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t name = 7;
constexpr std::uint32_t identity = 1 * 4 + DS_SCOPE_SYSTEM; // instance and scope
constexpr std::uint32_t first_endpoint = 10 * 4;
constexpr std::uint32_t second_endpoint = 20 * 4;

Plan plan_of(Settings settings, Time duration, std::vector<Op> ops) {
    settings.duration = duration;
    settings.reuses_client_pid = false;
    return {settings, std::move(ops)};
}

// A machine boots: its client is there again, with another pid, before what the dead one had
// published is replayed to the new daemon.
std::vector<Op> reboot(const Op &last) {
    return {{1 * second, Kind::start_client, 0, 2},
            {1 * second, Kind::publish, 0, name, identity, first_endpoint},
            {2 * second, Kind::start_client, 1, 2},
            {2 * second, Kind::watch, 1, name},
            {20 * second, Kind::halt_machine, 2, 1000},
            last};
}

} // namespace

Plan make_withdraw_beside(Settings settings) {
    return plan_of(std::move(settings), 100 * second,
                   reboot({38 * second, Kind::withdraw, 0, name, identity}));
}

Plan make_change_beside(Settings settings) {
    return plan_of(std::move(settings), 100 * second,
                   reboot({38 * second, Kind::publish, 0, name, identity, second_endpoint}));
}

Plan make_long_outage(Settings settings) {
    return plan_of(std::move(settings), 100 * second,
                   {{1 * second, Kind::start_client, 0, 0},
                    {1 * second, Kind::publish, 0, name, identity, first_endpoint},
                    {1 * second, Kind::start_client, 1, 2},
                    {1 * second, Kind::publish, 1, name + 1, identity, second_endpoint},
                    {20 * second, Kind::halt_machine, 2, 1500},
                    {35'500 * ms, Kind::store_outage, 0, 31'400}});
}

// Two processes with the same instance; one withdraws while the daemon is away, and the other takes
// over its entry.
Plan make_twin(Settings settings) {
    return plan_of(std::move(settings), 100 * second,
                   {{1 * second, Kind::start_client, 0, 2},
                    {1 * second, Kind::start_client, 1, 2},
                    {2 * second, Kind::publish, 0, name, identity, first_endpoint},
                    {3 * second, Kind::publish, 1, name, identity, second_endpoint},
                    {20 * second, Kind::kill_daemon, 2, 2900},
                    {20'200 * ms, Kind::withdraw, 1, name, identity},
                    {28 * second, Kind::store_outage, 0, 4600}});
}

// The only node of its rack dies for good, and so does every other node that has seen it die, but
// for one that is started again and knows nothing of it.
Plan make_last_of_rack(Settings settings) {
    settings.nodes = 3;
    settings.racks = 2;
    return plan_of(std::move(settings), 100 * second,
                   {{1 * second, Kind::start_client, 0, 1},
                    {1 * second, Kind::publish, 0, name, 1 * 4 + DS_SCOPE_RACK, first_endpoint},
                    {20 * second, Kind::halt_machine, 0, 0},
                    {20 * second, Kind::halt_machine, 1, 0},
                    {27'500 * ms, Kind::halt_machine, 2, 3000}});
}

// One process takes over the entry of another with the same instance, which then comes back with
// its former pid and endpoint, before the store is back and replays the entry a second time.
Plan make_two_heirs(Settings settings) {
    Plan plan = plan_of(std::move(settings), 100 * second,
                        {{1 * second, Kind::start_client, 0, 2},
                         {1 * second, Kind::start_client, 1, 2},
                         {2 * second, Kind::publish, 1, name, identity, first_endpoint},
                         {2 * second, Kind::publish, 1, name + 1, identity, first_endpoint},
                         {20 * second, Kind::stop_daemon, 2, 6000, 1},
                         {23 * second, Kind::store_outage, 0, 13'800},
                         {32 * second, Kind::kill_client, 1},
                         {41'500 * ms, Kind::publish, 0, name, identity, second_endpoint},
                         {42'600 * ms, Kind::store_outage, 0, 3'700},
                         {45'800 * ms, Kind::start_client, 1, 2}});
    plan.settings.reuses_client_pid = true;
    return plan;
}

} // namespace ds::sim
