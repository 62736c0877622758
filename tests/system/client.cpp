#include "client.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "proto/frame.h"

namespace system_test {

namespace {

constexpr std::uint32_t address = 0x0a000001; // 10.0.0.1

[[noreturn]] void fail(const std::string &what, const ds::client::Outcome &outcome) {
    throw std::runtime_error(what + ": " + outcome.text);
}

v1::Publish *start_publish(v1::Request &request, std::string_view name, std::string_view instance,
                           v1::Scope scope) {
    v1::Publish *publish = request.mutable_publish();
    publish->set_name(std::string(name));
    publish->set_instance(std::string(instance));
    publish->set_scope(scope);
    return publish;
}

} // namespace

// ---- requests ----

v1::Request publish_request(std::string_view name, std::string_view instance, std::uint32_t port,
                            v1::Scope scope) {
    v1::Request request;
    v1::Ipv4 *ipv4 =
        start_publish(request, name, instance, scope)->mutable_endpoint()->mutable_ipv4();
    ipv4->set_address(address);
    ipv4->set_port(port);
    return request;
}

v1::Request path_request(std::string_view name, std::string_view instance, std::string_view path) {
    v1::Request request;
    start_publish(request, name, instance, v1::SCOPE_LOCAL)
        ->mutable_endpoint()
        ->set_path(std::string(path));
    return request;
}

v1::Request withdraw_request(std::string_view name, std::string_view instance, v1::Scope scope) {
    v1::Request request;
    request.mutable_withdraw()->set_name(std::string(name));
    request.mutable_withdraw()->set_instance(std::string(instance));
    request.mutable_withdraw()->set_scope(scope);
    return request;
}

v1::Request withdraw_id_request(std::string_view name, std::uint32_t service_id) {
    v1::Request request;
    request.mutable_withdraw()->set_name(std::string(name));
    request.mutable_withdraw()->set_service_id(service_id);
    return request;
}

v1::Request dump_request(v1::DumpKind kind, std::string_view name) {
    v1::Request request;
    request.mutable_dump()->set_kind(kind);
    request.mutable_dump()->set_name(std::string(name));
    return request;
}

v1::Request register_request(std::string_view name, std::uint64_t cookie) {
    v1::Request request;
    request.mutable_register_()->set_name(std::string(name));
    request.mutable_register_()->set_cookie(cookie);
    return request;
}

v1::Request unregister_request(std::string_view name, std::uint32_t handle) {
    v1::Request request;
    request.mutable_unregister()->set_name(std::string(name));
    request.mutable_unregister()->set_handle(handle);
    return request;
}

v1::Request list_request(std::string_view name, std::string_view after, std::uint32_t limit) {
    v1::Request request;
    request.mutable_list()->set_name(std::string(name));
    request.mutable_list()->set_after(std::string(after));
    request.mutable_list()->set_limit(limit);
    return request;
}

v1::Request status_request() {
    v1::Request request;
    request.mutable_status();
    return request;
}

v1::Request hello_request(std::string_view display_name) {
    v1::Request request;
    request.mutable_hello()->set_protocol(ds::proto::protocol_version);
    request.mutable_hello()->set_display_name(std::string(display_name));
    return request;
}

std::string frame_of(v1::Request request, std::uint32_t seq) {
    request.set_seq(seq);
    std::string frame;
    ds::proto::append_frame(frame, request);
    return frame;
}

std::string hello_frame() {
    return frame_of(hello_request(), 1);
}

std::string long_path(std::size_t bytes) {
    return '/' + std::string(bytes - 1, 'p');
}

// ---- snapshots ----

std::string digest(const v1::Snapshot &snapshot) {
    std::vector<std::string> parts;
    for (const v1::Instance &instance : snapshot.instances()) {
        const v1::Endpoint &endpoint = instance.endpoint();
        parts.push_back(
            instance.instance() + ':' +
            (endpoint.has_path() ? endpoint.path() : std::to_string(endpoint.ipv4().port())));
    }
    std::sort(parts.begin(), parts.end());
    std::string text;
    for (const std::string &part : parts)
        text += (text.empty() ? "" : " ") + part;
    return text;
}

const v1::Instance *find_instance(const v1::Snapshot &snapshot, std::string_view instance) {
    for (const v1::Instance &candidate : snapshot.instances())
        if (candidate.instance() == instance) return &candidate;
    return nullptr;
}

// ---- the client ----

Client::Client(const std::string &socket, std::string_view display_name) {
    const ds::client::Outcome outcome = connection_.connect(socket, display_name, patience());
    if (!outcome.ok()) fail("cannot connect", outcome);
}

v1::Reply Client::call(v1::Request request) {
    v1::Reply reply;
    const ds::client::Outcome outcome = connection_.call(request, reply, patience());
    if (!outcome.ok() && outcome.failure != ds::client::Failure::refused)
        fail("a request was not answered", outcome);
    return reply;
}

v1::Reply Client::ok(v1::Request request) {
    v1::Reply reply = call(std::move(request));
    if (reply.status() != v1::STATUS_OK)
        throw std::runtime_error("a request was refused: " + reply.text());
    return reply;
}

void Client::pipeline(std::vector<v1::Request> requests) {
    std::deque<std::uint32_t> expected;
    for (v1::Request &request : requests)
        expected.push_back(connection_.send(request));
    while (!expected.empty()) {
        const v1::Event next = event();
        if (!next.has_reply()) throw std::runtime_error("a pipelining client was notified");
        if (next.reply().seq() != expected.front())
            throw std::runtime_error("an answer came out of order");
        if (next.reply().status() != v1::STATUS_OK)
            throw std::runtime_error("a request was refused: " + next.reply().text());
        expected.pop_front();
    }
}

v1::Event Client::event() {
    v1::Event event;
    const ds::client::Outcome outcome = connection_.receive(event, patience());
    if (!outcome.ok()) fail("no event came", outcome);
    return event;
}

v1::Notification Client::notification() {
    const v1::Event next = event();
    if (!next.has_notification()) throw std::runtime_error("the next event is no notification");
    check_version(next.notification());
    return next.notification();
}

void Client::check_version(const v1::Notification &notification) {
    if (versions_.size() <= notification.handle()) versions_.resize(notification.handle() + 1);
    std::uint64_t &newest = versions_[notification.handle()];
    // The end of a restart period is told also when nothing has changed.
    const std::uint64_t least = newest + (notification.snapshot().resynced() ? 0 : 1);
    if (newest != 0 && notification.snapshot().version() < least)
        throw std::runtime_error("version " + std::to_string(notification.snapshot().version()) +
                                 " of " + notification.snapshot().name() + " came after " +
                                 std::to_string(newest));
    newest = notification.snapshot().version();
}

v1::Snapshot Client::await(const std::function<bool(const v1::Snapshot &)> &wanted) {
    for (;;) {
        v1::Snapshot next = snapshot();
        if (wanted(next)) return next;
    }
}

v1::Snapshot Client::await_digest(const std::string &expected) {
    return await([&expected](const v1::Snapshot &next) { return digest(next) == expected; });
}

std::vector<v1::Event> Client::events_so_far() {
    status(); // one turn later everything that was due has been sent
    std::vector<v1::Event> events;
    v1::Event event;
    while (connection_.receive(event, Deadline::min()).ok())
        events.push_back(event);
    return events;
}

void Client::await_sessions(std::uint32_t count) {
    const Deadline deadline = patience();
    while (status().sessions() != count)
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("the sessions do not become " + std::to_string(count));
}

bool Client::is_ended() {
    v1::Event event;
    for (;;) {
        const ds::client::Outcome outcome = connection_.receive(event, patience());
        if (!outcome.ok()) return outcome.failure == ds::client::Failure::closed;
    }
}

} // namespace system_test
