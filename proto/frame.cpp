#include "proto/frame.h"

#include <google/protobuf/message_lite.h>

namespace ds::proto {

void append_header(std::string &out, std::size_t message_bytes) {
    const auto length = static_cast<std::uint32_t>(message_bytes);
    const char header[frame_header_bytes] = {
        static_cast<char>(length & 0xff), static_cast<char>(length >> 8 & 0xff),
        static_cast<char>(length >> 16 & 0xff), static_cast<char>(length >> 24 & 0xff)};
    out.append(header, sizeof header);
}

void append_frame(std::string &out, const google::protobuf::MessageLite &message) {
    const std::size_t bytes = message.ByteSizeLong();
    append_header(out, bytes);
    const std::size_t start = out.size();
    out.resize(start + bytes);
    message.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t *>(out.data() + start));
}

Cut cut_frame(std::string_view bytes, std::string_view &message, std::size_t &consumed) {
    if (bytes.size() < frame_header_bytes) return Cut::partial;
    std::uint32_t length = 0;
    for (int i = 3; i >= 0; i--)
        length = length << 8 | static_cast<unsigned char>(bytes[static_cast<std::size_t>(i)]);
    if (length > frame_bytes_max) return Cut::too_long;
    if (bytes.size() - frame_header_bytes < length) return Cut::partial;
    message = bytes.substr(frame_header_bytes, length);
    consumed = frame_header_bytes + length;
    return Cut::complete;
}

} // namespace ds::proto
