// What the library tells its surroundings, as plain values in the order in which it does: to the
// host's callbacks and to the relay.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ds_server_lib.h"
#include "platform_default/platform_default.h"

namespace ds::fuzz {

struct Attribute {
    std::int32_t type = 0;
    std::uint32_t value = 0;
    bool operator==(const Attribute &) const = default;
};

// One entry of a publish info.
struct Endpoint {
    std::uint32_t type = 0;
    std::string address; // the encoded bytes
    std::uint32_t scope = 0;
    std::optional<std::string> instance;
    std::vector<Attribute> attributes;
    bool operator==(const Endpoint &) const = default;
};

using Endpoints = std::vector<Endpoint>;

struct Event {
    enum Kind { hook, deletion, message, update };
    Kind kind = hook;
    std::uint64_t client = 0;    // of a deletion or a message, with the next two
    std::uint32_t handle = 0;    // of the registration
    std::uint64_t cookie = 0;    // of the registration
    std::uint32_t operation = 0; // of an update, with the next three
    std::uint32_t id = 0;
    std::uint32_t pid = 0;
    std::uint32_t version = 0;
    std::string name;
    Endpoints endpoints; // what is live; of an update the one that goes out
    bool operator==(const Event &) const = default;
};

Endpoint read_endpoint(const ds_service_info_t &entry);
Endpoints read_endpoints(const ds_service_publish_info &info);
Event read_message(Event::Kind kind, std::uint64_t client, const ds_notif_msg &message);
Event read_update(const dsr_update_t &update);

std::string text_of(const Endpoints &endpoints);
std::string text_of(const std::vector<Event> &events); // a line each

} // namespace ds::fuzz
