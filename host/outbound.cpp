#include "host/outbound.h"

#include <algorithm>
#include <cerrno>

#include "ds.pb.h"
#include "host/fields.h"
#include "host/records.h"
#include "proto/frame.h"

namespace ds::host {

namespace {

constexpr std::size_t small_capacity = 65'536;
constexpr std::size_t batch_bytes_max = 65'536;   // beyond it a batch takes nothing more
constexpr std::size_t copied_snapshot_max = 4096; // larger ones are sent from where they are
constexpr std::size_t header_bytes_max = 40;      // of a notification around its snapshot
constexpr std::size_t idle_capacity_max = 65'536;

// Everything of a notification's frame that stands before the snapshot's bytes.
void append_notification_header(const Registration &registration, std::size_t snapshot_bytes,
                                std::string &out) {
    using v1::Event;
    using v1::Notification;
    const std::size_t notification_bytes = Fields::number_bytes(registration.record->handle) +
                                           Fields::number_bytes(registration.cookie) +
                                           Fields::message_bytes(snapshot_bytes);
    proto::append_header(out, Fields::message_bytes(notification_bytes));
    Fields fields(out);
    fields.message_header(Event::kNotificationFieldNumber, notification_bytes);
    fields.number(Notification::kHandleFieldNumber, registration.record->handle);
    fields.number(Notification::kCookieFieldNumber, registration.cookie);
    fields.message_header(Notification::kSnapshotFieldNumber, snapshot_bytes);
}

} // namespace

void PendingList::push_back(Registration &registration) {
    registration.previous = last_;
    registration.next = nullptr;
    (last_ != nullptr ? last_->next : first_) = &registration;
    last_ = &registration;
}

void PendingList::remove(Registration &registration) {
    (registration.previous != nullptr ? registration.previous->next : first_) = registration.next;
    (registration.next != nullptr ? registration.next->previous : last_) = registration.previous;
    registration.previous = registration.next = nullptr;
}

Gather::Gather() {
    small_.reserve(small_capacity);
    items_.reserve(small_capacity / header_bytes_max);
}

void Gather::start(std::string_view replies) {
    small_.clear();
    items_.clear();
    part_count_ = 0;
    bytes_ = 0;
    if (!replies.empty()) push(replies.data(), replies.size());
}

void Gather::push(const char *data, std::size_t bytes) {
    const bool continues =
        part_count_ > 0 && parts_[part_count_ - 1].iov_len > 0 &&
        static_cast<char *>(parts_[part_count_ - 1].iov_base) + parts_[part_count_ - 1].iov_len ==
            data;
    if (continues)
        parts_[part_count_ - 1].iov_len += bytes;
    else
        parts_[part_count_++] = {const_cast<char *>(data), bytes};
    bytes_ += bytes;
}

bool Gather::add(Registration &registration, const std::string &snapshot) {
    const bool is_copied = snapshot.size() <= copied_snapshot_max;
    const std::size_t needed = header_bytes_max + (is_copied ? snapshot.size() : 0);
    if (small_.size() + needed > small_capacity || part_count_ + 2 > parts_.size()) return false;
    if (bytes_ >= batch_bytes_max) return false;

    const std::size_t begin = bytes_;
    const std::size_t start = small_.size();
    append_notification_header(registration, snapshot.size(), small_);
    if (is_copied) small_.append(snapshot);
    push(small_.data() + start, small_.size() - start);
    if (!is_copied) push(snapshot.data(), snapshot.size());
    items_.push_back({&registration, begin, bytes_});
    return true;
}

msghdr Gather::header() {
    msghdr header = {};
    header.msg_iov = parts_.data();
    header.msg_iovlen = part_count_;
    return header;
}

void Gather::copy(std::size_t begin, std::size_t end, std::string &out) const {
    std::size_t offset = 0; // of the part in the batch
    for (std::size_t i = 0; i < part_count_ && offset < end; i++) {
        const std::size_t from = std::max(begin, offset);
        const std::size_t to = std::min(end, offset + parts_[i].iov_len);
        if (from < to)
            out.append(static_cast<const char *>(parts_[i].iov_base) + (from - offset), to - from);
        offset += parts_[i].iov_len;
    }
}

bool Outbound::mark(Registration &registration) {
    if (registration.is_pending) return false;
    registration.is_pending = true;
    pending_.push_back(registration);
    return true;
}

void Outbound::unmark(Registration &registration) {
    if (!registration.is_pending) return;
    registration.is_pending = false;
    pending_.remove(registration);
}

Outbound::Result Outbound::send(int fd, Output &output) {
    if (!has_anything()) return Result::done;
    collect(output);
    const msghdr header = output.gather.header();
    const ssize_t result = sendmsg(fd, &header, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (result < 0 && errno == EINTR) return Result::more;
    if (result < 0) return errno == EAGAIN ? Result::blocked : Result::broken;
    const auto sent = static_cast<std::size_t>(result);
    const bool is_cut = sent < output.gather.bytes();
    settle(sent, output);
    if (is_cut) return Result::blocked;
    return has_anything() ? Result::more : Result::done;
}

void Outbound::collect(Output &output) {
    Gather &gather = output.gather;
    gather.start(std::string_view(replies_).substr(replies_sent_));
    for (Registration *registration = pending_.front(); registration != nullptr;
         registration = registration->next) {
        SnapshotCache &cache = registration->was_reconciling ? output.resynced : output.snapshots;
        if (!gather.add(*registration, cache.of(registration->record->selem))) break;
    }
}

void Outbound::settle(std::size_t sent, Output &output) {
    const bool is_reconciling = is_restart_period_open();
    const std::size_t reply_bytes = unsent_bytes();
    drop_sent_replies(std::min(sent, reply_bytes));
    for (const Gather::Item &item : output.gather.items()) {
        if (item.begin >= sent) break;
        // One that was cut has to be finished as it is; a later change marks the registration
        // again.
        if (item.end > sent) output.gather.copy(sent, item.end, replies_);
        unmark(*item.registration);
        item.registration->was_reconciling = is_reconciling;
        output.counters.notifications++;
    }
}

void Outbound::drop_sent_replies(std::size_t sent) {
    replies_sent_ += sent;
    if (replies_sent_ == replies_.size()) {
        replies_.clear();
        if (replies_.capacity() > idle_capacity_max) replies_.shrink_to_fit();
        replies_sent_ = 0;
    } else if (replies_sent_ > replies_.size() / 2) {
        replies_.erase(0, replies_sent_);
        replies_sent_ = 0;
    }
}

} // namespace ds::host
