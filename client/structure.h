// Structures of the C interface that begin with their size: callers and the library may have been
// compiled with different versions of one, of which the longer only has more at its end.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstring>

namespace ds::client {

// Copies a caller's structure; what it does not have becomes zero. False when it is null, when its
// size is nonsense, or when it uses fields that are not known here.
template <class Structure> bool take_structure(const Structure *given, Structure &taken) {
    constexpr std::size_t bytes_max = 4096;
    if (given == nullptr || given->size < sizeof given->size || given->size > bytes_max)
        return false;
    const auto *bytes = reinterpret_cast<const unsigned char *>(given);
    for (std::size_t i = sizeof taken; i < given->size; i++) {
        if (bytes[i] != 0) return false;
    }
    taken = Structure{};
    std::memcpy(&taken, given, std::min(given->size, sizeof taken));
    return true;
}

// Fills a caller's structure as far as it goes; its size stays. False when it is null or its size
// is nonsense.
template <class Structure> bool give_structure(Structure filled, Structure *wanted) {
    if (wanted == nullptr || wanted->size < sizeof wanted->size) return false;
    filled.size = wanted->size;
    std::memcpy(wanted, &filled, std::min(wanted->size, sizeof filled));
    return true;
}

} // namespace ds::client
