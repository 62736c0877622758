// Client registrations: one client's interest in one service name.

#include "ds_db_lock.h"
#include "ds_trace.h"

#include <string.h>

namespace {

struct registration_walk {
    ds_client_reg_iter_fn fn;
    void *ctx;
};

int visit_registrations(void *selem, void *arg) {
    const registration_walk *walk = static_cast<const registration_walk *>(arg);
    for (ds_client_reg_t *reg =
             ds_service_get_client_reg_list_head(static_cast<ds_service_elem_t *>(selem));
         reg != NULL; reg = ds_service_get_next_in_client_reg_list(reg))
        walk->fn(reg, walk->ctx);
    return 1;
}

} // namespace

extern "C" {

int ds_db_init_client_registration(ds_client_t *client, const char *name, uint64_t reg_arg,
                                   ds_client_reg_t **reg_out) {
    ds_db_t *db = ds_db_context();
    if (client == NULL || name == NULL || reg_out == NULL || db == NULL) return -1;
    ds_client_reg_t *reg = static_cast<ds_client_reg_t *>(chunk_malloc(db->client_reg_pool));
    if (reg == NULL) return -1;
    memset(reg, 0, sizeof *reg);
    reg->client = client;
    reg->handle = ++client->reg_handle_counter;
    reg->reg_arg = reg_arg;
    reg->name_hash = ds_hash_string(name, strlen(name));
    reg->created_time = fts_get_stamp_fast();
    *reg_out = reg;
    return 0;
}

int ds_db_free_client_registration(ds_client_reg_t *reg) {
    ds_db_t *db = ds_db_context();
    if (reg == NULL || db == NULL) return -1;
    chunk_free(db->client_reg_pool, reg);
    return 0;
}

int ds_db_add_client_registration(ds_client_reg_t *reg, ds_client_t *client,
                                  ds_service_elem_t *selem) {
    ds_db_t *db = ds_db_context();
    if (reg == NULL || client == NULL || selem == NULL || db == NULL) return -1;
    DS_TRACE(DS_ADD_CLIENT_REG, ds_client_pid(client), reinterpret_cast<void *>(client->client_hdl),
             selem->name, reg->handle);
    ds_db_lock lock(db);
    dbly_linkage_link(&selem->reg_list, &reg->selem_link);
    dbly_linkage_link(&client->reg_list, &reg->client_link);
    reg->selem = selem;
    db->registrations_added++;
    selem->registrations_added++;
    client->registrations_added++;
    client->last_activity_time = fts_get_stamp_fast();
    selem->last_reg_time = client->last_activity_time;
    return 0;
}

int ds_db_delete_client_registration(ds_client_reg_t *reg) {
    ds_db_t *db = ds_db_context();
    if (reg == NULL || reg->client == NULL || reg->selem == NULL || db == NULL) return -1;
    ds_client_t *client = reg->client;
    ds_service_elem_t *selem = reg->selem;
    DS_TRACE(DS_DELETE_CLIENT_REG, ds_client_pid(client),
             reinterpret_cast<void *>(client->client_hdl), selem->name, reg->handle);
    {
        ds_db_lock lock(db);
        db->registrations_deleted++;
        selem->registrations_deleted++;
        client->registrations_deleted++;
        client->last_activity_time = fts_get_stamp_fast();
        selem->last_unreg_time = client->last_activity_time;
        dbly_linkage_delink(&reg->client_link);
        dbly_linkage_delink(&reg->selem_link);
    }
    ds_db_free_client_registration(reg);
    return 0;
}

int ds_db_client_reg_iter(ds_client_reg_iter_fn fn, void *ctx) {
    ds_db_t *db = ds_db_context();
    if (fn == NULL || db == NULL) return -1;
    registration_walk walk = {fn, ctx};
    return avl_walk(&db->selem_tree, visit_registrations, &walk);
}
}
