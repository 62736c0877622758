// Engines on a real etcd, several in one process, driven by one io_context.
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <gtest/gtest.h>

#include "relay/etcd/engine.h"
#include "relay/etcd/http.h"
#include "relay/etcd/keys.h"
#include "relay/etcd/messages.h"
#include "tests/relay/directory_double.h"
#include "tests/relay/etcd_server.h"
#include "tests/relay/updates.h"

namespace relay_test {

namespace asio = boost::asio;
namespace etcd = ds::relay::etcd;

inline constexpr std::chrono::seconds patience(40);

// Runs the loop until the condition holds; false when patience is at its end.
bool run_until(asio::io_context &io, const std::function<bool()> &condition,
               std::chrono::milliseconds most = patience);

// The store as an operator sees it. Calls block, and leave the engines of `io` running.
class StoreAccess {
  public:
    StoreAccess(asio::io_context &io, const std::string &endpoint);
    ~StoreAccess();

    std::string call(const std::string &path, const std::string &body);
    std::int64_t put(const std::string &key, const std::string &value, std::int64_t lease = 0);
    std::int64_t remove(const etcd::KeyRange &range);
    std::vector<etcd::KeyValue> range(const etcd::KeyRange &range);
    std::optional<etcd::KeyValue> get(const std::string &key);
    void compact(std::int64_t revision);
    std::int64_t grant(std::int64_t ttl_s);
    std::int64_t revision();
    // Runs a task of the client to its end.
    template <typename T> T run(etcd::Task<T> task) {
        std::optional<T> result;
        std::exception_ptr error;
        asio::co_spawn(io_, std::move(task), [&](std::exception_ptr failed, T value) {
            if (failed)
                error = failed;
            else
                result = std::move(value);
        });
        if (!run_until(io_, [&] { return result || error; }))
            throw std::runtime_error("the store does not answer");
        if (error) std::rethrow_exception(error);
        return std::move(*result);
    }
    etcd::Client &client() { return *client_; }

  private:
    asio::io_context &io_;
    std::unique_ptr<etcd::Client> client_;
};

// A daemon: its directory, and its engine while it runs.
struct Daemon {
    explicit Daemon(const ds::relay::NodeAddress &node) : directory(node) {}
    DirectoryDouble directory;
    std::unique_ptr<ds::relay::EtcdEngine> engine;
    std::string fatal;
    ds::relay::EtcdConfig config;
};

// Times short enough for tests; everything else as it ships.
ds::relay::EtcdConfig quick_config(std::uint8_t node, std::vector<std::string> endpoints);

class EtcdTest : public testing::Test {
  protected:
    ~EtcdTest() override;

    // A server of the test's own, started at the first use.
    EtcdServer &server();
    StoreAccess &store();
    etcd::Keys keys(const std::string &rack = "default") const { return {"test", rack}; }

    ds::relay::EtcdConfig config(std::uint8_t node) {
        return quick_config(node, {server().endpoint()});
    }
    // Makes the engine of a daemon and starts it.
    std::unique_ptr<Daemon> launch(const ds::relay::EtcdConfig &config);
    void start(Daemon &daemon);
    // As launch(), and waits until the list was delivered.
    std::unique_ptr<Daemon> join(std::uint8_t node) { return join(config(node)); }
    std::unique_ptr<Daemon> join(const ds::relay::EtcdConfig &config);

    testing::AssertionResult until(const std::function<bool()> &condition,
                                   std::chrono::milliseconds most = patience);
    // Until the daemon knows exactly that.
    testing::AssertionResult sees(Daemon &daemon, const std::string &services);
    testing::AssertionResult is_written(Daemon &daemon);
    // Until `count` more audits have passed.
    testing::AssertionResult audits(Daemon &daemon, std::uint64_t count);

    asio::io_context io;

  private:
    std::unique_ptr<EtcdServer> server_;
    std::unique_ptr<StoreAccess> store_;
};

} // namespace relay_test
