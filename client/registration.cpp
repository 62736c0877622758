#include "client/registration.h"

#include <utility>

#include "client/handle.h"

using ds::v1::Request;

void ds_registration::retire() {
    handle_.registrations_by_cookie.erase(cookie_);
    if (daemon_handle_ != 0) handle_.queue(*this);
    handle_.orphan(*this);
}

void ds_registration::prepare_to_tell() {
    if (!view_ && reported_.newest() != nullptr) view_.emplace(*reported_.newest());
}

void ds_registration::get_info(ds_registration_info_t &info) const {
    info.state = state_;
    info.status = static_cast<std::uint32_t>(status_);
    info.text = text_.c_str();
    info.name = name_.c_str();
    info.snapshot = view_ ? &view_->get() : nullptr;
}

bool ds_registration::make_request(Request &request) {
    if (is_orphan()) {
        if (daemon_handle_ == 0) return false;
        request.set_allocated_unregister(new ds::v1::Unregister);
        request.mutable_unregister()->set_name(name_);
        request.mutable_unregister()->set_handle(std::exchange(daemon_handle_, 0));
        return true;
    }
    if (in_flight > 0 || state_ != DS_REGISTRATION_PENDING) return false;
    request.set_allocated_register_(new ds::v1::Register);
    request.mutable_register_()->set_name(name_);
    request.mutable_register_()->set_cookie(cookie_);
    return true;
}

void ds_registration::take_reply(Request::BodyCase kind, ds::v1::Reply &reply) {
    if (kind == Request::kUnregister) return;
    daemon_handle_ = reply.handle();
    if (is_orphan()) {
        handle_.queue(*this);
        return;
    }
    status_ = reply.status();
    text_ = std::move(*reply.mutable_text());
    state_ = status_ == ds::v1::STATUS_OK ? DS_REGISTRATION_LIVE : DS_REGISTRATION_REFUSED;
    state_is_news_ = true;
    handle_.note(*this);
}

void ds_registration::take_snapshot(ds::v1::Snapshot snapshot) {
    const bool is_news = reported_.take(std::move(snapshot));
    view_.reset();
    is_told_ = true;
    if (!is_news) return;
    snapshot_is_news_ = true;
    handle_.note(*this);
}

void ds_registration::lose_connection() {
    daemon_handle_ = 0;
    is_told_ = false;
    reported_.lose_connection();
    if (state_ == DS_REGISTRATION_PENDING) return;
    state_ = DS_REGISTRATION_PENDING;
    state_is_news_ = true;
    handle_.note(*this);
}

void ds_registration::tell() {
    if (std::exchange(state_is_news_, false) && state_fn_ != nullptr) {
        ds_registration_info_t info{};
        info.size = sizeof info;
        get_info(info);
        state_fn_(ctx_, this, &info);
    }
    if (is_orphan() || handle_.is_doomed()) return;
    if (std::exchange(snapshot_is_news_, false) && snapshot_fn_ != nullptr) {
        snapshot_fn_(ctx_, this, &view_->get());
    }
}

bool ds_registration::is_settled() const {
    return state_ == DS_REGISTRATION_REFUSED || (state_ == DS_REGISTRATION_LIVE && is_told_);
}
