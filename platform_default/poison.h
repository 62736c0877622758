// Marks memory that nobody may touch, in builds with the address sanitizer; nothing elsewhere.
#pragma once
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define DS_POISON_ENABLED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define DS_POISON_ENABLED 1
#endif
#endif
#if !defined(DS_POISON_ENABLED)
#define DS_POISON_ENABLED 0
#endif

#if DS_POISON_ENABLED
#include <sanitizer/asan_interface.h>
#endif

namespace ds::platform {

inline constexpr bool poison_enabled = DS_POISON_ENABLED != 0;

inline void poison([[maybe_unused]] const void *memory, [[maybe_unused]] std::size_t bytes) {
#if DS_POISON_ENABLED
    __asan_poison_memory_region(memory, bytes);
#endif
}

inline void unpoison([[maybe_unused]] const void *memory, [[maybe_unused]] std::size_t bytes) {
#if DS_POISON_ENABLED
    __asan_unpoison_memory_region(memory, bytes);
#endif
}

} // namespace ds::platform
