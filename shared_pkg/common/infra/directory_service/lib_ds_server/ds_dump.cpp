// Dumps of the whole database, and the per-record trace writers that they and the lifecycle use.

#include "ds_trace.h"

#include <stdlib.h>

namespace {

// What the lines show of one endpoint.
struct endpoint_view {
    uint32_t type = 0;
    const uint8_t *bytes = NULL;
    uint64_t length = 0;
    uint32_t scope = 0;
    uint32_t ha_role = 0;
    uint32_t issu_role = 0;
    uint32_t issu_id = 0;
};

endpoint_view view_endpoint(const ds_service_publish_info *info, uint32_t index) {
    endpoint_view view;
    view.type = ds_get_service_ep_type_at(info, index);
    ds_get_service_publish_info_at_v5(info, index, &view.bytes, &view.length, &view.scope,
                                      &view.ha_role, &view.issu_role, &view.issu_id);
    return view;
}

// The decoded address and port; zeros when the bytes are no endpoint.
vidl_vipc_endpoint_t decode_ip(const endpoint_view &view) {
    vidl_vipc_endpoint_t decoded = {};
    if (vidl_vipc_endpoint_decode_ext(&decoded, view.bytes, view.length, malloc, 0, 0) < 0)
        decoded = {};
    return decoded;
}

// The decoded path, "" when the bytes are none; owned.
class decoded_path {
  public:
    explicit decoded_path(const endpoint_view &view) {
        if (vidl_ds_ep_path_decode_ext(&decoded_, view.bytes, view.length, malloc, 0, 0) < 0)
            decoded_ = {};
    }
    ~decoded_path() { free(decoded_.path); }
    decoded_path(const decoded_path &) = delete;
    decoded_path &operator=(const decoded_path &) = delete;
    const char *text() const { return ds_text(decoded_.path); }

  private:
    vidl_ds_ep_path_t decoded_ = {};
};

} // namespace

extern "C" {

void trace_endpoints(ds_service_t *service, rtrace_handle_t channel) {
    if (service == NULL) return;
    const ds_service_publish_info *info = service->publish_info;
    const uint32_t count = ds_get_service_endpoint_count(info);
    for (uint32_t i = 0; i < count; i++) {
        const endpoint_view ep = view_endpoint(info, i);
        const char *name = ds_text(info->service_name);
        const char *instance = ds_text(service->instance);
        if (ep.type == DS_EP_TYPE_IP) {
            const vidl_vipc_endpoint_t ip = decode_ip(ep);
            DS_TRACE_ON(channel, SERVICE_ENDPOINT_IP, service->service_id, name, instance, i,
                        ds_scope_name(ep.scope), static_cast<int>(ip.address[0]),
                        static_cast<int>(ip.address[1]), static_cast<int>(ip.address[2]),
                        static_cast<int>(ip.address[3]), ip.port, ds_ha_role_name(ep.ha_role),
                        ep.ha_role, ds_issu_role_name(ep.issu_role), ep.issu_role, ep.issu_id);
        } else if (ep.type == DS_EP_TYPE_PATH) {
            const decoded_path path(ep);
            DS_TRACE_ON(channel, SERVICE_ENDPOINT_PATH, service->service_id, name, instance, i,
                        ds_scope_name(ep.scope), path.text(), ds_ha_role_name(ep.ha_role),
                        ep.ha_role, ds_issu_role_name(ep.issu_role), ep.issu_role, ep.issu_id);
        } else {
            DS_TRACE_ON(channel, SERVICE_ENDPOINT_UNKNOWN, service->service_id, name, instance, i,
                        ds_scope_name(ep.scope), ep.type, ds_ha_role_name(ep.ha_role), ep.ha_role,
                        ds_issu_role_name(ep.issu_role), ep.issu_role, ep.issu_id);
        }
    }
}

void *trace_service_info(ds_service_t *service, void *channel) {
    if (service == NULL) return NULL;
    const ds_service_publish_info *info = service->publish_info;
    const ds_service_elem_t *selem = service->selem;
    const uint32_t count = ds_get_service_endpoint_count(info);
    for (uint32_t i = 0; i < count; i++) {
        const endpoint_view ep = view_endpoint(info, i);
        const char *name = ds_text(info->service_name);
        if (ep.type == DS_EP_TYPE_IP) {
            if (i == 0)
                DS_TRACE_ON(channel, SERVICE_INFO, name, ds_scope_name(ep.scope), ep.scope, count,
                            selem == NULL ? 0u : selem->nnotifs,
                            selem == NULL ? UINT64_C(0) : selem->selem_version);
            const vidl_vipc_endpoint_t ip = decode_ip(ep);
            DS_TRACE_ON(channel, SERVICE_INFO_ENTRY, i, static_cast<int>(ip.address[0]),
                        static_cast<int>(ip.address[1]), static_cast<int>(ip.address[2]),
                        static_cast<int>(ip.address[3]), ip.port, ds_ha_role_name(ep.ha_role),
                        ep.ha_role, ds_issu_role_name(ep.issu_role), ep.issu_role,
                        ds_scope_name(ep.scope), ep.scope);
        } else if (ep.type == DS_EP_TYPE_PATH) {
            if (i == 0) DS_TRACE_ON(channel, SERVICE_PATH_INFO, name, count);
            const decoded_path path(ep);
            DS_TRACE_ON(channel, SERVICE_PATH_INFO_ENTRY, i, path.text(),
                        ds_ha_role_name(ep.ha_role), ep.ha_role, ds_issu_role_name(ep.issu_role),
                        ep.issu_role, ds_scope_name(ep.scope), ep.scope);
        }
    }
    return NULL;
}

void *trace_client_reg_info(ds_client_reg_t *reg, void *channel) {
    if (reg == NULL || reg->client == NULL || reg->selem == NULL) return NULL;
    DS_TRACE_ON(channel, CLIENT_REG_INFO, ds_client_pid(reg->client),
                reinterpret_cast<void *>(reg->client->client_hdl), reg->selem->name,
                reg->selem->nnotifs, reg->creg_ver);
    return NULL;
}

void ds_db_dump(uint32_t unused) {
    (void)unused;
    DS_TRACE(DS_DUMP);
    DS_TRACE(DS_DUMP_1);
    ds_db_services_iter(trace_service_info, ds_lib_rtrace[DS_CHANNEL_MAIN]);
    DS_TRACE(DS_DUMP_2);
}

void ds_db_reg_dump(uint32_t unused) {
    (void)unused;
    DS_TRACE(DS_REG_DUMP);
    DS_TRACE(DS_REG_DUMP_1);
    ds_db_client_reg_iter(trace_client_reg_info, ds_lib_rtrace[DS_CHANNEL_MAIN]);
    DS_TRACE(DS_REG_DUMP_2);
}
}
