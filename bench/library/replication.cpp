// Updates of other nodes, restart periods and the end of a node.
//
// Single updates arrive beside a database of the given size. Replays and the end of periods work on
// databases that hold nothing else; what leads up to the timed part is not in the time.
#include <algorithm>

#include "batch.h"
#include "platform_default/platform_default.h"

namespace ds::bench {

namespace {

constexpr std::uint32_t publisher_pid = 4711;
constexpr std::uint32_t first_service_id = 1u << 24;

// A timer that runs until the end of the scope, in the slot of a restart period.
class Period {
  public:
    Period(Database &database, std::uint32_t slot) : value_(database.block().slot[slot]) {
        mgd_timer_loop_t loop = {};
        loop.now_ns = [](void *) { return std::uint64_t{0}; };
        loop.arm = [](void *, mgd_timer_t *, std::uint64_t) {};
        loop.disarm = [](void *, mgd_timer_t *) {};
        loop.on_expire = [](void *, mgd_timer_t *, std::uint64_t) {};
        parent_ = mgd_timer_parent_new(&loop);
        timer_ = parent_ == nullptr ? nullptr : mgd_timer_leaf_new(parent_, 0, 0, 0);
        if (timer_ == nullptr) fail("a timer cannot be made");
        mgd_timer_leaf_start(timer_, {30, 0});
        value_ = reinterpret_cast<std::uint64_t>(timer_);
    }
    ~Period() {
        value_ = 0;
        mgd_timer_release(timer_);
        mgd_timer_release(parent_);
    }
    Period(const Period &) = delete;
    Period &operator=(const Period &) = delete;

  private:
    std::uint64_t &value_;
    mgd_timer_t *parent_ = nullptr;
    mgd_timer_t *timer_ = nullptr;
};

std::vector<std::string> names_from(std::size_t first, std::int64_t count) {
    std::vector<std::string> names;
    for (std::int64_t i = 0; i < count; i++)
        names.push_back(service_name(first + static_cast<std::size_t>(i)));
    return names;
}

// One update for each name, all with one endpoint and one attribute.
class Feed {
  public:
    explicit Feed(const std::uint8_t *sender) : sender_(sender) {
        ds_service_attr_t role = {};
        role.type = DS_ATTR_HA_ROLE;
        role.value = 1;
        ds_service_attrs_t attrs = {};
        VIDL_SET_ARRAY(&attrs, attrs, DS_ATTRS_BIT_ATTRS, &role, 1);
        const std::int32_t bytes =
            vidl_ds_service_attrs_encode_ext(&attrs, attrs_, sizeof attrs_, 0, 0, 0);
        if (bytes < 0) fail("an attribute cannot be encoded");
        attr_bytes_ = static_cast<std::uint64_t>(bytes);
    }

    void deliver(std::uint32_t operation, const std::vector<std::string> &names,
                 std::uint32_t version, std::uint32_t port) {
        std::uint8_t endpoint[DS_ENDPOINT_IP_BYTES];
        if (ds_encode_endpoint(0x0a000001, port, endpoint, sizeof endpoint) < 0)
            fail("an endpoint cannot be encoded");
        std::uint32_t service_id = first_service_id;
        for (const std::string &name : names)
            if (dsr_receive_cb(operation, sender_, name.c_str(), service_id++, instance_text,
                               DS_SCOPE_SYSTEM, publisher_pid, version, endpoint, sizeof endpoint,
                               attrs_, attr_bytes_) != 0)
                fail("an update was refused");
    }

