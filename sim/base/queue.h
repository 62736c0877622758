// Virtual time: what happens next, and when. Events of one moment happen in the order in which they
// were put in.
#pragma once
#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace ds::sim {

using Time = std::uint64_t; // nanoseconds since the beginning of the world

inline constexpr Time us = 1'000;
inline constexpr Time ms = 1'000'000;
inline constexpr Time second = 1'000'000'000;

inline constexpr int nobody = -1; // owner of an event that no machine has to be awake for

class EventQueue {
  public:
    using Action = std::function<void()>;

    struct Event {
        Time at = 0;
        std::uint64_t serial = 0;
        int owner = nobody; // index of the machine on which it happens
        Action action;
    };

    void put(Time at, int owner, Action action) {
        heap_.push_back({at, next_serial_++, owner, std::move(action)});
        std::push_heap(heap_.begin(), heap_.end(), is_later);
    }
    bool is_empty() const { return heap_.empty(); }
    Time next_time() const { return heap_.front().at; }
    Event take() {
        std::pop_heap(heap_.begin(), heap_.end(), is_later);
        Event event = std::move(heap_.back());
        heap_.pop_back();
        return event;
    }

  private:
    static bool is_later(const Event &a, const Event &b) {
        return a.at != b.at ? a.at > b.at : a.serial > b.serial;
    }

    std::vector<Event> heap_;
    std::uint64_t next_serial_ = 0;
};

// The time now, and what is to come.
struct Clock {
    Time now = 0;
    EventQueue queue;

    void at(Time when, int owner, EventQueue::Action action) {
        queue.put(std::max(when, now), owner, std::move(action));
    }
    void after(Time delay, int owner, EventQueue::Action action) {
        queue.put(now + delay, owner, std::move(action));
    }
};

} // namespace ds::sim
