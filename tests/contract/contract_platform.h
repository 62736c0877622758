// What the common suite needs from the platform under test and cannot ask it for through the
// platform interfaces. Each program of the suite links one implementation.
#pragma once
#include "platform/mgd_timer.h"
#include <cstdint>
#include <vector>

namespace contract {

// A parent for mgd_timer_leaf_new.
mgd_timer_t *timer_parent();
// Frees a leaf that a test made.
void release_timer(mgd_timer_t *leaf);
// Frees what memdup returned.
void release_copy(void *memory);
// Closes a trace channel that a test opened.
void close_channel(void *handle);
// This platform's encodings of an IPv4 endpoint (octets in printing order) and of a path.
std::vector<std::uint8_t> ip_encoding(const std::uint8_t (&octets)[4], std::uint32_t port);
std::vector<std::uint8_t> path_encoding(const char *path);

} // namespace contract
