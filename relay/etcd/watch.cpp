// The streams of changes.
#include <algorithm>
#include <charconv>

#include "relay/etcd/session.h"

namespace ds::relay::etcd {

void Session::begin_watching(std::int64_t revision) {
    const Keys &keys = core_.keys;
    const std::vector<KeyRange> ranges = {keys.epoch_and_nodes(),
                                          {keys.probe(core_.config.node), {}},
                                          keys.rack_entries(),
                                          keys.system_entries()};
    streams_awaited_ = ranges.size();
    for (const KeyRange &range : ranges)
        spawn(watch(range, revision));
}

Task<void> Session::watch(KeyRange range, std::int64_t revision) {
    const std::string request = encode_watch(range, revision + 1);
    LineReader lines(co_await client_.stream("/v3/watch", request));
    for (;;) {
        const WatchReply reply = decode_watch(co_await lines.next_line());
        if (!failure_.empty()) throw Failure(failure_); // with lines left that nobody waits for
        if (reply.compact_revision != 0)
            throw Failure("the watch fell behind what the store keeps");
        if (reply.is_cancelled) throw Failure("the store ended the watch: " + reply.cancel_reason);
        if (reply.is_created && --streams_awaited_ == 0) watching_.cancel();
        core_.revision = std::max(core_.revision, reply.revision);
        for (const WatchEvent &event : reply.events)
            take(event);
        if (core_.view.has_remains()) clean_timer_.cancel();
    }
}

void Session::take(const WatchEvent &event) {
    const KeyValue &item = event.item;
    const Keys &keys = core_.keys;
    if (item.key == keys.epoch()) {
        if (event.is_deletion || item.value != core_.epoch)
            throw Failure("the epoch of the store has changed");
        return;
    }
    if (item.key == keys.probe(core_.config.node)) {
        if (event.is_deletion) return;
        std::uint64_t number = 0;
        std::from_chars(item.value.data(), item.value.data() + item.value.size(), number);
        probes_seen_ = std::max(probes_seen_, number);
        for (Signal *waiter : probe_waiters_)
            waiter->cancel();
        return;
    }
    if (item.key == self_.key) return take_own_node(event);
    if (core_.is_own_entry(item.key)) return take_own_entry(event);
    core_.take_other(event);
}

void Session::take_own_node(const WatchEvent &event) {
    if (is_leaving_) return;
    if (event.is_deletion) throw Failure("this node's key has gone from the store");
    if (event.item.value != self_.value) throw Failure("this node's key was changed by another");
}

// What this node wrote comes back: it is no news, but it tells how long the way took.
void Session::take_own_entry(const WatchEvent &event) {
    const OwnEntries::Seen seen = core_.take_own(event);
    if (seen.sent) core_.journal.echo(Clock::now() - *seen.sent);
    if (!seen.is_foreign) {
        core_.counters.echoes++;
        return;
    }
    if (core_.own.is_busy(event.item.key)) {
        core_.counters.repairs++;
        core_.journal.error("an entry of this node was changed by another");
        wake_writer();
    }
}

} // namespace ds::relay::etcd
