// A server without a socket: sessions are made of socket pairs, and the test turns the loop.
//
// The directory lives as long as the process, so all tests of a run share one server. Every test
// uses names of its own and ends its sessions.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "ds.pb.h"
#include "host/server.h"

namespace ds::host {

Server &shared_server();
// For tests with a server of their own, while it lives; null: the shared one again.
void replace_shared_server(Loop *loop, Server *server);
std::uint64_t shared_time_ns(); // of shared loops
Loop &shared_loop();
void advance_time(std::uint64_t ns); // of the shared loop

v1::Publish a_publication(std::string name, std::string instance = {});

// The far end of a session.
class Client {
  public:
    explicit Client(int send_buffer_bytes = 0); // of the daemon's socket; 0: the usual one
    ~Client(); // disconnects, and turns the loop until the daemon has noticed

    std::uint64_t hello();                   // the id of the session
    std::uint32_t send(v1::Request request); // returns the sequence number it chose
    void send_bytes(std::string_view bytes);
    // Turns the loop until the next event has come.
    v1::Event receive();
    v1::Reply receive_reply();
    v1::Reply call(v1::Request request);
    bool is_disconnected(); // by the daemon
    int fd() const { return fd_.get(); }

  private:
    bool receive_more();

    UniqueFd fd_;
    std::string received_;
    std::uint32_t last_seq_ = 0;
};

v1::Request publish_request(std::string name, std::string instance = {});
v1::Request register_request(std::string name, std::uint64_t cookie = 0);

} // namespace ds::host
