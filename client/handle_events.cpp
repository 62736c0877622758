// The handle: what goes to the daemon, and what comes from it.
#include "client/handle.h"

#include <utility>

#include "client/publication.h"
#include "client/registration.h"
#include "proto/frame.h"

using ds::client::Failure;
using ds::client::Item;
using ds::client::Outcome;

namespace {

constexpr std::size_t received_bytes_max = 1u << 20; // about, in one dispatch
constexpr std::size_t gathered_bytes_max = 65'536;   // requests beyond it are made later
constexpr int writes_max = 16;                       // in one dispatch

} // namespace

// ---- out ----

void ds_client_handle::send() {
    for (int writes = 0; writes < writes_max; writes++) {
        fill_output();
        if (stream_.unsent_bytes() == 0) return;
        // A peer that hung up may have said why: what it said is read before its end is told.
        if (!stream_.write_some().ok() || stream_.unsent_bytes() > 0) return;
    }
}

// Requests are made as late as possible: a change that was overtaken is never sent.
void ds_client_handle::fill_output() {
    ds::v1::Request request;
    while (!work_.empty() && stream_.unsent_bytes() < gathered_bytes_max) {
        Item &item = work_.front();
        work_.pop_front();
        request.Clear();
        if (!item.make_request(request)) {
            release_if_done(item);
            continue;
        }
        in_flight_.push_back({0, request.body_case(), &item});
        item.in_flight++;
        in_flight_.back().seq = stream_.append(request);
    }
}

// ---- in ----

void ds_client_handle::receive() {
    for (std::size_t received = 0; received < received_bytes_max;) {
        const std::size_t before = stream_.unread_bytes();
        Outcome outcome = stream_.read_some();
        const std::size_t got = stream_.unread_bytes() - before;
        if (!take_events()) return;
        if (!outcome.ok()) {
            lose(std::move(outcome));
            tell_all();
            return;
        }
        if (got == 0) return;
        received += got;
    }
}

// False when the connection or the handle has come to its end meanwhile.
bool ds_client_handle::take_events() {
    ds::v1::Event event;
    Outcome outcome;
    while (stream_.next(event, outcome)) {
        take_event(event);
        tell_all();
        if (doomed_ || !stream_.is_open()) return false;
    }
    if (outcome.ok()) return true;
    lose(std::move(outcome));
    tell_all();
    return false;
}

void ds_client_handle::take_event(ds::v1::Event &event) {
    if (event.has_reply()) {
        take_reply(*event.mutable_reply());
    } else if (!is_connected()) {
        lose(DS_CLIENT_ERROR_PROTOCOL, "the daemon spoke before it answered the greeting");
    } else if (event.has_notification()) {
        take_notification(*event.mutable_notification());
    } else if (event.has_withdrawn()) {
        take_withdrawn(event.withdrawn());
    }
}

void ds_client_handle::take_reply(ds::v1::Reply &reply) {
    if (reply.seq() == 0 || reply.status() == ds::v1::STATUS_PROTOCOL) {
        lose(reply);
        return;
    }
    if (in_flight_.empty() || in_flight_.front().seq != reply.seq()) {
        lose(DS_CLIENT_ERROR_PROTOCOL, "the daemon answered what was not asked");
        return;
    }
    const InFlight asked = in_flight_.front();
    in_flight_.pop_front();
    if (asked.item == nullptr) {
        take_greeting(reply);
        return;
    }
    asked.item->in_flight--;
    asked.item->take_reply(asked.kind, reply);
    release_if_done(*asked.item);
}

void ds_client_handle::take_greeting(ds::v1::Reply &reply) {
    if (reply.status() != ds::v1::STATUS_OK) {
        lose(reply);
        return;
    }
    const std::uint32_t spoken = reply.hello().protocol();
    if (spoken == 0 || spoken > ds::proto::protocol_version) {
        lose(DS_CLIENT_ERROR_PROTOCOL, "the daemon speaks another version of the protocol");
        return;
    }
    hello_ = std::move(*reply.mutable_hello());
    connect_count_++;
    connected_at_ = std::chrono::steady_clock::now();
    due_ = give_up_at_ = ds::client::no_deadline;
    error_ = DS_CLIENT_OK;
    status_ = ds::v1::STATUS_OK;
    reason_.clear();
    state_ = DS_CLIENT_CONNECTED;
    state_is_news_ = true;
    for (Owned *items : {&publications_, &registrations_}) {
        for (Item &item : *items)
            queue(item);
    }
}

void ds_client_handle::take_notification(ds::v1::Notification &notification) {
    const auto found = registrations_by_cookie.find(notification.cookie());
    if (found == registrations_by_cookie.end()) return; // sent before the daemon read of its end
    found->second->take_snapshot(std::move(*notification.mutable_snapshot()));
}

void ds_client_handle::take_withdrawn(const ds::v1::Withdrawn &withdrawn) {
    const auto found = publications_by_key.find(
        ds_publication::key_of(withdrawn.name(), withdrawn.instance(), withdrawn.scope()));
    if (found != publications_by_key.end()) found->second->take_withdrawn(withdrawn);
}
