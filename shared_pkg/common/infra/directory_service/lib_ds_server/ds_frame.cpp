// The frame: global state block, trace channels, console line, string hash, fault message.

#include "ds_trace.h"

#include <cstdarg>
#include <sys/time.h>
#include <time.h>

extern "C" {

ds_globals_t *ds_globals_p = NULL;
rtrace_handle_t ds_lib_rtrace[DS_CHANNEL_COUNT];

extern const zul_msg_rec_t zul_msg_rec_directory_service_duplicated_service = {
    NULL,       "Process %ld published service (%s/%s) from different DS handle.",
    NULL,       "Directory_Service",
    "INFRA",    "DUPLICATED_SERVICE",
    0x30000,    0,
    0x113a0000,
};
}

namespace {

struct trace_channel {
    const char *name;
    uint32_t buffer_bytes;
    const char *failure;
};

constexpr trace_channel channels[DS_CHANNEL_COUNT] = {
    {"pub", 0x100000, "rtrace_open() pub failed\n"},
    {"reg", 0x100000, "rtrace_open() reg failed\n"},
    {"err", 0x40000, "rtrace_open() err failed\n"},
    {"notif", 0x100000, "rtrace_open() notif failed\n"},
    {"main", 0x10000, "rtrace_open() main failed\n"},
};

constexpr char source_path[] = "./quintare/shared_pkg/common/infra/directory_service/lib_ds_server";

} // namespace

extern "C" {

int ds_server_lib_init(const uint64_t *options) {
    for (uint32_t i = 0; i < DS_CHANNEL_COUNT; i++) {
        const uint64_t option = options == NULL ? 0 : options[i];
        if (rtrace_open_internal(&ds_lib_rtrace[i], channels[i].name, channels[i].buffer_bytes,
                                 ds_log::point_count, source_path, ds_log::format_id.data(),
                                 option) != 0) {
            ds_lib_rtrace[i] = NULL;
            fputs(channels[i].failure, stderr);
            return 1;
        }
    }
    return 0;
}

ds_globals_t **ds_globals_set(ds_globals_t *block) {
    ds_globals_p = block;
    return &ds_globals_p;
}

ds_globals_t *ds_globals_get(void) {
    return ds_globals_p;
}

uint64_t ds_hash_string(const void *bytes, uint64_t length) {
    if (bytes == NULL) length = 0;
    const unsigned char *at = static_cast<const unsigned char *>(bytes);
    uint64_t hash = 5381;
    for (uint64_t i = 0; i < length; i++)
        hash = hash * 33 + at[i];
    return hash;
}

const zul_msg_rec_t *zul_msg_rec_directory_service_duplicated_service_getfn(void) {
    return &zul_msg_rec_directory_service_duplicated_service;
}

#ifdef __clang__
#pragma clang diagnostic ignored                                                                   \
    "-Wformat-nonliteral" /* the log point checks its arguments itself */
#endif

void ds_console_line(FILE *console, const char *function, const char *format, ...) {
    struct timeval now;
    struct tm local;
    gettimeofday(&now, NULL);
    localtime_r(&now.tv_sec, &local);
    fprintf(console, "%02d/%02d %02d:%02d:%02d.%03ld %lu %s:", local.tm_mon + 1, local.tm_mday,
            local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(now.tv_usec / 1000),
            static_cast<unsigned long>(pthread_self()), function);

    va_list arguments;
    va_start(arguments, format);
    vfprintf(console, format, arguments);
    va_end(arguments);
    fputc('\n', console);
}
}
