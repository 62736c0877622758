// An update that owns what it holds, for engines that keep updates beyond the call.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "platform_default/platform_default.h"

namespace ds::relay {

struct Update {
    std::uint32_t operation = 0; // DSR_ADD, DSR_MODIFY or DSR_DELETE
    std::string name;
    std::uint32_t service_id = 0;
    std::optional<std::string> instance; // nothing: none
    std::uint32_t scope = 0;             // DSR_SCOPE_RACK or DSR_SCOPE_SYSTEM
    std::uint32_t pid = 0;
    std::uint32_t version = 0;
    std::string endpoint;
    std::string attributes;

    static Update copy_of(const dsr_update_t &update);
    // Points into this update.
    dsr_update_t borrowed() const;

    bool operator==(const Update &) const = default;
};

} // namespace ds::relay
