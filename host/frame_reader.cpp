#include "host/frame_reader.h"

namespace ds::host {

namespace {

constexpr std::size_t idle_capacity_max = 65'536; // of a connection with nothing held

} // namespace

void FrameReader::supply(std::string_view bytes) {
    if (bytes_held() == 0) {
        is_held_ = false;
        unread_ = bytes;
        return;
    }
    if (!bytes.empty()) {
        held_.erase(0, taken_);
        taken_ = 0;
        held_.append(bytes);
    }
    is_held_ = true;
    unread_ = std::string_view(held_).substr(taken_);
}

proto::Cut FrameReader::next(std::string_view &message) {
    std::size_t consumed = 0;
    const proto::Cut cut = proto::cut_frame(unread_, message, consumed);
    if (cut == proto::Cut::complete) unread_.remove_prefix(consumed);
    return cut;
}

void FrameReader::settle() {
    if (!is_held_) held_.assign(unread_);
    taken_ = held_.size() - unread_.size();
    if (unread_.empty()) {
        held_.clear();
        taken_ = 0;
        if (held_.capacity() > idle_capacity_max) held_.shrink_to_fit();
    }
    unread_ = {};
    is_held_ = true;
}

} // namespace ds::host
