// A publication of a handle: what its user wants published, and what the daemon has of it.
#pragma once
#include <memory>
#include <string>
#include <string_view>

#include "client/ds_client.h"
#include "client/item.h"

struct ds_publication final : public ds::client::Item {
  public:
    using Wish = std::shared_ptr<const ds::v1::Publish>;

    ds_publication(ds_client_handle &handle, Wish wish, ds_publication_fn fn, void *ctx)
        : Item(handle), wish_(std::move(wish)),
          key_(key_of(wish_->name(), wish_->instance(), wish_->scope())), fn_(fn), ctx_(ctx) {}

    // What a daemon tells publications of one session by.
    static std::string key_of(std::string_view name, std::string_view instance,
                              ds::v1::Scope scope);
    const std::string &key() const { return key_; }
    bool was_refused() const { return status_ != ds::v1::STATUS_OK; }
    bool was_withdrawn_by_other() const { return by_other_; }

    // ---- the user ----
    void update(Wish wish);
    void withdraw();
    void retire(); // the user has destroyed it
    void get_info(ds_publication_info_t &info) const;

    // ---- the handle ----
    bool make_request(ds::v1::Request &request) override;
    void take_reply(ds::v1::Request::BodyCase kind, ds::v1::Reply &reply) override;
    void take_withdrawn(const ds::v1::Withdrawn &withdrawn);
    void lose_connection() override;
    void tell() override;
    bool is_settled() const override;

  private:
    void take_publish_reply(ds::v1::Reply &reply);
    void take_refusal();
    void take_withdraw_reply(ds::v1::Reply &reply);
    void settle(ds_publication_state_t state);

    Wish wish_; // what is wanted
    const std::string key_;
    Wish asked_;                // what the request in flight says
    Wish accepted_;             // what the daemon has accepted last
    bool is_wanted_ = true;     // else it is to be withdrawn, or was
    bool is_changed_ = true;    // wish_ has not been asked for in this session
    bool may_be_there_ = false; // a publish left in this session and no withdrawal after it
    bool is_there_ = false;     // the daemon has accepted it in this session
    ds_publication_state_t state_ = DS_PUBLICATION_PENDING;
    std::uint32_t service_id_ = 0;
    std::uint32_t generation_ = 0;
    ds::v1::Status status_ = ds::v1::STATUS_OK;
    std::string text_;
    bool by_other_ = false;
    std::uint32_t by_pid_ = 0;
    std::uint32_t by_uid_ = 0;
    ds_publication_fn fn_;
    void *ctx_;
};
