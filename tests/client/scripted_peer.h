// A daemon that does exactly what a test says, in the test's own thread: the client library never
// waits, so both ends take turns.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "ds.pb.h"

namespace client_test {

namespace v1 = ds::v1;

class ScriptedPeer {
  public:
    ScriptedPeer(); // listens in a folder of its own
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer &) = delete;
    ScriptedPeer &operator=(const ScriptedPeer &) = delete;

    const std::string &path() const { return path_; }

    void accept();               // the connection that waits; an earlier one is closed
    void greet();                // reads the greeting and answers it
    bool has_connection() const; // whether one waits
    bool has_request() const;    // whether something can be read at once
    v1::Request read_request();  // fails the test when none comes
    bool is_ended();             // whether the client has closed, with nothing left to read
    void hang_up();
    void stop_listening(); // nobody is at the path from now on
    void listen();         // again
    // Connections of nobody, until the queue of the listener takes no more; and their end.
    void fill_queue();
    void empty_queue();

    void send(const v1::Event &event) { send_bytes(frame_of(event)); }
    void send_bytes(std::string_view bytes);
    static std::string frame_of(const v1::Event &event);

    // Reads a request of the kind and answers it.
    v1::Request accept_publish(std::uint32_t service_id, std::uint32_t generation = 1);
    v1::Request accept_register(std::uint32_t handle = 1);
    v1::Request refuse(v1::Status status, const std::string &text);
    v1::Request acknowledge();

  private:
    std::string folder_, path_;
    int listener_ = -1;
    int fd_ = -1;
    std::vector<int> strangers_;
    std::string in_;
};

v1::Event reply_to(const v1::Request &request, v1::Status status = v1::STATUS_OK,
                   const std::string &text = "");

// "instance:port" joined by blanks is what `instances` says, each on node 02:00:00:00:00:01 with
// pid 100, scope LOCAL and the service ids first_id, first_id + 1, ...
v1::Snapshot snapshot_of(const std::string &name, const std::string &instances,
                         std::uint64_t version = 1, std::uint32_t first_id = 1);
v1::Event notify(const v1::Request &registration, v1::Snapshot snapshot, bool reconciling = false);

} // namespace client_test
