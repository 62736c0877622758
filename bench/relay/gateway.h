// A bare client of the store's JSON gateway, on the relay engine's own HTTP client. Calls block:
// they run the client's context until they are answered. Failures throw.
#pragma once
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include "bench/daemon/pairs.h"
#include "bench/relay/store.h"
#include "relay/etcd/http.h"
#include "relay/etcd/messages.h"

namespace ds::bench::replication {

namespace etcd = ds::relay::etcd;
template <typename T> using Task = etcd::Task<T>;

// The bodies of requests.
std::string put_body(const etcd::KeyValue &entry);
// All entries in one transaction, without a condition.
std::string batch_body(std::vector<etcd::KeyValue>::const_iterator begin,
                       std::vector<etcd::KeyValue>::const_iterator end);
// One entry, on condition that the fence holds its value, as the engine writes.
std::string fenced_body(const etcd::KeyValue &entry, const etcd::KeyValue &fence);

inline constexpr std::string_view put_path = "/v3/kv/put";
inline constexpr std::string_view transaction_path = "/v3/kv/txn";

class Gateway {
  public:
    explicit Gateway(const std::string &endpoint);
    ~Gateway();
    Gateway(const Gateway &) = delete;
    Gateway &operator=(const Gateway &) = delete;

    etcd::Client &client() { return client_; }

    std::string call(std::string_view path, std::string body);
    // Everything in the range.
    std::vector<etcd::KeyValue> list(etcd::KeyRange range);
    Metrics metrics();

    // Begins something that goes on beside what follows. Its failure is thrown by run_until().
    void begin(Task<void> task);
    // Serves until the condition holds.
    template <typename Condition> void run_until(Condition &&condition) {
        while (!condition()) {
            io_.run_one();
            if (failure_) std::rethrow_exception(failure_);
        }
    }

  private:
    boost::asio::io_context io_;
    etcd::Client client_;
    std::exception_ptr failure_;
};

// A stream of the changes of a range, from now on. Its gateway serves it, and outlives it.
class Watch {
  public:
    Watch(Gateway &gateway, const etcd::KeyRange &range); // returns when the stream has begun

    std::uint64_t events() const { return state_->events; }
    Clock::time_point last() const { return state_->last; } // when the newest was decoded

  private:
    struct State {
        bool is_created = false;
        std::uint64_t events = 0;
        Clock::time_point last;
    };
    static Task<void> follow(etcd::Client &client, std::string request,
                             std::shared_ptr<State> state);

    std::shared_ptr<State> state_ = std::make_shared<State>();
};

} // namespace ds::bench::replication
