// Display names of the codes that log lines and dumps print.

#include "ds_internal.h"

namespace {

template <uint32_t N>
const char *name_of(const char *const (&names)[N], uint32_t value, const char *otherwise) {
    return value < N && names[value] != NULL ? names[value] : otherwise;
}

constexpr uint32_t node_stand_in_max = 127; // ids up to here name no record

} // namespace

extern "C" {

const char *ds_scope_name(uint32_t scope) {
    static const char *const names[] = {NULL, "RACK", "SYSTEM", "LOCAL"};
    return name_of(names, scope, "UNKNOWN");
}

const char *ds_ha_role_name(uint32_t role) {
    static const char *const names[] = {NULL, "ACTIVE", "STANDBY"};
    return name_of(names, role, "UNKNOWN");
}

const char *ds_issu_role_name(uint32_t role) {
    static const char *const names[] = {NULL, "PRIMARY", "SECONDARY", "TERTIARY"};
    return name_of(names, role, "UNKNOWN");
}

const char *dsr_op_name(uint32_t operation) {
    static const char *const names[] = {"DSR_NOOP  ", "DSR_ADD   ", "DSR_MODIFY", "DSR_DELETE"};
    return name_of(names, operation, "UNKNOWN   ");
}

const char *dsr_scope_name(uint32_t scope) {
    static const char *const names[] = {"DSR_SCOPE_NONE", "DSR_SCOPE_RACK", "DSR_SCOPE_SYSTEM",
                                        "DSR_SCOPE_NODE"};
    return name_of(names, scope, NULL);
}

const char *dsr_scope_name_padded(uint32_t scope) {
    static const char *const names[] = {"DSR_SCOPE_NONE  ", "DSR_SCOPE_RACK  ", "DSR_SCOPE_SYSTEM",
                                        "DSR_SCOPE_NODE  "};
    return name_of(names, scope, NULL);
}

int ds_node_is_record(const ds_node_t *node) {
    return reinterpret_cast<uintptr_t>(node) > node_stand_in_max;
}

const char *ds_node_name(const ds_node_t *node) {
    return ds_node_is_record(node) ? node->name : "UNKNOWN";
}
}
