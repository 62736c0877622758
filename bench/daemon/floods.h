// What a user does who wants all of the daemon. Each runs until its process is killed, after it has
// called `begun`; failures throw.
#pragma once
#include <functional>
#include <span>
#include <string>

namespace ds::bench {

using Begun = std::function<void()>;

struct Flood {
    const char *name;
    void (*run)(const std::string &socket, const Begun &begun);
};

std::span<const Flood> floods();

} // namespace ds::bench
