// Cuts the byte stream of one connection into messages.
//
// Bytes are supplied as they arrive and taken as messages. What stands in the supplied buffer is
// not copied unless it has to wait for the rest of its message or for its turn.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

#include "proto/frame.h"

namespace ds::host {

class FrameReader {
  public:
    // Adds bytes behind those still held. They must stay good until settle().
    void supply(std::string_view bytes);

    // The next message; good until settle(). After too_long the stream is lost.
    proto::Cut next(std::string_view &message);

    // Keeps a copy of what was not taken.
    void settle();

    std::size_t bytes_held() const { return held_.size() - taken_; }

  private:
    std::string held_;
    std::size_t taken_ = 0; // of held_; moved out of the way only when more is appended
    bool is_held_ = false;  // unread_ is in held_, else in the supplied bytes
    std::string_view unread_;
};

} // namespace ds::host
