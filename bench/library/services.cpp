// Publications: new ones, changed ones, withdrawn ones, look-ups, and what a service takes in
// memory.
#include <random>

#include "batch.h"

namespace ds::bench {

namespace {

// Names of services that are not in the database, those behind its last one.
std::vector<std::string> new_names(const Database &database) {
    std::vector<std::string> names;
    for (std::int64_t i = 0; i < batch_calls; i++)
        names.push_back(service_name(database.size() + static_cast<std::size_t>(i)));
    return names;
}

std::vector<Info> infos_of(const std::vector<std::string> &names, std::uint32_t port) {
    std::vector<Info> infos;
    infos.reserve(names.size());
    for (const std::string &name : names)
        infos.push_back(make_info(name, port));
    return infos;
}

void publish_all(Database &database, std::vector<Info> &infos) {
    for (Info &info : infos)
        if (!database.publish(database.publisher()->client_idx, std::move(info)))
            fail("a service was refused");
}

void withdraw_all(Database &database, std::vector<std::string> &names) {
    for (std::string &name : names)
        if (!database.withdraw(database.publisher()->client_idx, name))
            fail("a service cannot be withdrawn");
}

std::vector<std::size_t> random_indexes(std::size_t size, std::size_t count) {
    std::mt19937_64 random(20); // the same in every run
    std::vector<std::size_t> indexes(count);
    for (std::size_t &index : indexes)
        index = random() % size;
    return indexes;
}

// Filling the database from empty; the time is the one of its first and only filling.
void fill(benchmark::State &state) {
    const Database &database = Database::of_size(state.range(0));
    for (auto _ : state)
        state.SetIterationTime(database.footprint().seconds);
    state.counters["heap_bytes_per_service"] = database.footprint().heap_bytes_per_service;
    state.counters["pool_bytes_per_service"] = database.footprint().pool_bytes_per_service;
    report_calls(state, state.range(0));
}

void publish_new(benchmark::State &state) {
    Database &database = Database::of_size(state.range(0));
    std::vector<std::string> names = new_names(database);
    for (auto _ : state) {
        std::vector<Info> infos = infos_of(names, 1);
        time_batch(state, [&] { publish_all(database, infos); });
        withdraw_all(database, names);
    }
    report_calls(state, batch_calls);
}

void withdraw(benchmark::State &state) {
    Database &database = Database::of_size(state.range(0));
    std::vector<std::string> names = new_names(database);
    for (auto _ : state) {
        std::vector<Info> infos = infos_of(names, 1);
        publish_all(database, infos);
        time_batch(state, [&] { withdraw_all(database, names); });
    }
    report_calls(state, batch_calls);
}

// Existing services change their port; each batch takes other services.
void republish(benchmark::State &state) {
    Database &database = Database::of_size(state.range(0));
    std::vector<std::size_t> indexes = random_indexes(database.size(), batch_calls);
    std::vector<std::string> names;
    for (const std::size_t index : indexes)
        names.push_back(service_name(index));
    std::uint32_t port = 1;
    for (auto _ : state) {
        port = port % 65535 + 1;
        std::vector<Info> infos = infos_of(names, port);
        time_batch(state, [&] {
            for (std::size_t i = 0; i < infos.size(); i++)
                if (!database.publish(database.owner_idx(indexes[i]), std::move(infos[i])))
                    fail("a change was refused");
        });
    }
    report_calls(state, batch_calls);
}

void find(benchmark::State &state) {
    Database &database = Database::of_size(state.range(0));
    std::vector<std::string> names;
    for (const std::size_t index : random_indexes(database.size(), 65536))
        names.push_back(service_name(index));
    std::size_t at = 0;
    for (auto _ : state) {
        ds_service_elem_t *element = nullptr;
        ds_db_find_service_element(names[at].c_str(), &element);
        if (element == nullptr) fail("a name was not found");
        benchmark::DoNotOptimize(element);
        at = (at + 1) % names.size();
    }
    report_calls(state, 1);
}

BENCHMARK(fill)->Apply(at_each_size)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(publish_new)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(republish)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(withdraw)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(find)->Apply(at_each_size);

} // namespace

} // namespace ds::bench
