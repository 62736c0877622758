// Answers requests: one row per kind, each a check and a call of the directory.
#pragma once
#include <google/protobuf/arena.h>

#include <string>
#include <string_view>

#include "ds.pb.h"

namespace ds::host {

class Server;
class Session;

class Requests {
  public:
    explicit Requests(Server &server);

    // One message of a session. The answer is appended to the session's replies. A message that
    // breaks the protocol is answered with STATUS_PROTOCOL, and the session ends.
    void handle(Session &session, std::string_view message);

    // The same for a length that no frame may have.
    void refuse_frame(Session &session);

  private:
    void answer(Session &session, std::string_view message);
    void break_off(Session &session, std::uint32_t seq, const char *text);

    Server &server_;
    // A request of usual size is parsed without touching the heap.
    alignas(8) char arena_block_[16 * 1024];
    google::protobuf::Arena arena_;
    v1::Reply reply_;
    std::string page_;
};

} // namespace ds::host
