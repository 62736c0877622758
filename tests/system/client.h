// A well-behaved client in a test, and the requests tests are made of.
//
// What cannot go on (the connection ended, nothing came in time) throws, which fails the test.
#pragma once
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "client/connection.h"
#include "ds.pb.h"
#include "harness.h"

namespace system_test {

// ---- requests ----

// A publication at 10.0.0.1 with that port.
v1::Request publish_request(std::string_view name, std::string_view instance, std::uint32_t port,
                            v1::Scope scope = v1::SCOPE_LOCAL);
v1::Request path_request(std::string_view name, std::string_view instance, std::string_view path);
v1::Request withdraw_request(std::string_view name, std::string_view instance,
                             v1::Scope scope = v1::SCOPE_LOCAL);
v1::Request withdraw_id_request(std::string_view name, std::uint32_t service_id);
v1::Request dump_request(v1::DumpKind kind, std::string_view name = {});
v1::Request register_request(std::string_view name, std::uint64_t cookie = 0);
v1::Request unregister_request(std::string_view name, std::uint32_t handle);
v1::Request list_request(std::string_view name, std::string_view after = {},
                         std::uint32_t limit = 0);
v1::Request status_request();
v1::Request hello_request(std::string_view display_name = "raw");

// The request as a frame with that sequence number.
std::string frame_of(v1::Request request, std::uint32_t seq);
std::string hello_frame();

// An absolute path of that many bytes.
std::string long_path(std::size_t bytes);

// ---- snapshots ----

// "instance:port" or "instance:path" of each instance, sorted and joined by blanks.
std::string digest(const v1::Snapshot &snapshot);
const v1::Instance *find_instance(const v1::Snapshot &snapshot, std::string_view instance);

// ---- the client ----

class Client {
  public:
    explicit Client(const Daemon &daemon, std::string_view display_name = "test")
        : Client(daemon.socket(), display_name) {}
    explicit Client(const std::string &socket, std::string_view display_name = "test");

    ds::client::Connection &connection() { return connection_; }

    // The answer, whatever its status.
    v1::Reply call(v1::Request request);
    // The answer, which has to be OK.
    v1::Reply ok(v1::Request request);
    // Sends all requests in one go and takes all answers, which have to be OK and in order.
    void pipeline(std::vector<v1::Request> requests);

    v1::Reply publish(std::string_view name, std::string_view instance, std::uint32_t port,
                      v1::Scope scope = v1::SCOPE_LOCAL) {
        return ok(publish_request(name, instance, port, scope));
    }
    void withdraw(std::string_view name, std::string_view instance,
                  v1::Scope scope = v1::SCOPE_LOCAL) {
        ok(withdraw_request(name, instance, scope));
    }
    std::uint32_t watch(std::string_view name, std::uint64_t cookie = 0) {
        return ok(register_request(name, cookie)).handle();
    }
    void unwatch(std::string_view name, std::uint32_t handle) {
        ok(unregister_request(name, handle));
    }
    v1::StatusReply status() { return ok(status_request()).status_info(); }

    // What comes next; has to be of that kind.
    v1::Event event();
    v1::Notification notification();
    v1::Snapshot snapshot() { return notification().snapshot(); }
    // Takes notifications until one is as wanted. Their versions have to rise per handle,
    // except at the end of a restart period.
    v1::Snapshot await(const std::function<bool(const v1::Snapshot &)> &wanted);
    v1::Snapshot await_digest(const std::string &expected);
    // Everything that the daemon has sent by now. All that it does for requests which were answered
    // before, whoever sent them, is included.
    std::vector<v1::Event> events_so_far();
    // Round trips until the daemon has that many sessions, this one included.
    void await_sessions(std::uint32_t count);
    bool is_ended(); // waits for the daemon to end the connection

  private:
    void check_version(const v1::Notification &notification);

    ds::client::Connection connection_;
    std::vector<std::uint64_t> versions_; // by handle: the newest seen
};

} // namespace system_test
