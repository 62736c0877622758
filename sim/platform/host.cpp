#include "sim/platform/host.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ds_server_lib.h"
#include "platform_default/platform_default.h"

namespace ds::sim {

PlatformHost *platform_host = nullptr;

void open_trace_channels(bool are_open) {
    static const int result = ds_server_lib_init(nullptr);
    if (result != 0) std::abort();
    static rtrace_handle_t channel = ds_lib_rtrace[DS_CHANNEL_PUB];
    for (rtrace_handle_t &handle : ds_lib_rtrace)
        handle = are_open ? channel : nullptr;
}

} // namespace ds::sim

using ds::sim::platform_host;

// ---- time ----

uint64_t fts_get_stamp_fast(void) {
    return platform_host != nullptr ? *platform_host->now + 1 : 1;
}

// ---- trace channels: for people only ----

#ifdef __clang__
#pragma clang diagnostic ignored                                                                   \
    "-Wformat-nonliteral" // the library's log points check their arguments themselves
#endif

int rtrace_open_internal(rtrace_handle_t *handle_out, const char *, uint32_t, uint32_t,
                         const char *, const char *, uint64_t) {
    static char channel;
    *handle_out = &channel;
    return 0;
}

void rtrace_internal(rtrace_handle_t, uint32_t, uint32_t, uint32_t, const char *,
                     const char *format, ...) {
    if (platform_host == nullptr || platform_host->trace == nullptr) return;
    if (!platform_host->trace->has_sink()) return;
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::string line = std::string("    . ") + text;
    std::erase(line, '\n');
    platform_host->trace->note(line);
}

// ---- relay ----

int dsr_dsc_send_update(uint32_t operation, const char *service_name, uint32_t service_id,
                        const char *instance, uint32_t scope, uint32_t pid, uint32_t version,
                        const void *ep_bytes, uint32_t ep_len, const void *attr_bytes,
                        uint32_t attr_len, uint32_t) {
    if (platform_host == nullptr || platform_host->engine == nullptr) return -1;
    const dsr_update_t update = {operation, service_name, service_id, instance,   scope,   pid,
                                 version,   ep_bytes,     ep_len,     attr_bytes, attr_len};
    return platform_host->engine->send(update);
}
