// Heap copies.
#include "platform/mem.h"
#include <cstdlib>
#include <cstring>

void *memdup(const void *bytes, size_t length) {
    if (bytes == nullptr) return nullptr;
    void *copy = std::malloc(length == 0 ? 1 : length);
    if (copy != nullptr && length != 0) std::memcpy(copy, bytes, length);
    return copy;
}
