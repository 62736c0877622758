// Node records: from an Ethernet address to the node id that every service carries.

#include "ds_internal.h"

#include <stdlib.h>

namespace {

constexpr uint64_t addr_bytes = 6;
constexpr uint64_t stand_in_mask = 127;

ds_node_t *make_node(const uint8_t *address) {
    ds_node_t *node = static_cast<ds_node_t *>(calloc(1, sizeof(ds_node_t)));
    if (node == NULL) return NULL;
    node->addr = static_cast<uint8_t *>(memdup(address, addr_bytes));
    if (node->addr == NULL) {
        free(node);
        return NULL;
    }
    snprintf(node->name, sizeof node->name, "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1],
             address[2], address[3], address[4], address[5]);
    return node;
}

// Stands in for a record that could not be made. It names no record and is kept nowhere.
uint64_t stand_in(const uint8_t *address) {
    return ds_hash_string(address, addr_bytes) & stand_in_mask;
}

} // namespace

extern "C" {

uint64_t platform_get_nodeid_from_ethaddr(const uint8_t *address) {
    if (address == NULL) return 0;
    ds_db_t *db = ds_db_context();
    if (db == NULL) return stand_in(address);
    void *known = vanto_protected_hashtable_get(&db->node_table, address);
    if (known != NULL) return reinterpret_cast<uint64_t>(known);
    ds_node_t *node = make_node(address);
    if (node == NULL) return stand_in(address);
    if (vanto_protected_hashtable_put(&db->node_table, node->addr, node) != 0) {
        free(node->addr);
        free(node);
        return stand_in(address);
    }
    return reinterpret_cast<uint64_t>(node);
}

const char *ds_peer_addr_text(const uint8_t *address) {
    static char text[16];
    if (address == NULL) return "";
    snprintf(text, sizeof text, "%02x%02x:%02x%02x:%02x%02x", address[0], address[1], address[2],
             address[3], address[4], address[5]);
    return text;
}
}
