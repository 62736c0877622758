// What happened, as one number: equal in every run and build of the same seed. For people the same
// events are lines of text, when somebody takes them.
#pragma once
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "sim/base/queue.h"
#include "sim/base/random.h"

namespace ds::sim {

// The name of an event; its hash is made by the compiler.
struct Label {
    consteval Label(const char *name) : text(name), hash(14695981039346656037u) {
        for (const char *c = name; *c != '\0'; c++)
            hash = (hash ^ static_cast<unsigned char>(*c)) * 1099511628211u;
    }
    const char *text;
    std::uint64_t hash;
};

class Trace {
  public:
    using Sink = std::function<void(const std::string &)>;

    explicit Trace(const Time &now) : now_(now) {}

    void set_sink(Sink sink) { sink_ = std::move(sink); }
    bool has_sink() const { return static_cast<bool>(sink_); }

    void add(Label label, std::uint64_t a = 0, std::uint64_t b = 0, std::uint64_t c = 0,
             std::uint64_t d = 0) {
        mix(label.hash);
        mix(now_);
        mix(a);
        mix(b);
        mix(c);
        mix(d);
        if (sink_) print(label.text, a, b, c, d);
    }
    void mix(std::uint64_t value) { hash_ = Random::scrambled(hash_ ^ value); }
    // A line without a part in the number.
    void note(const std::string &text) {
        if (sink_) sink_(stamp() + text);
    }
    std::uint64_t hash() const { return hash_; }

  private:
    std::string stamp() const {
        char text[32];
        std::snprintf(text, sizeof text, "%10.6f ", static_cast<double>(now_) / 1e9);
        return text;
    }
    void print(const char *text, std::uint64_t a, std::uint64_t b, std::uint64_t c,
               std::uint64_t d) const {
        char numbers[128];
        std::snprintf(numbers, sizeof numbers, " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64, a,
                      b, c, d);
        sink_(stamp() + text + numbers);
    }

    const Time &now_;
    std::uint64_t hash_ = 0;
    Sink sink_;
};

} // namespace ds::sim
