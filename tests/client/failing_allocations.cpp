#include "failing_allocations.h"

#include <cstdlib>
#include <new>

namespace client_test {

long allocations_left = -1;

} // namespace client_test

void *operator new(std::size_t bytes) {
    long &left = client_test::allocations_left;
    const bool is_refused = left >= 0 && left-- == 0;
    void *memory = is_refused ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void *memory) noexcept {
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}
