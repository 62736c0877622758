#include "host/requests.h"

#include <google/protobuf/stubs/logging.h>

#include "host/handlers.h"
#include "host/server.h"
#include "host/session.h"
#include "host/wire.h"

namespace ds::host {

namespace {

using v1::Request;

struct Row {
    Request::BodyCase kind;
    void (*handle)(Call &call);
};

constexpr Row rows[] = {
    {Request::kHello, handle_hello},           {Request::kPublish, handle_publish},
    {Request::kWithdraw, handle_withdraw},     {Request::kRegister, handle_register},
    {Request::kUnregister, handle_unregister}, {Request::kList, handle_list},
    {Request::kStatus, handle_status},         {Request::kDump, handle_dump},
    {Request::kStats, handle_stats},           {Request::kNodes, handle_nodes},
};

const Row *row_of(Request::BodyCase kind) {
    for (const Row &row : rows)
        if (row.kind == kind) return &row;
    return nullptr;
}

// What is wrong with the message's place in the conversation; null when nothing is.
const char *protocol_fault(const Request &request, bool is_open) {
    if (request.seq() == 0) return "seq is 0; every request needs a number of its own.";
    if (row_of(request.body_case()) == nullptr)
        return "The request has no body that this daemon knows.";
    if (!is_open && !request.has_hello()) return "The first request of a session has to be Hello.";
    if (is_open && request.has_hello()) return "Hello was given already; it opens a session once.";
    if (request.has_hello() && request.hello().protocol() == 0)
        return "hello.protocol is 0; this daemon speaks version 1.";
    return nullptr;
}

google::protobuf::ArenaOptions arena_options(char *block, std::size_t bytes) {
    google::protobuf::ArenaOptions options;
    options.initial_block = block;
    options.initial_block_size = bytes;
    return options;
}

} // namespace

Requests::Requests(Server &server)
    : server_(server), arena_(arena_options(arena_block_, sizeof arena_block_)) {
    // What a client gets wrong is answered; it does not go to the daemon's stderr.
    google::protobuf::SetLogHandler(nullptr);
}

void Requests::handle(Session &session, std::string_view message) {
    answer(session, message);
    arena_.Reset();
}

void Requests::answer(Session &session, std::string_view message) {
    auto &request = *google::protobuf::Arena::CreateMessage<Request>(&arena_);
    const bool is_readable =
        request.ParseFromArray(message.data(), static_cast<int>(message.size()));
    if (!is_readable)
        return break_off(session, request.seq(), "The frame cannot be read as a Request.");
    if (const char *fault = protocol_fault(request, session.client() != nullptr))
        return break_off(session, request.seq(), fault);

    reply_.Clear();
    reply_.set_seq(request.seq());
    page_.clear();
    Call call = {server_, session, request, reply_, page_};
    row_of(request.body_case())->handle(call);
    const bool is_page = request.has_list() && reply_.status() == v1::STATUS_OK;
    if (is_page)
        append_list_reply(session.replies(), request.seq(), page_);
    else
        append_event(session.replies(), v1::Event::kReplyFieldNumber, reply_);
}

void Requests::refuse_frame(Session &session) {
    break_off(session, 0, "The frame is longer than 1048576 bytes.");
}

void Requests::break_off(Session &session, std::uint32_t seq, const char *text) {
    server_.counters().bad_frames++;
    reply_.Clear();
    reply_.set_seq(seq);
    refuse(reply_, v1::STATUS_PROTOCOL, text);
    append_event(session.replies(), v1::Event::kReplyFieldNumber, reply_);
    session.end();
}

} // namespace ds::host
