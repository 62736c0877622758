// What an operator wants to know afterwards: errors by text, refused entries, echo delays.
#pragma once
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "relay/status.h"

namespace ds::relay::etcd {

class Journal {
  public:
    void error(std::string_view text);
    void refuse(std::string_view key, std::string_view reason);
    void echo(std::chrono::nanoseconds delay);

    std::vector<ErrorCount> errors() const { return errors_; }
    std::vector<Refusal> refusals() const { return {refusals_.begin(), refusals_.end()}; }
    std::uint64_t refused() const { return refused_; }
    EchoDelay echo_delay() const;

  private:
    static constexpr std::size_t text_bytes_max = 640; // longer than any key that is accepted
    static constexpr std::size_t errors_kept = 16;     // the oldest makes room
    static constexpr std::size_t refusals_kept = 16;
    static constexpr std::size_t echoes_kept = 1024;

    std::vector<ErrorCount> errors_; // by first occurrence
    std::deque<Refusal> refusals_;
    std::uint64_t refused_ = 0;
    std::array<std::uint32_t, echoes_kept> echoes_us_ = {};
    std::uint64_t echo_count_ = 0;
};

} // namespace ds::relay::etcd
