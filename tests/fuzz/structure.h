// What must hold in any directory on the default platform, whatever happened to it.
#pragma once
#include "ds_server_lib.h"

namespace ds::fuzz {

// Ends the run when an invariant is broken: order and count of the tree, links both ways, back
// pointers, hashes, held infos, unique indexes and handles.
void check_structure(ds_db_t *db);

} // namespace ds::fuzz
