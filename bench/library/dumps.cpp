// Dump responses over a whole database.
#include <cstdlib>

#include "batch.h"

namespace ds::bench {

namespace {

void free_response(ds_dump_resp_info &response) {
    for (std::uint32_t i = 0; i < response.selem_infos_count; i++) {
        std::free(response.selem_infos[i].service_infos);
        std::free(response.selem_infos[i].reg_entries);
    }
    std::free(response.selem_infos);
    for (std::uint32_t i = 0; i < response.client_infos_count; i++) {
        std::free(response.client_infos[i].service_infos);
        std::free(response.client_infos[i].reg_entries);
    }
    std::free(response.client_infos);
}

// Makes and frees one response; returns the services in it.
std::int64_t dump(std::uint32_t request) {
    ds_dump_resp_info response = {};
    response.request_flags = request;
    std::uint32_t elements = 0;
    std::uint32_t clients = 0;
    if (ds_prepare_dump_resp_info(nullptr, nullptr, DS_SCOPE_ANY, &response, &elements, &clients) !=
        0)
        fail("a dump cannot be made");
    std::int64_t services = 0;
    for (std::uint32_t i = 0; i < response.selem_infos_count; i++)
        services += response.selem_infos[i].service_infos_count;
    for (std::uint32_t i = 0; i < response.client_infos_count; i++)
        services += response.client_infos[i].service_infos_count;
    free_response(response);
    return services;
}

void dump_of(benchmark::State &state, std::uint32_t request) {
    Database::of_size(state.range(0));
    // The allocator sorts what the benchmarks before have freed when it is next asked for a large
    // block; the first dump pays for that.
    dump(request);
    for (auto _ : state) {
        std::int64_t services = 0;
        time_batch(state, [&] { services = dump(request); });
        if (services != state.range(0)) fail("a dump is not complete");
    }
    report_calls(state, state.range(0));
}

void dump_services(benchmark::State &state) {
    dump_of(state, DS_DUMP_REQ_SERVICES);
}
void dump_clients(benchmark::State &state) {
    dump_of(state, DS_DUMP_REQ_CLIENTS);
}

BENCHMARK(dump_services)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(dump_clients)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

} // namespace ds::bench
