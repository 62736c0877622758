// A registration of a handle: a watched name, and what its user has been told of it.
#pragma once
#include <optional>
#include <string>

#include "client/ds_client.h"
#include "client/item.h"
#include "client/reported.h"
#include "client/view.h"

struct ds_registration final : public ds::client::Item {
  public:
    ds_registration(ds_client_handle &handle, std::string name, std::uint64_t cookie,
                    ds_snapshot_fn snapshot_fn, ds_registration_fn state_fn, void *ctx)
        : Item(handle), name_(std::move(name)), cookie_(cookie), snapshot_fn_(snapshot_fn),
          state_fn_(state_fn), ctx_(ctx) {}

    // ---- the user ----
    std::uint64_t cookie() const { return cookie_; }
    void retire();                   // the user has destroyed it
    void prepare_to_tell() override; // makes the view of the newest snapshot, unless it is there
    void get_info(ds_registration_info_t &info) const; // behind prepare_to_tell()

    // ---- the handle ----
    bool make_request(ds::v1::Request &request) override;
    void take_reply(ds::v1::Request::BodyCase kind, ds::v1::Reply &reply) override;
    void take_snapshot(ds::v1::Snapshot snapshot);
    void lose_connection() override;
    void tell() override;
    bool is_settled() const override;

  private:
    const std::string name_;
    const std::uint64_t cookie_;
    std::uint32_t daemon_handle_ = 0; // of this session; 0: not registered
    bool is_told_ = false;            // a snapshot has come in this session
    ds_registration_state_t state_ = DS_REGISTRATION_PENDING;
    bool state_is_news_ = false;
    bool snapshot_is_news_ = false;
    ds::v1::Status status_ = ds::v1::STATUS_OK;
    std::string text_;
    ds::client::Reported reported_;
    std::optional<ds::client::SnapshotView> view_; // of reported_.newest(), when there is one
    ds_snapshot_fn snapshot_fn_;
    ds_registration_fn state_fn_;
    void *ctx_;
};
