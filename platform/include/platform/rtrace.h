/* Trace channels: fixed-size rings of binary records. */
#ifndef PLATFORM_RTRACE_H
#define PLATFORM_RTRACE_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef void *rtrace_handle_t; /* opaque channel handle; null = channel not open */
/* Opens the channel of that name with a buffer of buffer_size bytes. trace_point_count is one more
   than the highest point id; format_id (32 hexadecimal digits) identifies the table of formats, so
   that a reader can find the text of a record; option is the host's. The texts are copied.
   0 = success and *handle_out set, non-zero = failure (treat *handle_out as null). */
int rtrace_open_internal(rtrace_handle_t *handle_out, const char *channel_name,
                         uint32_t buffer_size, uint32_t trace_point_count, const char *source_path,
                         const char *format_id, uint64_t option);

/* Writes one record. After format comes one argument for each letter of type_signature: 's' a
   const char *, copied; 'd' a 32-bit int; 'D' a 64-bit long or pointer. record_size is 4 plus 1 for
   each 'd' plus 2 for each 'D', plus 1 when that reaches 10; has_strings is 1 with an 's', else 0.
   Cannot fail; a null handle is ignored. One thread at a time for each channel. */
void rtrace_internal(rtrace_handle_t handle, uint32_t trace_point_id, uint32_t record_size,
                     uint32_t has_strings, const char *type_signature, const char *format, ...);
#ifdef __cplusplus
}
#endif
#endif