  private:
    const std::uint8_t *sender_;
    std::uint8_t attrs_[64];
    std::uint64_t attr_bytes_ = 0;
};

enum class Step { add, modify, remove };

// A thousand services of another node come, change and go; one of the steps is timed.
void receive(benchmark::State &state, Step timed) {
    Database &database = Database::of_size(state.range(0));
    const std::vector<std::string> names = names_from(database.size(), batch_calls);
    Feed feed(other_node_address);
    for (auto _ : state) {
        const auto take = [&](Step step, std::uint32_t operation, std::uint32_t version) {
            const auto deliver = [&] { feed.deliver(operation, names, version, version); };
            if (step == timed)
                time_batch(state, deliver);
            else
                deliver();
        };
        take(Step::add, DSR_ADD, 1);
        take(Step::modify, DSR_MODIFY, 2);
        take(Step::remove, DSR_DELETE, 2);
    }
    report_calls(state, batch_calls);
}

void receive_add(benchmark::State &state) {
    receive(state, Step::add);
}
void receive_modify(benchmark::State &state) {
    receive(state, Step::modify);
}
void receive_delete(benchmark::State &state) {
    receive(state, Step::remove);
}

void finalise() {
    if (ds_db_finalize_restart() != 0) fail("a restart period cannot be ended");
}

// The relay replays what this node published before its restart; no client publishes it again.
void replay(benchmark::State &state) {
    Database &database = Database::of_size(0);
    const std::vector<std::string> names = names_from(0, state.range(0));
    Feed feed(node_address);
    for (auto _ : state) {
        {
            const Period own(database, DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
            time_batch(state, [&] { feed.deliver(DSR_ADD, names, 1, 1); });
        }
        finalise();
        database.delete_empty_names();
    }
    report_calls(state, state.range(0));
}

void finalise_withdrawn(benchmark::State &state) {
    Database &database = Database::of_size(0);
    const std::vector<std::string> names = names_from(0, state.range(0));
    Feed feed(node_address);
    for (auto _ : state) {
        {
            const Period own(database, DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
            feed.deliver(DSR_ADD, names, 1, 1);
        }
        time_batch(state, finalise);
        database.delete_empty_names();
    }
    report_calls(state, state.range(0));
}

// Clients publish in the own restart period what the relay has replayed to it; returns who did.
std::vector<ds_client_t *> publish_again(Database &database,
                                         const std::vector<std::string> &names) {
    constexpr std::size_t services_per_client = 1000;
    std::vector<ds_client_t *> clients;
    for (std::size_t i = 0; i < names.size(); i++) {
        if (i % services_per_client == 0) clients.push_back(Database::add_client(publisher_pid));
        if (!database.publish(clients.back()->client_idx, make_info(names[i], 1)))
            fail("a service was refused");
    }
    return clients;
}

void restart(benchmark::State &state, bool is_end_timed) {
    Database &database = Database::of_size(0);
    const std::vector<std::string> names = names_from(0, state.range(0));
    Feed feed(node_address);
    for (auto _ : state) {
        std::vector<ds_client_t *> clients;
        {
            const Period own(database, DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
            feed.deliver(DSR_ADD, names, 1, 1);
            const auto publish = [&] { clients = publish_again(database, names); };
            if (is_end_timed)
                publish();
            else
                time_batch(state, publish);
        }
        if (is_end_timed)
            time_batch(state, finalise);
        else
            finalise();
        std::for_each(clients.begin(), clients.end(), ds_db_delete_client);
    }
    report_calls(state, state.range(0));
}

void republish_after_replay(benchmark::State &state) {
    restart(state, false);
}
void finalise_announced(benchmark::State &state) {
    restart(state, true);
}

// Another node's services: the relay goes away, comes back and delivers them all again.
void finalise_remote(benchmark::State &state) {
    Database &database = Database::of_size(0);
    const std::vector<std::string> names = names_from(0, state.range(0));
    Feed feed(other_node_address);
    feed.deliver(DSR_ADD, names, 1, 1);
    for (auto _ : state) {
        {
            ds_db_dsr_restarted();
            const Period relay(database, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
            feed.deliver(DSR_ADD, names, 1, 1);
        }
        time_batch(state, finalise);
    }
    feed.deliver(DSR_DELETE, names, 1, 1);
    report_calls(state, state.range(0));
}

void node_down(benchmark::State &state) {
    Database &database = Database::of_size(0);
    const std::vector<std::string> names = names_from(0, state.range(0));
    Feed feed(other_node_address);
    for (auto _ : state) {
        feed.deliver(DSR_ADD, names, 1, 1);
        time_batch(state, [] {
            if (dsr_peer_down_cb(other_node_address) != 0) fail("a node cannot go down");
        });
        database.delete_empty_names();
    }
    report_calls(state, state.range(0));
}

BENCHMARK(receive_add)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(receive_modify)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(receive_delete)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(replay)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(republish_after_replay)
    ->Apply(at_each_size)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(finalise_announced)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(finalise_withdrawn)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(finalise_remote)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(node_down)->Apply(at_each_size)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

} // namespace ds::bench
