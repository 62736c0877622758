// All that can be seen of the directory, as plain values: read from the library's records, and kept
// by the model that the library is compared with. Times are left out.
#pragma once
#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "event.h"

namespace ds::fuzz {

// Counters of an element; the database has the same, but for the last.
enum Count {
    local_added,
    remote_added,
    local_deleted,
    remote_deleted,
    local_updated,
    remote_updated,
    registrations_added,
    registrations_deleted,
    notifications,
    relay_sent,
    remote_changes,
    element_counts
};
enum DatabaseCount {
    clients_added = remote_changes,
    clients_deleted,
    relay_adds,
    relay_deletes,
    relay_modifies,
    relay_received,
    database_counts
};
enum ClientCount {
    client_published,
    client_updated,
    client_deleted,
    client_registered,
    client_unregistered,
    client_notified,
    client_counts
};
enum NodeCount { node_added, node_deleted, node_updated, node_downs, node_counts };

struct ServiceState {
    std::uint32_t id = 0;
    std::uint32_t proc_id = 0;
    std::uint32_t pid = 0;
    const ds_node_t *node = nullptr;
    std::uint32_t gen = 1;
    std::uint32_t relay_gen = 0;
    std::uint32_t flags = 0;
    std::uint32_t scope = 0;             // of the making
    std::optional<std::string> instance; // of the making
    Endpoints endpoints;                 // the newest
    std::uint64_t client = 0;            // in whose list it is, 0 for none
    std::size_t rank = 0;                // place in that list
    bool operator==(const ServiceState &) const = default;

    bool is_placeholder() const { return proc_id == DS_PROC_ID_FROM_DSR; }
};

struct RegistrationState {
    std::uint64_t client = 0;
    std::uint32_t handle = 0;
    std::uint64_t cookie = 0;
    std::uint64_t version_told = 0;
    std::uint32_t times_told = 0;
    bool operator==(const RegistrationState &) const = default;
};

struct ElementState {
    std::uint64_t version = 0;
    std::list<ServiceState> services;           // newest first, as the next
    std::list<RegistrationState> registrations; // of one client in the order of its own list, too
    std::array<std::uint32_t, element_counts> counts = {};
    bool operator==(const ElementState &) const = default;
};

struct ClientState {
    std::uint64_t handle = 0;
    std::uint32_t index = 0;
    std::uint32_t pid = 0;
    std::string name;
    std::uint32_t last_registration = 0;
    std::array<std::uint32_t, client_counts> counts = {};
    bool operator==(const ClientState &) const = default;
};

struct TreeOrder {
    bool operator()(const std::string &a, const std::string &b) const {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    }
};

using Elements = std::map<std::string, ElementState, TreeOrder>;

struct DirectoryState {
    Elements elements;
    std::vector<ClientState> clients; // in the order of their list
    std::map<const ds_node_t *, std::array<std::uint32_t, node_counts>> nodes;
    std::array<std::uint32_t, database_counts> counts = {};
    std::uint32_t last_client_index = 0;
    std::uint32_t next_service_id = 0;
    bool operator==(const DirectoryState &) const = default;
};

DirectoryState read_directory(const ds_db_t *db, const std::vector<ds_node_t *> &nodes);
std::string text_of(const DirectoryState &state);

} // namespace ds::fuzz
