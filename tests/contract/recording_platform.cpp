// The recording platform under the common suite.
#include "contract_platform.h"
#include "recording.h"

namespace contract {

mgd_timer_t *timer_parent() {
    return recording::new_timer("parent");
}

void release_timer(mgd_timer_t *) {
    recording::reset();
}

void close_channel(void *) {
    recording::reset();
}

void release_copy(void *memory) {
    recording::host_free(memory);
}

std::vector<std::uint8_t> ip_encoding(const std::uint8_t (&octets)[4], std::uint32_t port) {
    return recording::encode_ip(octets, port);
}

std::vector<std::uint8_t> path_encoding(const char *path) {
    return recording::encode_path(path);
}

} // namespace contract
