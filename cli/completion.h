// The completion script, made of the very options that the parser reads.
#pragma once
#include <string>

namespace CLI {
class App;
}

namespace ds::cli {

// A script for bash. `all` has every verb with its options.
std::string bash_completion(const CLI::App &all);

} // namespace ds::cli
