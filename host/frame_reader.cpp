#include "host/frame_reader.h"

namespace ds::host {

namespace {

constexpr std::size_t idle_capacity_max = 65'536; // of a connection with nothing held

} // namespace

void FrameReader::supply(std::string_view bytes) {
    if (held_.empty()) {
        unread_ = bytes;
        return;
    }
    held_.append(bytes);
    unread_ = held_;
}

proto::Cut FrameReader::next(std::string_view &message) {
    std::size_t consumed = 0;
    const proto::Cut cut = proto::cut_frame(unread_, message, consumed);
    if (cut == proto::Cut::complete) unread_.remove_prefix(consumed);
    return cut;
}

void FrameReader::settle() {
    if (held_.empty())
        held_.assign(unread_);
    else
        held_.erase(0, held_.size() - unread_.size());
    if (held_.empty() && held_.capacity() > idle_capacity_max) held_.shrink_to_fit();
    unread_ = {};
}

} // namespace ds::host
