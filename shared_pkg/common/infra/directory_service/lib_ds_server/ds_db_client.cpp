// The client table: arrival, departure, look-ups.

#include "ds_db_lock.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr size_t client_name_bytes = sizeof(ds_client_t::name);

// Indexes are given out one after the other, so the newest clients each have a place of their own.
ds_client_t **place_of(ds_db_t *db, uint32_t client_idx) {
    return &db->found_clients[client_idx % DS_FOUND_CLIENTS];
}

void forget(ds_db_t *db, const ds_client_t *client) {
    ds_client_t **place = place_of(db, client->client_idx);
    if (*place == client) *place = NULL;
}

bool is_listed(const ds_client_t *client) {
    return client->client_link.next != NULL || client->client_link.prev != NULL;
}

// Clients of one process stand together: a new one goes directly behind the first of its process,
// else to the head.
void link_beside_its_process(ds_db_t *db, ds_client_t *client) {
    const long pid = ds_client_pid(client);
    dbly_linkage_t *after = &db->client_list;
    for (ds_client_t *other = ds_client_get_client_list_head(); other != NULL;
         other = ds_client_get_next_in_client_list(other)) {
        if (ds_client_pid(other) == pid) {
            after = &other->client_link;
            break;
        }
    }
    dbly_linkage_link(after, &client->client_link);
}

// The text behind the last slash; the whole text when its only slash is the first character.
const char *last_path_component(const char *path) {
    for (size_t at = strlen(path) - 1; at > 0; at--)
        if (path[at] == '/') return path + at + 1;
    return path;
}

void name_after_its_process(ds_client_t *client) {
    ds_client_name_fn name_of =
        reinterpret_cast<ds_client_name_fn>(ds_slot(DS_GLOBAL_SLOT_CLIENT_NAME));
    if (name_of == NULL) return;
    const char *path = name_of(client->client_hdl);
    if (path == NULL || path[0] == '\0') return;
    snprintf(client->name, client_name_bytes, "%s", last_path_component(path));
}

} // namespace

