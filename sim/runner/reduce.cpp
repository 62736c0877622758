#include "sim/runner/reduce.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace ds::sim {

namespace {

constexpr std::uint64_t runs_max = 3000;
constexpr Time after_failure = 100 * second;

bool is_same_failure(const Verdict &a, const Verdict &b) {
    return a.ending == b.ending && std::strcmp(a.checker, b.checker) == 0;
}

// Leaves out ever smaller runs of operations for as long as the failure stays.
class Reducer {
  public:
    Reducer(const Plan &plan, const Verdict &verdict, int seconds_max)
        : plan_(plan), seconds_max_(seconds_max) {
        reduced_.verdict = verdict;
        reduced_.kept.resize(plan.ops.size());
        std::iota(reduced_.kept.begin(), reduced_.kept.end(), std::size_t{0});
    }

    Reduced run() {
        if (reduced_.verdict.failed_at != 0) drop_what_came_later();
        for (std::size_t length = std::max<std::size_t>(reduced_.kept.size() / 2, 1);;
             length = std::max<std::size_t>(length / 2, 1)) {
            const bool has_dropped = drop_runs_of(length);
            if (length == 1 && !has_dropped) break;
            if (reduced_.runs > runs_max) break;
        }
        return std::move(reduced_);
    }

  private:
    void drop_what_came_later() {
        std::vector<std::size_t> earlier;
        for (const std::size_t i : reduced_.kept)
            if (plan_.ops[i].at <= reduced_.verdict.failed_at) earlier.push_back(i);
        keep_if_it_fails(std::move(earlier));
    }

    bool drop_runs_of(std::size_t length) {
        bool has_dropped = false;
        for (std::size_t begin = 0; begin < reduced_.kept.size();) {
            const std::size_t end = std::min(begin + length, reduced_.kept.size());
            std::vector<std::size_t> fewer = reduced_.kept;
            fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(begin),
                        fewer.begin() + static_cast<std::ptrdiff_t>(end));
            if (keep_if_it_fails(std::move(fewer)))
                has_dropped = true;
            else
                begin = end;
            if (reduced_.runs > runs_max) return false;
        }
        return has_dropped;
    }

    bool keep_if_it_fails(std::vector<std::size_t> kept) {
        if (kept.size() == reduced_.kept.size()) return false;
        reduced_.runs++;
        const Verdict verdict = run_apart(plan_with(plan_, kept), seconds_max_);
        if (!is_same_failure(verdict, reduced_.verdict)) return false;
        reduced_.kept = std::move(kept);
        reduced_.verdict = verdict;
        return true;
    }

    const Plan &plan_;
    const int seconds_max_;
    Reduced reduced_;
};

} // namespace

// What comes behind the last operation is a calm, or long enough to see what became of it.
Plan plan_with(const Plan &plan, const std::vector<std::size_t> &kept) {
    Plan fewer;
    fewer.settings = plan.settings;
    for (const std::size_t i : kept)
        if (i < plan.ops.size()) fewer.ops.push_back(plan.ops[i]);
    if (!fewer.ops.empty() && kept.size() < plan.ops.size())
        fewer.settings.duration =
            std::min(plan.settings.duration, fewer.ops.back().at + after_failure);
    return fewer;
}

Reduced reduce(const Plan &plan, const Verdict &verdict, int seconds_max) {
    return Reducer(plan, verdict, seconds_max).run();
}

} // namespace ds::sim
