// One change told to many registrations, the host's part left out: its callbacks do nothing.
#include "batch.h"

namespace ds::bench {

namespace {

constexpr std::uint64_t watcher_process =
    900; // one process: its clients stand together in the list

// Clients that watch one service of the database, one registration each.
class Watchers {
  public:
    Watchers(const std::string &name, std::int64_t count) {
        for (std::int64_t i = 0; i < count; i++) {
            ds_client_t *client = Database::add_client(watcher_process);
            clients_.push_back(client);
            ds_client_reg_t *registration = nullptr;
            ds_db_add_new_registration(name.c_str(), client, static_cast<std::uint64_t>(i),
                                       &registration);
            if (registration == nullptr) fail("a registration was refused");
        }
    }
    ~Watchers() {
        for (ds_client_t *client : clients_)
            ds_db_delete_client(client);
    }
    Watchers(const Watchers &) = delete;
    Watchers &operator=(const Watchers &) = delete;

  private:
    std::vector<ds_client_t *> clients_;
};

void notify(benchmark::State &state) {
    Database &database = Database::of_size(state.range(0));
    const std::string name = service_name(database.size() / 2);
    const Watchers watchers(name, state.range(1));
    ds_service_elem_t *element = nullptr;
    ds_db_find_service_element(name.c_str(), &element);
    if (element == nullptr) fail("the watched name is missing");
    for (auto _ : state) {
        element->selem_version++; // what a change does; a registration is told each version once
        ds_notify(element);
    }
    report_calls(state, state.range(1));
}

void at_each_size_and_audience(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgNames({"services", "registrations"});
    for (const std::int64_t services : {1'000, 100'000, 1'000'000})
        for (const std::int64_t registrations : {1, 100, 10'000})
            benchmark->Args({services, registrations});
}

BENCHMARK(notify)->Apply(at_each_size_and_audience);

} // namespace

} // namespace ds::bench
