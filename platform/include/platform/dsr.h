/* The way of local changes to the relay. */
#ifndef PLATFORM_DSR_H
#define PLATFORM_DSR_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
enum { DSR_NOOP = 0, DSR_ADD = 1, DSR_MODIFY = 2, DSR_DELETE = 3 };
enum { DSR_SCOPE_NONE = 0, DSR_SCOPE_RACK = 1, DSR_SCOPE_SYSTEM = 2, DSR_SCOPE_NODE = 3 };
/* Hands one update to the relay: a DSR_ operation on an instance of service_name. instance is null
   when there is none; the endpoint and attribute bytes are those of the first entry, null or of
   length 0 when there are none. All pointers are good only during the call, which must not call
   back into the library. The result is for other callers: the library ignores it. */
int dsr_dsc_send_update(uint32_t operation, const char *service_name, uint32_t service_id,
                        const char *instance, uint32_t scope, uint32_t pid, uint32_t version,
                        const void *ep_bytes, uint32_t ep_len, const void *attr_bytes,
                        uint32_t attr_len, uint32_t zero);
#ifdef __cplusplus
}
#endif
#endif
