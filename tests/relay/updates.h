// Updates and addresses in short, for tests.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "platform/dsr.h"
#include "relay/engine.h"
#include "relay/update.h"

namespace relay_test {

inline ds::relay::NodeAddress node(std::uint8_t last) {
    return {0x02, 0, 0, 0, 0, last};
}

// An update of the service with that name and id: an addition of scope system.
inline ds::relay::Update update_of(const std::string &name, std::uint32_t id,
                                   std::uint32_t version = 1) {
    ds::relay::Update update;
    update.operation = DSR_ADD;
    update.name = name;
    update.service_id = id;
    update.instance = ";";
    update.scope = DSR_SCOPE_SYSTEM;
    update.pid = 77;
    update.version = version;
    update.endpoint = std::string("\x0a\x00\x00\x01\x00\x00\x1f\x90", 8);
    return update;
}

} // namespace relay_test
