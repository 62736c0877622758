#include "tests/relay/etcd_fixture.h"

#include <random>

#include "relay/etcd/transactions.h"

namespace relay_test {

using namespace ds::relay;
using namespace std::chrono_literals;

bool run_until(asio::io_context &io, const std::function<bool()> &condition,
               std::chrono::milliseconds most) {
    const auto deadline = std::chrono::steady_clock::now() + most;
    const auto keep = asio::make_work_guard(io);
    io.restart();
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        io.run_one_until(deadline);
    }
    return true;
}

// ---- store ----

StoreAccess::StoreAccess(asio::io_context &io, const std::string &endpoint)
    : io_(io), client_(std::make_unique<etcd::Client>(io, etcd::parse_endpoint(endpoint), nullptr,
                                                      5s, 10s)) {}

StoreAccess::~StoreAccess() = default;

// A new connection each time: servers die in tests.
std::string StoreAccess::call(const std::string &path, const std::string &body) {
    etcd::Client client(io_, client_->endpoint(), nullptr, 5s, 10s);
    return run(client.call(path, body));
}

std::int64_t StoreAccess::put(const std::string &key, const std::string &value,
                              std::int64_t lease) {
    etcd::Transaction transaction;
    transaction.on_success = {etcd::put_operation(key, value, lease)};
    return etcd::decode_transaction(call("/v3/kv/txn", etcd::encode_transaction(transaction)))
        .revision;
}

std::int64_t StoreAccess::remove(const etcd::KeyRange &range) {
    etcd::Transaction transaction;
    transaction.on_success = {etcd::remove_operation(range)};
    return etcd::decode_transaction(call("/v3/kv/txn", etcd::encode_transaction(transaction)))
        .revision;
}

std::vector<etcd::KeyValue> StoreAccess::range(const etcd::KeyRange &range) {
    return etcd::decode_range(call("/v3/kv/range", etcd::encode_range({.keys = range}))).items;
}

std::optional<etcd::KeyValue> StoreAccess::get(const std::string &key) {
    const auto items = range({key, {}});
    return items.empty() ? std::nullopt : std::optional(items[0]);
}

void StoreAccess::compact(std::int64_t revision) {
    // "physical": the answer comes when it is done, not when it is ordered.
    call("/v3/kv/compaction",
         R"({"revision":")" + std::to_string(revision) + R"(","physical":true})");
}

std::int64_t StoreAccess::grant(std::int64_t ttl_s) {
    return etcd::decode_lease(call("/v3/lease/grant", etcd::encode_lease_grant(ttl_s))).lease;
}

std::int64_t StoreAccess::revision() {
    return etcd::decode_range(call("/v3/kv/range", etcd::encode_range({.keys = {"none", {}}})))
        .revision;
}

// ---- daemons ----

EtcdConfig quick_config(std::uint8_t node_number, std::vector<std::string> endpoints) {
    static std::mt19937 random{std::random_device{}()};
    EtcdConfig config;
    config.cluster = "test";
    config.node = node(node_number);
    config.boot_id = "boot-" + std::to_string(random());
    config.host_name = "host-" + std::to_string(node_number);
    config.endpoints = std::move(endpoints);
    config.ttl = 3s;
    config.outage_grace = 30s; // a busy machine is no outage
    config.connect_deadline = 1s;
    config.call_deadline = 1500ms;
    config.retry_delay_min = 20ms;
    config.retry_delay_max = 100ms;
    config.audit_interval = 300ms;
    config.cleanup_delay = 100ms;
    return config;
}

EtcdTest::~EtcdTest() {
    io.restart();
    io.poll(); // what the engines abandoned ends here
}

EtcdServer &EtcdTest::server() {
    if (!server_) {
        server_ = std::make_unique<EtcdServer>();
        server_->start();
    }
    return *server_;
}

StoreAccess &EtcdTest::store() {
    if (!store_) store_ = std::make_unique<StoreAccess>(io, server().endpoint());
    return *store_;
}

void EtcdTest::start(Daemon &daemon) {
    EtcdHooks hooks;
    hooks.is_own_period_open = [&daemon] { return daemon.directory.is_own_period_open; };
    hooks.on_fatal = [&daemon](const std::string &text) { daemon.fatal = text; };
    daemon.engine = std::make_unique<EtcdEngine>(io, daemon.config, hooks);
    daemon.directory.use(daemon.engine.get());
    daemon.engine->start(daemon.directory);
}

std::unique_ptr<Daemon> EtcdTest::launch(const EtcdConfig &config) {
    auto daemon = std::make_unique<Daemon>(config.node);
    daemon->config = config;
    start(*daemon);
    return daemon;
}

std::unique_ptr<Daemon> EtcdTest::join(const EtcdConfig &config) {
    auto daemon = launch(config);
    EXPECT_TRUE(until([&] { return daemon->directory.is_listed(); }));
    return daemon;
}

testing::AssertionResult EtcdTest::until(const std::function<bool()> &condition,
                                         std::chrono::milliseconds most) {
    return run_until(io, condition, most) ? testing::AssertionSuccess()
                                          : testing::AssertionFailure() << "waited in vain";
}

testing::AssertionResult EtcdTest::sees(Daemon &daemon, const std::string &services) {
    if (run_until(io, [&] { return daemon.directory.seen() == services; }))
        return testing::AssertionSuccess();
    testing::AssertionResult failure = testing::AssertionFailure();
    failure << "sees '" << daemon.directory.seen() << "', state " << daemon.engine->status().state;
    for (const ErrorCount &error : daemon.engine->status().errors)
        failure << "; " << error.text << " (" << error.count << ")";
    return failure;
}

testing::AssertionResult EtcdTest::is_written(Daemon &daemon) {
    return until([&] { return daemon.engine->status().waiting == 0; });
}

testing::AssertionResult EtcdTest::audits(Daemon &daemon, std::uint64_t count) {
    const std::uint64_t wanted = daemon.engine->status().audits + count;
    return until([&] { return daemon.engine->status().audits >= wanted; });
}

} // namespace relay_test
