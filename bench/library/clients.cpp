// Clients that come and go, each a process of its own, beside those that the database has.
#include "batch.h"

namespace ds::bench {

namespace {

constexpr std::uint64_t first_guest_process = 10'000'000;
constexpr std::int64_t guests = 100;

std::vector<ds_client_t *> add_guests() {
    std::vector<ds_client_t *> clients;
    for (std::int64_t i = 0; i < guests; i++)
        clients.push_back(
            Database::add_client(first_guest_process + static_cast<std::uint64_t>(i)));
    return clients;
}

void remove_guests(const std::vector<ds_client_t *> &clients) {
    for (ds_client_t *client : clients)
        ds_db_delete_client(client);
}

void add_client(benchmark::State &state) {
    Database::of_size(state.range(0));
    for (auto _ : state) {
        std::vector<ds_client_t *> clients;
        time_batch(state, [&] { clients = add_guests(); });
        remove_guests(clients);
    }
    state.counters["clients"] = ds_db_get_client_count(nullptr);
    report_calls(state, guests);
}

void delete_client(benchmark::State &state) {
    Database::of_size(state.range(0));
    for (auto _ : state) {
        const std::vector<ds_client_t *> clients = add_guests();
        time_batch(state, [&] { remove_guests(clients); });
    }
    state.counters["clients"] = ds_db_get_client_count(nullptr);
    report_calls(state, guests);
}

BENCHMARK(add_client)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(delete_client)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace

} // namespace ds::bench
