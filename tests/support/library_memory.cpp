// What the library calls instead of malloc, calloc, free, the mutex functions and gettimeofday.
//
// The symbols are renamed in a copy of the library's archive (library_symbols.txt), so these
// functions see the library's calls and no others. `free` handed to the platform as a callback
// is renamed with the rest.
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <map>

#include "recording.h"

namespace recording {
namespace {

struct Block {
    size_t size;
    uint64_t serial;
};

std::map<const void *, Block> blocks;
uint64_t next_serial;
uint32_t locks_held;
timeval wall_clock;
bool has_wall_clock;

} // namespace

void *track_allocation(void *memory, size_t size) {
    if (memory != nullptr) blocks[memory] = Block{size, ++next_serial};
    return memory;
}

size_t live_allocations() {
    return blocks.size();
}

std::vector<Allocation> allocations() {
    std::vector<Allocation> result;
    for (const auto &[memory, block] : blocks)
        result.push_back({const_cast<void *>(memory), block.size, block.serial});
    return result;
}

bool is_live(const void *memory, uint64_t serial) {
    const auto found = blocks.find(memory);
    return found != blocks.end() && found->second.serial == serial;
}

uint64_t serial_of(const void *memory) {
    const auto found = blocks.find(memory);
    return found == blocks.end() ? 0 : found->second.serial;
}

void *host_malloc(size_t size) {
    return track_allocation(calloc(1, size == 0 ? 1 : size), size);
}

void host_free(void *memory) {
    blocks.erase(memory);
    free(memory);
}

void release_all_allocations() {
    for (const auto &[memory, block] : blocks)
        free(const_cast<void *>(memory));
    blocks.clear();
}

void set_wall_clock(const timeval &now) {
    wall_clock = now;
    has_wall_clock = true;
}

uint32_t lock_depth() {
    return locks_held;
}

void reset_memory() {
    release_all_allocations();
    has_wall_clock = false;
    locks_held = 0;
}

} // namespace recording

using namespace recording;

extern "C" {

void *ds_test_malloc(size_t size) {
    const bool fails = should_fail("malloc").fails;
    note("malloc(" + std::to_string(size) + ")" + (fails ? " = null" : ""));
    return fails ? nullptr : track_allocation(malloc(size), size);
}

void *ds_test_calloc(size_t count, size_t size) {
    const bool is_spared = take_spared(size);
    const bool fails = should_fail("calloc").fails && !is_spared;
    note("calloc(" + std::to_string(count) + ", " + std::to_string(size) + ")" +
         (is_spared ? " spared"
          : fails   ? " = null"
                    : ""));
    return fails ? nullptr : track_allocation(calloc(count, size), count * size);
}

void ds_test_free(void *memory) {
    if (memory == nullptr) return;
    note("free()");
    host_free(memory);
}

int ds_test_pthread_mutexattr_init(pthread_mutexattr_t *attributes) {
    note("pthread_mutexattr_init()");
    const Failure failure = should_fail("pthread_mutexattr_init");
    return failure.fails ? failure.result : pthread_mutexattr_init(attributes);
}

int ds_test_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    note("pthread_mutex_init()");
    const Failure failure = should_fail("pthread_mutex_init");
    return failure.fails ? failure.result : pthread_mutex_init(mutex, attributes);
}

int ds_test_pthread_mutex_lock(pthread_mutex_t *mutex) {
    note("lock()");
    if (locks_held != 0) {
        misuse("the mutex is locked twice");
        return EDEADLK;
    }
    ++locks_held;
    return pthread_mutex_lock(mutex);
}

int ds_test_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    note("unlock()");
    if (locks_held == 0) {
        misuse("the mutex is unlocked twice");
        return EPERM;
    }
    --locks_held;
    return pthread_mutex_unlock(mutex);
}

int ds_test_gettimeofday(timeval *now, void *zone) {
    if (!has_wall_clock) return gettimeofday(now, static_cast<struct timezone *>(zone));
    *now = wall_clock;
    return 0;
}

} // extern "C"
