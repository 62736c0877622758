// Instances as people read them.
#pragma once
#include <algorithm>
#include <string>
#include <vector>

#include "sim/world/snapshot.h"

namespace ds::sim {

inline std::string text_of(const Instance &i) {
    static constexpr const char *scopes[] = {"none", "rack", "system", "local"};
    return "node " + std::to_string(i.node) + " pid " + std::to_string(i.pid) + " i" +
           std::to_string(i.instance) + " " + scopes[i.scope % 4] + " endpoint " +
           std::to_string(i.endpoint) + " role " + std::to_string(i.ha_role);
}

// What one has and the other has not; empty when both have the same contents.
inline std::string difference_of(std::vector<Instance> wanted, std::vector<Instance> found) {
    std::sort(wanted.begin(), wanted.end(), has_lesser_contents);
    std::sort(found.begin(), found.end(), has_lesser_contents);
    std::vector<Instance> missing, extra;
    std::set_difference(wanted.begin(), wanted.end(), found.begin(), found.end(),
                        std::back_inserter(missing), has_lesser_contents);
    std::set_difference(found.begin(), found.end(), wanted.begin(), wanted.end(),
                        std::back_inserter(extra), has_lesser_contents);
    std::string text;
    for (const Instance &i : missing)
        text += " lacks [" + text_of(i) + "]";
    for (const Instance &i : extra)
        text += " shows [" + text_of(i) + "]";
    return text;
}

} // namespace ds::sim
