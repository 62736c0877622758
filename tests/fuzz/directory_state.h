// What can be seen of the directory, as plain values: read from the library's records, and kept by
// the model that the library is compared with.
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "harness.h"

namespace ds::fuzz {

struct ServiceState {
    std::uint32_t id = 0;
    std::uint32_t proc_id = 0;
    std::uint32_t pid = 0;
    const ds_node_t *node = nullptr;
    std::uint32_t gen = 1;
    std::uint32_t scope = 0;             // of the making
    std::optional<std::string> instance; // of the making
    std::string entry;                   // the newest endpoint entry, as text
    std::uint64_t client = 0;            // in whose list it is, 0 for none
    bool operator==(const ServiceState &) const = default;

    bool is_placeholder() const { return proc_id == DS_PROC_ID_FROM_DSR; }
};

struct RegistrationState {
    std::uint64_t cookie = 0;
    std::uint64_t version_told = 0;
    bool operator==(const RegistrationState &) const = default;
};

struct ElementState {
    std::uint64_t version = 0;
    std::deque<ServiceState> services; // newest first
    std::map<RegistrationKey, RegistrationState> registrations;
    bool operator==(const ElementState &) const = default;
};

using Elements = std::map<std::string, ElementState>;

Elements read_directory(ds_db_t *db);
std::string text_of(const Elements &elements);
std::string text_of(const std::map<RegistrationKey, Told> &told);

} // namespace ds::fuzz
