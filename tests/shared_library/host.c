/* A host in C that knows the public header and nothing else. It publishes a service, lets a second
   client watch it, changes and withdraws it, and prints what the callbacks were told. */
#include "ds_server_lib.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { PUBLISHER = 0x10, WATCHER = 0x20 };
static const uint8_t own_address[6] = {2, 0, 0, 0, 0, 1};
static ds_globals_t globals;

/* ---- callbacks ---- */

static int print_message(const char *what, uint64_t client_hdl, const ds_notif_msg *msg) {
    const ds_service_publish_info *info = &msg->publish_info;
    printf("%s client 0x%x, handle %u, cookie %u: %s", what, (unsigned)client_hdl, msg->reg_handle,
           (unsigned)msg->reg_cookie, info->service_name);
    for (uint32_t i = 0; i < info->entries_count; i++)
        printf(" [%.*s, scope %u, %s]", (int)info->entries[i].ep_addr_len,
               (const char *)info->entries[i].ep_addr, info->entries[i].scope,
               info->entries[i].instance);
    printf("\n");
    return 0;
}

static int on_send(uint64_t client_hdl, ds_notif_msg *msg) {
    return print_message("send to", client_hdl, msg);
}

static int on_delete(uint64_t client_hdl, ds_notif_msg *msg) {
    return print_message("deletion for", client_hdl, msg);
}

static long on_pid(uint64_t client_hdl) {
    return (long)client_hdl + 1000;
}

static const char *on_name(uint64_t client_hdl) {
    return client_hdl == PUBLISHER ? "/usr/bin/publisher" : "/usr/bin/watcher";
}

/* ---- the host's side of the calls ---- */

static void *checked(void *memory) {
    if (memory == NULL) abort();
    return memory;
}

static char *copy_of(const char *text) {
    const size_t size = strlen(text) + 1;
    return memcpy(checked(malloc(size)), text, size);
}

static int start(void) {
    if (ds_server_lib_init(NULL) != 0) return -1;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = (uint64_t)(uintptr_t)on_send;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_DELETE] = (uint64_t)(uintptr_t)on_delete;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_PID] = (uint64_t)(uintptr_t)on_pid;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = (uint64_t)(uintptr_t)on_name;
    ds_globals_set(&globals);
    if (ds_db_init() != 0) return -1;
    globals.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = platform_get_nodeid_from_ethaddr(own_address);
    return 0;
}

static ds_client_t *arrive(uint64_t client_hdl) {
    ds_client_t *client = NULL;
    if (ds_db_init_client(&client) != 0) abort();
    client->client_hdl = client_hdl;
    const int result = ds_db_add_client(client);
    printf("arrive: %d, client %s has index %u\n", result, client->name, client->client_idx);
    return client;
}

static ds_node_t *local_node(void) {
    return (ds_node_t *)(uintptr_t)globals.slot[DS_GLOBAL_SLOT_LOCAL_NODE];
}

static void publish(const ds_client_t *client, const char *path) {
    ds_service_publish_info *info = checked(calloc(1, sizeof *info));
    ds_service_info_t *entry = checked(calloc(1, sizeof *entry));
    VIDL_SET(entry, ep_type, DS_SINFO_BIT_EP_TYPE, DS_EP_TYPE_PATH);
    VIDL_SET_BYTES(entry, ep_addr, DS_SINFO_BIT_EP_ADDR, (uint8_t *)copy_of(path), strlen(path));
    VIDL_SET(entry, scope, DS_SINFO_BIT_SCOPE, DS_SCOPE_LOCAL);
    VIDL_SET(entry, instance, DS_SINFO_BIT_INSTANCE, copy_of("main"));
    VIDL_SET(info, service_name, DS_PINFO_BIT_NAME, copy_of("web"));
    VIDL_SET_ARRAY(info, entries, DS_PINFO_BIT_ENTRIES, entry, 1);
    const int result = ds_db_publish_service(client->client_idx, local_node(), info, NULL);
    printf("publish: %d, held %u\n", result, info->held);
}

static void withdraw(const ds_client_t *client) {
    char name[] = "web";
    ds_service_key_t key;
    VIDL_CLEAR(&key);
    VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, name);
    printf("withdraw: %d\n", ds_db_unpublish_service(client->client_idx, local_node(), &key, NULL));
}

int main(void) {
    if (start() != 0) return 1;
    ds_client_t *publisher = arrive(PUBLISHER);
    ds_client_t *watcher = arrive(WATCHER);
    publish(publisher, "/run/web.1");

    ds_client_reg_t *reg = NULL;
    printf("register: %d\n", ds_db_add_new_registration("web", watcher, 77, &reg));
    ds_notify_client(reg, reg->selem);
    publish(publisher, "/run/web.2");
    printf("services: %u\n", ds_db_get_published_service_count("web", DS_SCOPE_LOCAL));
    withdraw(publisher);
    printf("services: %u\n", ds_db_get_published_service_count("web", DS_SCOPE_LOCAL));
    withdraw(publisher);

    printf("depart: %d\n", ds_db_delete_client(publisher));
    printf("depart: %d\n", ds_db_delete_client(watcher));
    printf("clients: %u\n", ds_db_get_client_count(NULL));
    return 0;
}
