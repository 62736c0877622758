#include "relay/etcd/replica.h"

#include "platform/dsr.h"

namespace ds::relay::etcd {

int Replica::send(const dsr_update_t &borrowed) {
    if (!is_reported_connected) return -1;
    const Update update = Update::copy_of(borrowed);
    const std::string key = keys.entry(node, update);
    if (update.operation == DSR_DELETE) {
        own.wish(key, std::nullopt);
        return 0;
    }
    if (const std::string problem = check_update(update); !problem.empty()) {
        journal.refuse(key, "not sent: " + problem);
        return -1;
    }
    own.wish(key, encode_update(update));
    return 0;
}

void Replica::deliver(const Listing &listing, std::int64_t own_create_revision) {
    if (is_reported_connected) {
        own.replace_known(listing.own, own_create_revision);
        view.replace(listing.others, *events);
        give_leftovers();
        return;
    }
    is_reported_connected = true;
    const View::Told before = view.clear();
    own.forget_wishes();
    own.replace_known(listing.own, own_create_revision);
    events->connected(); // the directory sends what it has: now it is known what is left over
    view.replace(listing.others, *events);
    give_leftovers();
    events->listed();
    view.tell_changes_since(before, *events);
}

OwnEntries::Seen Replica::take_own(const WatchEvent &event) {
    const OwnEntries::Value value =
        event.is_deletion ? OwnEntries::Value() : OwnEntries::Value(event.item.value);
    return own.saw(event.item.key, value, event.item.mod_revision);
}

void Replica::take_other(const WatchEvent &event) {
    if (event.is_deletion)
        view.remove(event.item.key, event.item.mod_revision, *events);
    else
        view.put(event.item, *events);
}

void Replica::give_leftovers() {
    own.remove_void();
    for (const KeyValue &item : own.take_leftovers(is_own_period_open && is_own_period_open())) {
        const auto parts = keys.parse_entry(item.key);
        Update update;
        const std::string problem =
            parts ? decode_update(*parts, item.value, update) : "key is not of any known form";
        if (problem.empty()) {
            events->received(node, update.borrowed());
        } else {
            journal.refuse(item.key, problem);
            own.wish(item.key, std::nullopt);
        }
    }
}

void Replica::report_outage() {
    is_reported_connected = false;
    events->disconnected();
}

bool Replica::is_own_entry(const std::string &key) const {
    if (key.find(own_part) == std::string::npos) return false; // most are not
    const auto parts = keys.parse_entry(key);
    return parts && parts->node == node;
}

} // namespace ds::relay::etcd
