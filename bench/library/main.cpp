// Benchmarks of the library with the default platform, through its public interface only.
//
//   bench_library [--benchmark_filter=REGEX] [--benchmark_out=FILE --benchmark_out_format=json] ...
//
// The sizes of the database are a thousand, a hundred thousand and a million services. Read the
// column per_call: the time of one call, notification or record.
#include <benchmark/benchmark.h>

#include <vector>

int main(int argc, char **argv) {
    // The default is half a second per benchmark; with three sizes each, a fifth is enough for
    // stable figures.
    char min_time[] = "--benchmark_min_time=0.2";
    std::vector<char *> arguments = {argv[0], min_time};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
