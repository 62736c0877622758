/* Readers of a publish info, and names for people. Nothing here changes its arguments. */
#ifndef PLATFORM_DS_COMMON_H
#define PLATFORM_DS_COMMON_H
#include "platform/vidl.h"
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Scope of the first entry; 0 when there is no entry. */
uint32_t ds_get_scope(const ds_service_publish_info *info);

/* Instance of the first entry when its presence bit is set, else null; owned by the info. */
const char *ds_get_instance(const ds_service_publish_info *info);

/* Number of entries; 0 for null. */
uint32_t ds_get_service_endpoint_count(const ds_service_publish_info *info);

/* DS_EP_TYPE_ of one entry; 0 when there is no such entry. */
uint32_t ds_get_service_ep_type_at(const ds_service_publish_info *info, uint32_t index);

/* One endpoint. The bytes alias the info; the roles and the id are the values of its attributes of
   that type, 0 when absent. 0 = success, -1 = no such index and the outputs are untouched. */
int ds_get_service_publish_info_at(const ds_service_publish_info *info, uint32_t index,
                                   const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope);
int ds_get_service_publish_info_at_v2(const ds_service_publish_info *info, uint32_t index,
                                      const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope,
                                      uint32_t *ha_role);
int ds_get_service_publish_info_at_v5(const ds_service_publish_info *info, uint32_t index,
                                      const uint8_t **ep_bytes, uint64_t *ep_len, uint32_t *scope,
                                      uint32_t *ha_role, uint32_t *issu_role, uint32_t *issu_id);

/* Address (the most significant byte is the first octet) and port of an encoded IP endpoint.
   0 = success; anything else, a path too, is refused and the outputs are untouched. */
int ds_decode_endpoint(const void *bytes, uint64_t length, uint32_t *address, uint32_t *port);

/* Printable text for a service and its instance, which may be null. Never null; good until the next
   call. */
const char *ds_service_instance_name(const char *name, const char *instance);
#ifdef __cplusplus
}
#endif
#endif