extern "C" {

int ds_db_init_client(ds_client_t **client_out) {
    ds_db_t *db = ds_db_context();
    if (client_out == NULL || db == NULL) return -1;
    ds_client_t *client = static_cast<ds_client_t *>(chunk_malloc(db->client_pool));
    if (client == NULL) return -1;
    memset(client, 0, sizeof *client);
    *client_out = client;
    return 0;
}

int ds_db_free_client(ds_client_t *client) {
    ds_db_t *db = ds_db_context();
    if (client == NULL || db == NULL) return -1;
    forget(db, client);
    chunk_free(db->client_pool, client);
    return 0;
}

int ds_db_add_client(ds_client_t *client) {
    ds_db_t *db = ds_db_context();
    if (client == NULL || db == NULL || is_listed(client)) return -1;
    ds_db_lock lock(db);
    db->client_idx_counter++;
    db->clients_added++;
    db->last_client_add_time = fts_get_stamp_fast();
    client->client_idx = db->client_idx_counter;
    link_beside_its_process(db, client);
    *place_of(db, client->client_idx) = client;
    if (client->name[0] == '\0') name_after_its_process(client);
    return 0;
}

int ds_db_delete_client(ds_client_t *client) {
    ds_db_t *db = ds_db_context();
    if (client == NULL || db == NULL) return -1;
    db->clients_deleted++;
    db->last_client_delete_time = fts_get_stamp_fast();
    {
        ds_db_lock lock(db);
        dbly_linkage_delink(&client->client_link);
        forget(db, client);
    }

    // Registrations go first, so that the client is not told of its own services going.
    ds_client_reg_t *next_reg = NULL;
    for (ds_client_reg_t *reg = ds_client_get_client_reg_list_head(client); reg != NULL;
         reg = next_reg) {
        next_reg = ds_client_get_next_in_client_reg_list(reg);
        ds_db_delete_client_registration(reg);
    }
    ds_service_t *next_service = NULL;
    for (ds_service_t *service = ds_client_get_service_list_head(client); service != NULL;
         service = next_service) {
        next_service = ds_client_get_next_in_service_list(service);
        ds_db_handle_service_down(service, client);
    }
    ds_db_free_client(client);
    return 0;
}

ds_client_t *ds_db_find_client_by_client_hdl(uint64_t client_hdl) {
    ds_client_t *client = ds_client_get_client_list_head();
    while (client != NULL && client->client_hdl != client_hdl)
        client = ds_client_get_next_in_client_list(client);
    return client;
}

ds_client_t *ds_db_find_client_by_client_idx(uint32_t client_idx) {
    ds_db_t *db = ds_db_context();
    if (db == NULL) return NULL;
    ds_client_t **place = place_of(db, client_idx);
    if (*place != NULL && (*place)->client_idx == client_idx) return *place;
    ds_client_t *client = ds_client_get_client_list_head();
    while (client != NULL && client->client_idx != client_idx)
        client = ds_client_get_next_in_client_list(client);
    if (client != NULL) *place = client;
    return client;
}

uint32_t ds_db_get_client_count(const char *name) {
    uint32_t count = 0;
    for (ds_client_t *client = ds_client_get_client_list_head(); client != NULL;
         client = ds_client_get_next_in_client_list(client))
        if (name == NULL || strncmp(client->name, name, client_name_bytes) == 0) count++;
    return count;
}

void *ds_db_client_iter(ds_client_iter_fn fn, void *ctx) {
    if (fn == NULL) return NULL;
    for (ds_client_t *client = ds_client_get_client_list_head(); client != NULL;
         client = ds_client_get_next_in_client_list(client))
        fn(client, ctx);
    return NULL;
}

long ds_client_pid(ds_client_t *client) {
    ds_client_pid_fn pid_of =
        reinterpret_cast<ds_client_pid_fn>(ds_slot(DS_GLOBAL_SLOT_CLIENT_PID));
    return client == NULL || pid_of == NULL ? 0 : pid_of(client->client_hdl);
}

int ds_client_get_name(ds_client_t *client, char *buffer, size_t size) {
    if (client == NULL || (buffer == NULL && size != 0)) return -1;
    return snprintf(buffer, size, "%s", client->name);
}

/* ---- list accessors ---- */

ds_client_t *ds_client_get_client_list_head(void) {
    ds_db_t *db = ds_db_context();
    return db == NULL ? NULL : DBLY_RECORD(db->client_list.next, ds_client_t, client_link);
}

ds_client_t *ds_client_get_next_in_client_list(ds_client_t *client) {
    return client == NULL ? NULL : DBLY_RECORD(client->client_link.next, ds_client_t, client_link);
}

ds_service_t *ds_client_get_service_list_head(ds_client_t *client) {
    return client == NULL ? NULL
                          : DBLY_RECORD(client->service_list.next, ds_service_t, client_link);
}

ds_service_t *ds_client_get_next_in_service_list(ds_service_t *service) {
    return service == NULL ? NULL
                           : DBLY_RECORD(service->client_link.next, ds_service_t, client_link);
}

ds_client_reg_t *ds_client_get_client_reg_list_head(ds_client_t *client) {
    return client == NULL ? NULL : DBLY_RECORD(client->reg_list.next, ds_client_reg_t, client_link);
}

ds_client_reg_t *ds_client_get_next_in_client_reg_list(ds_client_reg_t *reg) {
    return reg == NULL ? NULL : DBLY_RECORD(reg->client_link.next, ds_client_reg_t, client_link);
}

ds_service_t *ds_service_get_service_list_head(ds_service_elem_t *selem) {
    return selem == NULL ? NULL : DBLY_RECORD(selem->service_list.next, ds_service_t, selem_link);
}

ds_service_t *ds_service_get_next_in_service_list(ds_service_t *service) {
    return service == NULL ? NULL : DBLY_RECORD(service->selem_link.next, ds_service_t, selem_link);
}

ds_client_reg_t *ds_service_get_client_reg_list_head(ds_service_elem_t *selem) {
    return selem == NULL ? NULL : DBLY_RECORD(selem->reg_list.next, ds_client_reg_t, selem_link);
}

ds_client_reg_t *ds_service_get_next_in_client_reg_list(ds_client_reg_t *reg) {
    return reg == NULL ? NULL : DBLY_RECORD(reg->selem_link.next, ds_client_reg_t, selem_link);
}
}
