// Answers to dump requests, as plain values: read from a response, and made from the model's state.
#pragma once
#include <string>
#include <vector>

#include "directory_state.h"

namespace ds::fuzz {

struct DumpRequest {
    std::uint32_t flags = 0; // DS_DUMP_REQ_*
    std::optional<std::string> name;
    const ds_node_t *node = nullptr; // null for any
    std::uint32_t scope = DS_SCOPE_ANY;
};

struct DumpedService {
    std::string name;
    Endpoint endpoint;
    const void *node_address = nullptr;
    std::uint32_t id = 0;
    std::uint32_t pid = 0;
    std::uint32_t proc_id = 0;
    bool operator==(const DumpedService &) const = default;
};

struct DumpedRegistration {
    std::string name;
    std::string client_name;
    std::uint32_t pid = 0;
    std::uint32_t times_told = 0;
    bool operator==(const DumpedRegistration &) const = default;
};

// An element or a client.
struct DumpedRecord {
    std::string name;
    std::uint32_t pid = 0;             // of a client
    std::vector<std::uint32_t> counts; // an element's are without its updates
    std::vector<DumpedService> services;
    std::vector<DumpedRegistration> registrations;
    bool operator==(const DumpedRecord &) const = default;
};

struct Dump {
    std::uint32_t elements_counted = 0;
    std::uint32_t clients_counted = 0;
    std::vector<DumpedRecord> elements;
    std::vector<DumpedRecord> clients;
    std::array<std::uint32_t, database_counts> counts = {};
    bool operator==(const Dump &) const = default;
};

// Asks the library.
Dump take_dump(const DumpRequest &request);
// What it has to answer.
Dump expected_dump(const DirectoryState &state, const DumpRequest &request);
// A service with other than one endpoint ends the process that dumps it.
bool can_be_dumped(const DirectoryState &state);

bool is_live(const ServiceState &service, std::uint32_t scope, const ds_node_t *node);
// Names that pass the test; with a name 1 or 0 for the first that `name` begins with.
template <typename Test>
std::uint32_t count_names(const DirectoryState &state, const std::optional<std::string> &name,
                          Test test) {
    std::uint32_t count = 0;
    for (const auto &[own_name, element] : state.elements) {
        if (!name)
            count += test(element) ? 1 : 0;
        else if (name->starts_with(own_name))
            return test(element) ? 1 : 0;
    }
    return count;
}
std::uint32_t published_names(const DirectoryState &state, const std::optional<std::string> &name,
                              std::uint32_t scope, const ds_node_t *node);
std::uint32_t registered_names(const DirectoryState &state, const std::optional<std::string> &name);
std::uint32_t client_count(const DirectoryState &state, const std::optional<std::string> &name);

std::string text_of(const Dump &dump);

} // namespace ds::fuzz
