// Registration operations: a client's interest in a name, taken and given up. Nobody is notified
// here.

#include "ds_trace.h"

extern "C" {

int ds_db_add_new_registration(const char *service_name, ds_client_t *client, uint64_t reg_value,
                               ds_client_reg_t **reg_out) {
    if (service_name == NULL || client == NULL || reg_out == NULL || ds_db_context() == NULL)
        return -1;
    int result = 0;
    ds_service_elem_t *selem = NULL;
    ds_db_find_service_element(service_name, &selem);
    if (selem == NULL) {
        result = ds_db_init_service_element(service_name, &selem);
        if (result != 0 || selem == NULL) {
            DS_TRACE(DS_SERVICE_REG_INIT, ds_client_pid(client),
                     reinterpret_cast<void *>(client->client_hdl), service_name);
            return result;
        }
        result = ds_db_add_service_element(selem);
        if (result != 0) {
            ds_db_free_service_element(selem);
            return result;
        }
    }

    ds_client_reg_t *reg = NULL;
    ds_db_init_client_registration(client, service_name, reg_value, &reg);
    if (reg == NULL) {
        DS_TRACE(DS_CLIENT_REG_INIT, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), service_name);
        return -1;
    }
    ds_db_add_client_registration(reg, client, selem);
    *reg_out = reg;
    return result;
}

int ds_db_delete_registration(const char *service_name, ds_client_t *client, uint32_t handle) {
    if (service_name == NULL || client == NULL || ds_db_context() == NULL) return -1;
    ds_service_elem_t *selem = NULL;
    if (ds_db_find_service_element(service_name, &selem) != 0 || selem == NULL) {
        DS_TRACE(DS_DB_FIND_SERVICE_ELEM, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), service_name);
        return -1;
    }
    ds_client_reg_t *next = NULL;
    for (ds_client_reg_t *reg = ds_service_get_client_reg_list_head(selem); reg != NULL;
         reg = next) {
        next = ds_service_get_next_in_client_reg_list(reg);
        if (reg->client == client && reg->handle == handle) {
            ds_db_delete_client_registration(reg);
            return 0;
        }
    }
    DS_TRACE(DS_DB_FIND_REG_HDL, ds_client_pid(client),
             reinterpret_cast<void *>(client->client_hdl), service_name, handle);
    return -1;
}
}
