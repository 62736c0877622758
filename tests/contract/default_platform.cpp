// The default platform under the common suite.
#include "contract_platform.h"
#include "platform_default/platform_default.h"
#include <cstdlib>
#include <cstring>

namespace contract {

mgd_timer_t *timer_parent() {
    struct owned_parent {
        mgd_timer_t *parent;
        owned_parent() {
            const mgd_timer_loop_t idle_loop = {nullptr, [](void *) -> std::uint64_t { return 1; },
                                                [](void *, mgd_timer_t *, std::uint64_t) {},
                                                [](void *, mgd_timer_t *) {},
                                                [](void *, mgd_timer_t *, std::uint64_t) {}};
            parent = mgd_timer_parent_new(&idle_loop);
        }
        ~owned_parent() { mgd_timer_release(parent); }
    };
    static owned_parent owned;
    return owned.parent;
}

void release_timer(mgd_timer_t *leaf) {
    mgd_timer_release(leaf);
}

void close_channel(void *handle) {
    rtrace_close(handle);
}

void release_copy(void *memory) {
    std::free(memory);
}

std::vector<std::uint8_t> ip_encoding(const std::uint8_t (&octets)[4], std::uint32_t port) {
    std::uint32_t address = 0;
    for (const std::uint8_t octet : octets)
        address = address << 8 | octet;
    std::vector<std::uint8_t> bytes(DS_ENDPOINT_IP_BYTES);
    ds_encode_endpoint(address, port, bytes.data(), DS_ENDPOINT_IP_BYTES);
    return bytes;
}

std::vector<std::uint8_t> path_encoding(const char *path) {
    std::vector<std::uint8_t> bytes(DS_ENDPOINT_PATH_BYTES_MAX);
    const std::int32_t used =
        ds_encode_path(path, std::strlen(path), bytes.data(), DS_ENDPOINT_PATH_BYTES_MAX);
    bytes.resize(used < 0 ? 0 : static_cast<std::size_t>(used));
    return bytes;
}

} // namespace contract
