#ifndef PLATFORM_DS_COMMON_H
#define PLATFORM_DS_COMMON_H
#include <stdint.h>
#include "platform/vidl.h"
#ifdef __cplusplus
extern "C" {
#endif
uint32_t    ds_get_scope(const ds_service_publish_info *info);                    /* scope of entry 0; 0 when there is no entry */
const char *ds_get_instance(const ds_service_publish_info *info);                 /* instance of entry 0 when present, else null */
uint32_t    ds_get_service_endpoint_count(const ds_service_publish_info *info);   /* entries_count; 0 for null */
uint32_t    ds_get_service_ep_type_at(const ds_service_publish_info *info, uint32_t index);   /* ep_type of that entry */
/* one endpoint; 0 = success, -1 = no such index (outputs untouched); byte pointers alias the info; an absent role or id reads 0 */
int ds_get_service_publish_info_at(const ds_service_publish_info *info, uint32_t index,
                                   const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope);
int ds_get_service_publish_info_at_v2(const ds_service_publish_info *info, uint32_t index,
                                      const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope, uint32_t *ha_role);
int ds_get_service_publish_info_at_v5(const ds_service_publish_info *info, uint32_t index,
                                      const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope,
                                      uint32_t *ha_role, uint32_t *issu_role, uint32_t *issu_id);
int ds_decode_endpoint(const void *bytes, uint64_t length, uint32_t *address, uint32_t *port);   /* 0 = success; address: most significant byte is the first octet */
const char *ds_service_instance_name(const char *name, const char *instance);     /* printable, never null, instance may be null; static buffer, valid until the next call */
#ifdef __cplusplus
}
#endif
#endif
