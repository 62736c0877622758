#ifndef PLATFORM_DSR_H
#define PLATFORM_DSR_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
enum { DSR_NOOP = 0, DSR_ADD = 1, DSR_MODIFY = 2, DSR_DELETE = 3 };
enum { DSR_SCOPE_NONE = 0, DSR_SCOPE_RACK = 1, DSR_SCOPE_SYSTEM = 2, DSR_SCOPE_NODE = 3 };
/* hands one update to the relay; pointers are valid only during the call; the library ignores the result */
int dsr_dsc_send_update(uint32_t operation, const char *service_name, uint32_t service_id, const char *instance,
                        uint32_t scope, uint32_t pid, uint32_t version, const void *ep_bytes, uint32_t ep_len,
                        const void *attr_bytes, uint32_t attr_len, uint32_t zero);
#ifdef __cplusplus
}
#endif
#endif
