// One record into a trace ring of the size that the library's channels have, in anonymous memory.
#include "batch.h"
#include "platform/rtrace.h"
#include "platform_default/platform_default.h"

namespace ds::bench {

namespace {

constexpr std::uint32_t ring_bytes = 0x100000;
constexpr std::uint32_t points = 8;
constexpr char name[] = "bench/service/00000042";

class Channel {
  public:
    Channel() {
        const int result = rtrace_open_internal(&handle_, "bench", ring_bytes, points, "bench",
                                                "00000000000000000000000000000000", 0);
        if (result != 0) fail("a trace channel cannot be opened");
    }
    ~Channel() { rtrace_close(handle_); }
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    rtrace_handle_t handle() const { return handle_; }

  private:
    rtrace_handle_t handle_ = nullptr;
};

void trace_without_arguments(benchmark::State &state) {
    const Channel channel;
    for (auto _ : state)
        rtrace_internal(channel.handle(), 1, 0, 0, "", "text");
    report_calls(state, 1);
}

void trace_of_numbers(benchmark::State &state) {
    const Channel channel;
    for (auto _ : state)
        rtrace_internal(channel.handle(), 2, 24, 0, "dDd", "%d %ld %d", 1, 2L, 3);
    report_calls(state, 1);
}

// As wide as the record that a publication leaves.
void trace_of_a_publication(benchmark::State &state) {
    const Channel channel;
    for (auto _ : state)
        rtrace_internal(channel.handle(), 3, 0, 1, "DDssdDss", "%ld %p %s %s %d %lu %s %s", 4711L,
                        17L, name, "SYSTEM", 1, 2L, "02:00:00:00:00:01", "new");
    report_calls(state, 1);
}

BENCHMARK(trace_without_arguments);
BENCHMARK(trace_of_numbers);
BENCHMARK(trace_of_a_publication);

} // namespace

} // namespace ds::bench
