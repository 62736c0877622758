#ifndef PLATFORM_RTRACE_H
#define PLATFORM_RTRACE_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef void *rtrace_handle_t;                     /* opaque channel handle; null = channel not open */
/* opens one channel; 0 = success and *handle_out set, non-zero = failure (caller must treat *handle_out as null) */
int rtrace_open_internal(rtrace_handle_t *handle_out, const char *channel_name, uint32_t buffer_size,
                         uint32_t trace_point_count, const char *source_path, const char *format_id, uint64_t option);
/* writes one record; after format comes one argument per signature letter: 's' const char *, 'd' 32-bit int, 'D' 64-bit long/pointer */
void rtrace_internal(rtrace_handle_t handle, uint32_t trace_point_id, uint32_t record_size, uint32_t has_strings,
                     const char *type_signature, const char *format, ...);
#ifdef __cplusplus
}
#endif
#endif
