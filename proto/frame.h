// Framing of the client protocol: u32 little-endian length, then the message.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ds.pb.h"

namespace ds::proto {

inline constexpr std::uint32_t protocol_version = 1;
inline constexpr std::size_t frame_bytes_max = 1u << 20; // of a message, without its length
inline constexpr std::size_t frame_header_bytes = 4;

inline constexpr std::size_t name_bytes_max = 255;
inline constexpr std::size_t instance_bytes_max = 254;
inline constexpr std::size_t path_bytes_max = 4000;

// Appends one frame. The message must not serialize to more than frame_bytes_max bytes.
void append_frame(std::string &out, const google::protobuf::MessageLite &message);

// Appends a frame header for a message of that many bytes.
void append_header(std::string &out, std::size_t message_bytes);

enum class Cut { complete, partial, too_long };

// Looks for one frame at the start of `bytes`. complete: `message` is its content and `consumed`
// the bytes it took. partial: more bytes are needed. too_long: the length exceeds frame_bytes_max;
// the stream is lost.
Cut cut_frame(std::string_view bytes, std::string_view &message, std::size_t &consumed);

} // namespace ds::proto
