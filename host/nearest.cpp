#include "host/nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace ds::host {

namespace {

constexpr std::size_t written_bytes_max = 64; // no known word is that long

// How many letters have to be put in, taken out, replaced or swapped with their neighbour.
std::size_t distance(std::string_view one, std::string_view other) {
    std::vector<std::size_t> before(other.size() + 1), row(other.size() + 1),
        next(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= one.size(); i++) {
        next[0] = i;
        for (std::size_t k = 1; k <= other.size(); k++) {
            const std::size_t replaced = row[k - 1] + (one[i - 1] == other[k - 1] ? 0 : 1);
            next[k] = std::min({replaced, row[k] + 1, next[k - 1] + 1});
            const bool is_swapped =
                i > 1 && k > 1 && one[i - 1] == other[k - 2] && one[i - 2] == other[k - 1];
            if (is_swapped) next[k] = std::min(next[k], before[k - 2] + 1);
        }
        before = std::exchange(row, next);
    }
    return row.back();
}

} // namespace

std::string suggest(std::string_view written, const std::vector<std::string> &known) {
    constexpr std::size_t near = 3; // of words of ten letters and more
    const std::string *best = nullptr;
    std::size_t best_distance = std::min(near, written.size() / 3 + 1) + 1;
    for (const std::string &word : known) {
        if (written.size() > written_bytes_max) break;
        const std::size_t to_word = distance(written, word);
        if (to_word >= best_distance) continue;
        best = &word;
        best_distance = to_word;
    }
    if (best != nullptr) return "did you mean '" + *best + "'?";
    std::string text = "known are ";
    for (const std::string &word : known)
        text += (&word == &known.front() ? "" : ", ") + word;
    return text;
}

} // namespace ds::host
