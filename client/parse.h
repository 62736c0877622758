// Reading a message with whatever memory there is.
#pragma once
#include <cstddef>
#include <memory>
#include <utility>

namespace ds::client {

// False when the bytes are no such message; `message` is written only on success. Generated code
// marks a field as present before it has memory for it, so a message that lacked memory half-way
// must not be destroyed: it is given up, which costs what it had. Building a message avoids the
// same by set_allocated_...() in place of mutable_...() for alternatives.
template <class Message>
bool parse_message(const void *bytes, std::size_t count, Message &message) {
    auto parsed = std::make_unique<Message>();
    bool is_one = false;
    try {
        is_one = parsed->ParseFromArray(bytes, static_cast<int>(count));
    } catch (...) {
        static_cast<void>(parsed.release());
        throw;
    }
    if (is_one) message = std::move(*parsed);
    return is_one;
}

} // namespace ds::client
