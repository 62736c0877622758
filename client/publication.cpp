#include "client/publication.h"

#include <utility>

#include "client/handle.h"

using ds::v1::Request;

std::string ds_publication::key_of(std::string_view name, std::string_view instance,
                                   ds::v1::Scope scope) {
    std::string key(name);
    key.append(1, ';').append(instance).append(1, ';'); // what neither of them can hold
    return key.append(std::to_string(static_cast<int>(scope)));
}

// ---- the user ----

void ds_publication::update(Wish wish) {
    wish_ = std::move(wish);
    is_wanted_ = is_changed_ = true;
    by_other_ = false;
    by_pid_ = by_uid_ = 0;
    settle(DS_PUBLICATION_PENDING);
    handle_.queue(*this);
}

void ds_publication::withdraw() {
    is_wanted_ = false;
    const bool has_ended = state_ == DS_PUBLICATION_WITHDRAWN;
    if (!has_ended) settle(may_be_there_ ? DS_PUBLICATION_WITHDRAWING : DS_PUBLICATION_WITHDRAWN);
    handle_.queue(*this);
}

void ds_publication::retire() {
    fn_ = nullptr;
    is_wanted_ = false;
    handle_.publications_by_key.erase(key_);
    if (may_be_there_) handle_.queue(*this);
    handle_.orphan(*this);
}

void ds_publication::get_info(ds_publication_info_t &info) const {
    info.state = state_;
    info.service_id = service_id_;
    info.generation = generation_;
    info.status = static_cast<std::uint32_t>(status_);
    info.text = text_.c_str();
    info.by_pid = by_pid_;
    info.by_uid = by_uid_;
    info.by_other = by_other_ ? 1 : 0;
}

// ---- the daemon ----

// One request at a time, so that its answer says what is so. Only an orphan takes back at once: a
// successor of the same key may be queued behind it.
bool ds_publication::make_request(Request &request) {
    if (in_flight > 0 && !is_orphan()) return false;
    if (is_wanted_) {
        if (!is_changed_) return false;
        request.set_allocated_publish(new ds::v1::Publish(*wish_));
        asked_ = wish_;
        is_changed_ = false;
        may_be_there_ = true;
        return true;
    }
    if (!may_be_there_) return false;
    request.set_allocated_withdraw(new ds::v1::Withdraw);
    request.mutable_withdraw()->set_name(wish_->name());
    request.mutable_withdraw()->set_instance(wish_->instance());
    request.mutable_withdraw()->set_scope(wish_->scope());
    may_be_there_ = false;
    return true;
}

void ds_publication::take_reply(Request::BodyCase kind, ds::v1::Reply &reply) {
    if (is_orphan()) return;
    status_ = reply.status();
    text_ = std::move(*reply.mutable_text());
    if (kind == Request::kPublish) {
        take_publish_reply(reply);
    } else {
        take_withdraw_reply(reply);
    }
    handle_.queue(*this); // for what was wanted meanwhile
}

void ds_publication::take_publish_reply(ds::v1::Reply &reply) {
    if (status_ == ds::v1::STATUS_OK) {
        service_id_ = reply.service_id();
        generation_ = reply.generation();
        is_there_ = true;
        accepted_ = std::move(asked_);
        const bool is_newest = is_wanted_ && !is_changed_;
        settle(is_newest ? DS_PUBLICATION_LIVE : state_);
        return;
    }
    may_be_there_ = is_there_;
    take_refusal();
    asked_.reset();
}

// What was in force stays so, or comes back.
void ds_publication::take_refusal() {
    const bool overtaken = !is_wanted_ || is_changed_;
    if (!is_wanted_ && !is_there_) {
        settle(DS_PUBLICATION_WITHDRAWN);
    } else if (overtaken) {
        settle(state_);
    } else if (is_there_) {
        wish_ = accepted_;
        settle(DS_PUBLICATION_LIVE);
    } else if (accepted_ && accepted_ != asked_) {
        wish_ = accepted_;
        is_changed_ = true;
        settle(DS_PUBLICATION_PENDING);
    } else {
        settle(DS_PUBLICATION_REFUSED);
    }
}

// A withdrawal that finds nothing has found what it wanted.
void ds_publication::take_withdraw_reply(ds::v1::Reply &) {
    const bool is_gone = status_ == ds::v1::STATUS_OK || status_ == ds::v1::STATUS_NOT_FOUND;
    if (is_gone) {
        is_there_ = false;
        accepted_.reset();
        settle(is_wanted_ ? state_ : DS_PUBLICATION_WITHDRAWN);
        return;
    }
    may_be_there_ = true;
    if (is_wanted_) return settle(state_);
    is_wanted_ = true;
    settle(DS_PUBLICATION_LIVE);
}

// One that was published anew meanwhile has another id, and the news are of the one before.
void ds_publication::take_withdrawn(const ds::v1::Withdrawn &withdrawn) {
    if (!is_there_ || withdrawn.service_id() != service_id_) return;
    is_there_ = false;
    accepted_.reset(); // it is not to come back because of a refusal
    if (in_flight > 0 || (is_wanted_ && is_changed_)) return; // the next answer says what is so
    may_be_there_ = false;
    is_wanted_ = false;
    by_other_ = true;
    by_pid_ = withdrawn.by_pid();
    by_uid_ = withdrawn.by_uid();
    settle(DS_PUBLICATION_WITHDRAWN);
}

void ds_publication::lose_connection() {
    is_there_ = may_be_there_ = false;
    asked_.reset();
    is_changed_ = true;
    const ds_publication_state_t before = state_;
    state_ = is_wanted_ ? DS_PUBLICATION_PENDING : DS_PUBLICATION_WITHDRAWN;
    if (state_ != before) handle_.note(*this);
}

void ds_publication::settle(ds_publication_state_t state) {
    state_ = state;
    handle_.note(*this);
}

void ds_publication::tell() {
    if (fn_ == nullptr) return;
    ds_publication_info_t info{};
    info.size = sizeof info;
    get_info(info);
    fn_(ctx_, this, &info);
}

bool ds_publication::is_settled() const {
    return state_ != DS_PUBLICATION_PENDING && state_ != DS_PUBLICATION_WITHDRAWING;
}
