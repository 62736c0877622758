// Reads what the store holds for this node.
#include "relay/etcd/session.h"

namespace ds::relay::etcd {

namespace {

constexpr std::int64_t page_items = 512;
constexpr std::int64_t page_keys = 4096;

} // namespace

// All pages are read at the revision of the first one; 0 asks for the newest.
Task<void> Session::read_range(KeyRange range, bool keys_only, std::int64_t &revision,
                               std::vector<KeyValue> &out) {
    for (;;) {
        RangeRequest request = {range, revision, keys_only ? page_keys : page_items, keys_only};
        RangeReply reply =
            decode_range(co_await client_.call("/v3/kv/range", encode_range(request)));
        if (revision == 0) revision = reply.revision;
        for (KeyValue &item : reply.items)
            out.push_back(std::move(item));
        if (!reply.more || reply.items.empty()) co_return;
        co_await keep_alive_if_due();        // a list of many pages outlasts the lease
        range.begin = out.back().key + '\0'; // the next possible key
    }
}

Task<Listing> Session::list() {
    core_.state = State::listing;
    Listing listing;
    std::vector<KeyValue> items;
    const Keys &keys = core_.keys;
    for (const KeyRange &range : {keys.nodes(), keys.rack_entries(), keys.system_entries()})
        co_await read_range(range, false, listing.revision, items);
    for (KeyValue &item : items) {
        if (item.key == self_.key) continue;
        (core_.is_own_entry(item.key) ? listing.own : listing.others).push_back(std::move(item));
    }
    co_return listing;
}

Task<std::vector<KeyValue>> Session::list_keys() {
    std::vector<KeyValue> items;
    std::int64_t revision = 0;
    const Keys &keys = core_.keys;
    for (const KeyRange &range : {keys.nodes(), keys.rack_entries(), keys.system_entries()})
        co_await read_range(range, true, revision, items);
    co_return items;
}

} // namespace ds::relay::etcd
