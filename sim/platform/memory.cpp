// malloc and its like as the library and the platform call them: the linker sends those calls here
// (--wrap), so that each node's blocks are counted and its memory can run out.
#include <cstdlib>

#include "sim/platform/host.h"

namespace {

using ds::sim::platform_host;

bool fails() {
    if (platform_host == nullptr || platform_host->failing_one_in == 0) return false;
    const bool is_failing = platform_host->chance.below(platform_host->failing_one_in) == 0;
    if (is_failing) platform_host->failed++;
    return is_failing;
}

void *counted(void *memory) {
    if (memory != nullptr && platform_host != nullptr) platform_host->heap_blocks++;
    return memory;
}

} // namespace

extern "C" {

void *__real_malloc(std::size_t bytes);
void *__real_calloc(std::size_t count, std::size_t bytes);
void __real_free(void *memory);

void *__wrap_malloc(std::size_t bytes) {
    return fails() ? nullptr : counted(__real_malloc(bytes));
}

void *__wrap_calloc(std::size_t count, std::size_t bytes) {
    return fails() ? nullptr : counted(__real_calloc(count, bytes));
}

void __wrap_free(void *memory) {
    if (memory != nullptr && platform_host != nullptr) platform_host->heap_blocks--;
    __real_free(memory);
}
}
