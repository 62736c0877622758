// The bytes of one fuzzer input, read as numbers and choices. Past the end everything reads as 0.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace ds::fuzz {

class Input {
  public:
    Input(const std::uint8_t *data, std::size_t size) : at_(data), left_(size) {}

    bool is_at_end() const { return left_ == 0; }
    std::size_t left() const { return left_; }

    std::uint8_t byte() {
        if (left_ == 0) return 0;
        left_--;
        return *at_++;
    }

    std::uint32_t number() {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; i++)
            value = value << 8 | byte();
        return value;
    }

    std::size_t below(std::size_t limit) { return byte() % limit; }

    // A copy of exactly its own size, so that a read past its end is found.
    std::vector<std::uint8_t> bytes(std::size_t count) {
        const std::size_t taken = count < left_ ? count : left_;
        std::vector<std::uint8_t> result(at_, at_ + taken);
        at_ += taken;
        left_ -= taken;
        result.shrink_to_fit();
        return result;
    }

    std::string text(std::size_t count) {
        std::string result;
        for (const std::uint8_t value : bytes(count))
            if (value != 0) result += static_cast<char>(value);
        return result;
    }

  private:
    const std::uint8_t *at_;
    std::size_t left_;
};

// Ends the run: the fuzzer keeps the input that led here.
[[noreturn]] inline void fail(const std::string &finding) {
    std::fprintf(stderr, "FINDING: %s\n", finding.c_str());
    std::abort();
}

inline void require(bool holds, const char *finding) {
    if (!holds) fail(finding);
}

} // namespace ds::fuzz
