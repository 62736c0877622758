// Names, instances and endpoints as numbers, which the simulator works with, and as the library
// knows them.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace ds::sim {

// Of different lengths, for the tree is ordered by length first.
inline std::string name_text(std::uint32_t name) {
    static constexpr const char *stems[] = {"s", "web.", "a/rather/long/name/"};
    return stems[name % 3] + std::to_string(name);
}

inline std::string instance_text(std::uint32_t instance) {
    return "i" + std::to_string(instance) + ";";
}

// The digits at the end of a name, or before an instance's ';'.
inline std::uint32_t number_in(std::string_view text) {
    if (text.ends_with(';')) text.remove_suffix(1);
    std::uint32_t value = 0, place = 1;
    while (!text.empty() && text.back() >= '0' && text.back() <= '9') {
        value += place * static_cast<std::uint32_t>(text.back() - '0');
        place *= 10;
        text.remove_suffix(1);
    }
    return value;
}

} // namespace ds::sim
