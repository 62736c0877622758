// What lives in a handle and talks to the daemon: publications, registrations, queries.
//
// An item says that it has something to ask (Handle::queue) and is then asked for the request when
// there is room for it; what it asks follows from what is wanted at that moment. It is given the
// reply, changes its state, and says when its user is to be told (Handle::note). Its user is told
// when nothing else is going on, so that a callback may do what it likes.
//
//     made --> of its handle <--> waiting to ask --> asked (in_flight) --+
//                   ^                                                    |
//                   +----------------------- reply ----------------------+
//
// An item whose user has destroyed it is an orphan: it lives on for as long as the daemon owes it
// answers or it has to take something back, and is never told again.
#pragma once
#include <boost/intrusive/list.hpp>
#include <cstdint>

#include "ds.pb.h"

struct ds_client_handle;

namespace ds::client {

struct OwnerTag;
struct WorkTag;
struct NoteTag;

template <class Tag>
using Hook = boost::intrusive::list_base_hook<
    boost::intrusive::tag<Tag>,
    boost::intrusive::link_mode<boost::intrusive::link_mode_type::auto_unlink>>;

class Item : public Hook<OwnerTag>, public Hook<WorkTag>, public Hook<NoteTag> {
  public:
    explicit Item(ds_client_handle &handle) : handle_(handle) {}
    Item(const Item &) = delete;
    Item &operator=(const Item &) = delete;
    virtual ~Item() = default;

    // Writes the request that is due; false when there is none.
    virtual bool make_request(v1::Request &request) = 0;
    // The answer to a request of that kind.
    virtual void take_reply(v1::Request::BodyCase kind, v1::Reply &reply) = 0;
    // The connection is lost, and with it all requests. Needs no memory.
    virtual void lose_connection() = 0;
    // Does what telling needs memory for; tell() then needs none.
    virtual void prepare_to_tell() {}
    // Makes the callbacks that are due. The item may be an orphan afterwards, the handle doomed.
    virtual void tell() = 0;
    // Whether nothing that the user wanted is unanswered.
    virtual bool is_settled() const = 0;

    bool is_orphan() const { return orphan_; }
    ds_client_handle &handle() const { return handle_; }

    std::uint32_t in_flight = 0; // requests without a reply
    std::uint32_t pins = 0;      // functions that hold on to it while they wait

  protected:
    friend struct ::ds_client_handle;
    ds_client_handle &handle_;
    bool orphan_ = false;
};

template <class Tag>
using ItemList = boost::intrusive::list<Item, boost::intrusive::base_hook<Hook<Tag>>,
                                        boost::intrusive::constant_time_size<false>>;

template <class Tag> bool is_linked(const Item &item) {
    return static_cast<const Hook<Tag> &>(item).is_linked();
}

} // namespace ds::client
