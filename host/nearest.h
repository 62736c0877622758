// What somebody may have meant to write.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace ds::host {

// "did you mean 'socket'?" when one of the known words is close, else all of them: "known are a,
// b".
std::string suggest(std::string_view written, const std::vector<std::string> &known);

} // namespace ds::host
