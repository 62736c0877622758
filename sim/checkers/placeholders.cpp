#include "sim/checkers/checkers.h"

namespace ds::sim {

std::string find_stale_placeholder(const ds_db_t *db) {
    auto *tree = const_cast<avl_root_t *>(&db->selem_tree);
    for (avl_node_t *node = avl_get_first(tree); node != nullptr; node = avl_get_next(node)) {
        auto *element = reinterpret_cast<ds_service_elem_t *>(node);
        for (ds_service_t *service = ds_service_get_service_list_head(element); service != nullptr;
             service = ds_service_get_next_in_service_list(service))
            if (service->proc_id == DS_PROC_ID_FROM_DSR)
                return std::string("a service of ") + element->name + ", node " +
                       std::to_string(node_of(service)) + ", still waits for its publisher";
    }
    return {};
}

} // namespace ds::sim
