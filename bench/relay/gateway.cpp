#include "bench/relay/gateway.h"

namespace ds::bench::replication {

namespace {

constexpr etcd::Duration connect_deadline = std::chrono::seconds(5);
constexpr etcd::Duration call_deadline = std::chrono::seconds(60);
constexpr std::int64_t page_items = 512;

Task<void> call_once(etcd::Client &client, std::string_view path, std::string body,
                     std::optional<std::string> &answer) {
    answer = co_await client.call(path, std::move(body));
}

} // namespace

std::string put_body(const etcd::KeyValue &entry) {
    return R"({"key":")" + etcd::to_base64(entry.key) + R"(","value":")" +
           etcd::to_base64(entry.value) + R"("})";
}

std::string batch_body(std::vector<etcd::KeyValue>::const_iterator begin,
                       std::vector<etcd::KeyValue>::const_iterator end) {
    etcd::Transaction transaction;
    for (auto entry = begin; entry != end; ++entry)
        transaction.on_success.push_back(etcd::put_operation(entry->key, entry->value));
    return etcd::encode_transaction(transaction);
}

std::string fenced_body(const etcd::KeyValue &entry, const etcd::KeyValue &fence) {
    etcd::Transaction transaction;
    transaction.compares = {{fence.key, etcd::Compare::Target::value, 0, fence.value}};
    transaction.on_success = {etcd::put_operation(entry.key, entry.value)};
    return etcd::encode_transaction(transaction);
}

// ---- gateway ----

Gateway::Gateway(const std::string &endpoint)
    : io_(1),
      client_(io_, etcd::parse_endpoint(endpoint), nullptr, connect_deadline, call_deadline) {}

Gateway::~Gateway() {
    client_.close();
}

void Gateway::begin(Task<void> task) {
    boost::asio::co_spawn(io_, std::move(task), [this](std::exception_ptr error) {
        if (error && !failure_) failure_ = error;
    });
}

std::string Gateway::call(std::string_view path, std::string body) {
    std::optional<std::string> answer;
    begin(call_once(client_, path, std::move(body), answer));
    run_until([&] { return answer.has_value(); });
    return std::move(*answer);
}

std::vector<etcd::KeyValue> Gateway::list(etcd::KeyRange range) {
    std::vector<etcd::KeyValue> items;
    etcd::RangeReply page;
    do {
        const etcd::RangeRequest request = {.keys = range, .limit = page_items};
        page = etcd::decode_range(call("/v3/kv/range", etcd::encode_range(request)));
        for (etcd::KeyValue &item : page.items)
            items.push_back(std::move(item));
        if (!items.empty()) range.begin = items.back().key + '\0';
    } while (page.more);
    return items;
}

Metrics Gateway::metrics() {
    return Metrics(call("/metrics", {}));
}

// ---- watch ----

Watch::Watch(Gateway &gateway, const etcd::KeyRange &range) {
    gateway.begin(follow(gateway.client(), etcd::encode_watch(range, 0), state_));
    gateway.run_until([this] { return state_->is_created; });
}

Task<void> Watch::follow(etcd::Client &client, std::string request, std::shared_ptr<State> state) {
    etcd::LineReader lines(co_await client.stream("/v3/watch", std::move(request)));
    for (;;) {
        const std::string line = co_await lines.next_line();
        const etcd::WatchReply reply = etcd::decode_watch(line);
        if (reply.is_cancelled) throw std::runtime_error("the store ended a watch");
        state->is_created = state->is_created || reply.is_created;
        state->events += reply.events.size();
        state->last = Clock::now();
    }
}

} // namespace ds::bench::replication
