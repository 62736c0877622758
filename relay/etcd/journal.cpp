#include "relay/etcd/journal.h"

#include <algorithm>
#include <limits>

#include "relay/etcd/text.h"

namespace ds::relay::etcd {

namespace {

std::uint64_t wall_clock_ns() {
    const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since_1970).count());
}

} // namespace

void Journal::error(std::string_view raw) {
    const std::string text = shown(raw, text_bytes_max);
    auto found = std::ranges::find(errors_, text, &ErrorCount::text);
    if (found == errors_.end()) {
        if (errors_.size() == errors_kept)
            errors_.erase(std::ranges::min_element(errors_, {}, &ErrorCount::last_ns));
        found = errors_.insert(errors_.end(), {text, 0, 0});
    }
    found->count++;
    found->last_ns = wall_clock_ns();
}

void Journal::refuse(std::string_view key, std::string_view reason) {
    refused_++;
    Refusal refusal = {shown(key, text_bytes_max), std::string(reason)};
    std::erase_if(refusals_, [&](const Refusal &old) { return old.key == refusal.key; });
    if (refusals_.size() == refusals_kept) refusals_.pop_front();
    refusals_.push_back(std::move(refusal));
}

void Journal::echo(std::chrono::nanoseconds delay) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(delay).count();
    const auto most = static_cast<std::int64_t>(std::numeric_limits<std::uint32_t>::max());
    echoes_us_[echo_count_ % echoes_kept] =
        static_cast<std::uint32_t>(std::clamp<std::int64_t>(us, 0, most));
    echo_count_++;
}

EchoDelay Journal::echo_delay() const {
    EchoDelay delay;
    delay.count = echo_count_;
    if (echo_count_ == 0) return delay;
    delay.last_us = echoes_us_[(echo_count_ - 1) % echoes_kept];
    const auto kept = std::min<std::uint64_t>(echo_count_, echoes_kept);
    std::vector<std::uint32_t> sorted(echoes_us_.begin(),
                                      echoes_us_.begin() + static_cast<std::ptrdiff_t>(kept));
    std::ranges::sort(sorted);
    delay.p50_us = sorted[(kept - 1) / 2];
    delay.p99_us = sorted[(kept - 1) * 99 / 100];
    return delay;
}

} // namespace ds::relay::etcd
