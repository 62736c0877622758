// One connected client: its socket, what it sent and has not been handled, what it is to be told,
// what it watches.
//
//   greeting     until a Hello was accepted; the directory does not know the client
//   open         requests are handled
//   draining     nothing is read any more, the client has departed; goes when its last bytes are
//   out gone         the socket is of no use; goes at the end of the turn
//
// A session that does not take its answers is not read from: above answers_bytes_max unsent bytes
// its requests wait, in the kernel and in the reader, until fewer than answers_bytes_resume are
// left.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ds_server_lib.h"
#include "host/frame_reader.h"
#include "host/loop.h"
#include "host/outbound.h"
#include "host/unique_fd.h"

namespace ds::host {

class Server;

class Session final : public Handler {
  public:
    static constexpr std::size_t answers_bytes_max = 262'144;
    static constexpr std::size_t answers_bytes_resume = 65'536;

    Session(Server &server, std::uint64_t id, UniqueFd connection);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    std::uint64_t id() const { return id_; }
    uid_t uid() const { return uid_; }
    // Never 0 or 1, which have a meaning of their own in the directory: a client that is process 1,
    // or has no number in this pid namespace, gets one above all that the kernel gives.
    long process_id() const;
    // Good until the next call.
    const char *process_name() const;

    // ---- the client in the directory; null while greeting and after its departure ----

    ds_client_t *client() const { return client_; }
    void open(ds_client_t *client);

    Registration &add_registration(std::uint64_t cookie); // without its record; finish or drop it
    void finish_registration(Registration &registration, ds_client_reg_t *record);
    void drop_registration(Registration &registration);
    Registration *find_registration(std::uint32_t handle);

    // ---- sending; everything leaves at the end of the turn, but for the answers to a long run of
    // requests, which leave in portions so that the client can go on meanwhile ----

    // Where whole frames are appended.
    std::string &replies();
    void mark(Registration &registration); // to be told the latest state
    void flush();
    std::size_t unsent_bytes() const { return outbound_.unsent_bytes(); }

    // ---- ending ----

    void end();    // the client departs; what is queued is still sent
    void drain();  // the same without the departure: the whole directory stops
    void gone();   // nothing more is sent
    void depart(); // out of the directory, now
    bool is_gone() const { return state_ == State::gone; }

    // ---- the loop's side ----

    void on_ready(std::uint32_t events) override;
    void handle_held_requests(); // those that waited for the client to take its answers

  private:
    enum class State { greeting, open, draining, gone };

    void read();
    void handle(std::string_view bytes);
    void send_answers();
    bool is_reading() const { return state_ == State::greeting || state_ == State::open; }
    void schedule();
    void update_interest();

    Server &server_;
    const std::uint64_t id_;
    UniqueFd fd_;
    pid_t pid_ = 0;
    uid_t uid_ = 0;
    State state_ = State::greeting;
    bool is_scheduled_ = false; // on the turn's list of sessions to flush
    bool is_blocked_ = false;   // the socket was full; EPOLLOUT says when it is not
    bool is_paused_ = false;    // requests wait
    std::uint32_t interest_ = 0;
    ds_client_t *client_ = nullptr;
    FrameReader reader_;
    Outbound outbound_;
    std::unordered_map<std::uint32_t, std::unique_ptr<Registration>> registrations_; // by handle
    std::unique_ptr<Registration> unfinished_;
};

} // namespace ds::host
