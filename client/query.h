// A question to the daemon, asked once and answered once.
#pragma once
#include <optional>
#include <string>

#include "client/ds_client.h"
#include "client/item.h"
#include "client/view.h"

namespace ds::client {

class Query final : public Item {
  public:
    Query(ds_client_handle &handle, v1::Request request, std::uint64_t id, ds_client_reply_fn fn,
          void *ctx)
        : Item(handle), request_(std::move(request)), id_(id), fn_(fn), ctx_(ctx) {}
    ~Query() override { end(); }

    std::uint64_t id() const { return id_; }
    void begin();  // it counts as unanswered from now on
    void retire(); // answered, or cancelled by the user

    bool make_request(v1::Request &request) override;
    void take_reply(v1::Request::BodyCase kind, v1::Reply &reply) override;
    void lose_connection() override;
    void prepare_to_tell() override;
    void tell() override;
    bool is_settled() const override { return false; }

  private:
    void end(); // it no longer counts as unanswered

    v1::Request request_;
    std::uint64_t id_;
    ds_client_reply_fn fn_;
    void *ctx_;
    bool is_counted_ = false;
    bool is_answered_ = false;
    v1::Reply reply_;
    std::string message_; // reply_, encoded
    std::optional<NamesView> names_;
    ds_client_figures_t figures_{};
};

} // namespace ds::client
