// Walks a database and checks what must always hold.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "ds_server_lib.h"

// Every broken invariant as one line, empty when the database is sound: list links both ways, back
// pointers, the element of each service and registration, tree order and count, name hashes, held
// markers, unique client indexes, unique registration handles per client.
std::vector<std::string> validate(ds_db_t *db);

// Everything that the database can reach: the context, names, held infos with their contents,
// instance copies, node records and pool records.
std::set<const void *> reachable_memory(ds_db_t *db);
