// What clients send: the frame reader must give the same messages however the bytes arrive, and
// the daemon must answer every message or end the session, and forget all of it afterwards.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "host/frame_reader.h"
#include "input.h"
#include "structure.h"
#include "tests/host/directory_fixture.h"

namespace ds::host {
namespace {

using fuzz::Input;
using fuzz::require;

constexpr int turns_max = 1000;

class FarEnd {
  public:
    FarEnd() {
        std::array<int, 2> ends = {};
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) ==
                    0,
                "no socket pair");
        fd_ = UniqueFd(ends[0]);
        shared_server().accept(UniqueFd(ends[1]));
    }

    void send_frame(std::string_view message) {
        std::string frame;
        proto::append_header(frame, message.size());
        frame.append(message);
        send(frame);
        messages_sent_++;
    }

    void send(std::string_view bytes) {
        for (int i = 0; i < turns_max && !bytes.empty() && !has_ended_; i++) {
            const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
            shared_loop().turn(0);
            receive();
        }
    }

    // Whole events only, and no answer that nobody asked for.
    void check_answers(bool all_were_framed) {
        for (int i = 0; i < 8; i++) {
            shared_loop().turn(0);
            receive();
        }
        std::size_t replies = 0;
        std::string_view rest = received_;
        while (!rest.empty()) {
            std::string_view message;
            std::size_t consumed = 0;
            const proto::Cut cut = proto::cut_frame(rest, message, consumed);
            require(cut == proto::Cut::complete, "the daemon's stream ends inside a frame");
            v1::Event event;
            require(event.ParseFromArray(message.data(), static_cast<int>(message.size())),
                    "the daemon's event cannot be read");
            if (event.has_reply()) replies++;
            rest.remove_prefix(consumed);
        }
        if (!all_were_framed) return;
        require(has_ended_ ? replies <= messages_sent_ : replies == messages_sent_,
                "another number of answers than of requests");
    }

  private:
    void receive() {
        std::array<char, 65536> bytes;
        for (;;) {
            const ssize_t count = recv(fd_.get(), bytes.data(), bytes.size(), 0);
            if (count == 0) has_ended_ = true;
            if (count <= 0) return;
            received_.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }

    UniqueFd fd_;
    std::string received_;
    std::size_t messages_sent_ = 0;
    bool has_ended_ = false;
};

// All messages of a stream that arrives in pieces of that size, and how it ended.
std::vector<std::string> messages_of(std::string_view stream, std::size_t piece_bytes) {
    FrameReader reader;
    std::vector<std::string> messages;
    while (!stream.empty()) {
        const std::string piece(stream.substr(0, piece_bytes)); // gone after settle
        stream.remove_prefix(piece.size());
        reader.supply(piece);
        std::string_view message;
        proto::Cut cut = reader.next(message);
        for (; cut == proto::Cut::complete; cut = reader.next(message))
            messages.emplace_back(message);
        if (cut == proto::Cut::too_long) return messages;
        reader.settle();
    }
    return messages;
}

void check_reader(std::string_view stream, std::size_t piece_bytes) {
    require(messages_of(stream, stream.size()) == messages_of(stream, piece_bytes),
            "the messages depend on how the bytes arrive");
}

std::string hello() {
    v1::Request request;
    request.set_seq(1);
    request.mutable_hello()->set_protocol(proto::protocol_version);
    return request.SerializeAsString();
}

std::string text_of(Input &input, std::size_t count) {
    const auto bytes = input.bytes(count);
    return {bytes.begin(), bytes.end()};
}

void talk(Input &input) {
    const std::uint8_t mode = input.byte();
    const bool is_framed = (mode & 1) == 0;
    std::array<FarEnd, 2> ends;
    if ((mode & 2) == 0)
        for (FarEnd &end : ends)
            end.send_frame(hello());
    while (!input.is_at_end()) {
        const std::uint8_t choice = input.byte();
        FarEnd &end = ends[choice & 1];
        const std::string bytes = text_of(input, is_framed ? choice >> 1 : 256);
        if (is_framed)
            end.send_frame(bytes);
        else
            end.send(bytes);
    }
    for (FarEnd &end : ends)
        end.check_answers(is_framed);
}

void check_that_all_is_forgotten() {
    for (int i = 0; i < turns_max && shared_server().sessions().count() != 0; i++)
        shared_loop().turn(0);
    require(shared_server().sessions().count() == 0, "a session outlives its connection");
    auto *db = reinterpret_cast<ds_db_t *>(ds_globals_get()->slot[DS_GLOBAL_SLOT_DB]);
    fuzz::check_structure(db);
    require(db->selem_tree.count == 0, "a name outlives the sessions");
    require(ds_client_get_client_list_head() == nullptr, "a client outlives its session");
}

} // namespace
} // namespace ds::host

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ds::host;
    if (size > 4096) return 0;
    const std::string_view stream(reinterpret_cast<const char *>(data), size);
    if (size > 1) check_reader(stream.substr(1), 1 + data[0] % 16);
    shared_server();
    ds::fuzz::Input input(data, size);
    talk(input);
    check_that_all_is_forgotten();
    return 0;
}
