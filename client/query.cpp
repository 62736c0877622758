#include "client/query.h"

#include <utility>

#include "client/handle.h"

namespace ds::client {

void Query::begin() {
    is_counted_ = true;
    handle_.query_count++;
}

void Query::end() {
    if (std::exchange(is_counted_, false)) handle_.query_count--;
}

void Query::retire() {
    request_.Clear();
    handle_.orphan(*this);
}

bool Query::make_request(v1::Request &request) {
    if (is_orphan() || in_flight > 0) return false;
    request.Swap(&request_);
    return true;
}

void Query::take_reply(v1::Request::BodyCase, v1::Reply &reply) {
    if (is_orphan()) return;
    is_answered_ = true;
    reply_.Swap(&reply);
    handle_.note(*this);
}

void Query::lose_connection() {
    handle_.note(*this);
}

void Query::prepare_to_tell() {
    if (!is_answered_) return;
    message_ = reply_.SerializeAsString();
    if (reply_.has_list()) names_.emplace(reply_.list());
    if (reply_.has_status_info()) figures_ = figures_of(reply_.status_info());
}

// Retired first: the callback may ask again, and may cancel what it no longer can.
void Query::tell() {
    end();
    retire();
    ds_client_reply_t reply{};
    reply.size = sizeof reply;
    reply.error = DS_CLIENT_ERROR_DISCONNECTED;
    reply.text = reply_.text().c_str();
    if (is_answered_) {
        reply.status = static_cast<std::uint32_t>(reply_.status());
        reply.error = reply.status == DS_CLIENT_STATUS_OK ? DS_CLIENT_OK : DS_CLIENT_ERROR_REFUSED;
        reply.message = message_.data();
        reply.message_bytes = message_.size();
        if (names_) reply.names = &names_->get();
        if (reply_.has_status_info()) reply.figures = &figures_;
    }
    fn_(ctx_, &reply);
}

} // namespace ds::client
