// One connected client: its socket, what it sent and has not been handled, what it is to be told,
// what it watches.
//
//   greeting     until a Hello was accepted; the directory does not know the client
//   open         requests are handled
//   draining     nothing is read any more, the client departs; goes when its last bytes are out
//   gone         the socket is of no use; goes when the client has departed
//
// Nothing is done when the socket gets ready but to queue the session: its requests are handled and
// its output is sent in the slices of its user (account.h).
//
// A session that does not take its answers is not read from: above answers_bytes_max unsent bytes
// its requests wait, in the kernel and in the reader, until fewer than answers_bytes_resume are
// left. When all the sessions of its user together exceed the user's limit, every one of them that
// has unsent bytes waits until it has none.
#pragma once
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ds_server_lib.h"
#include "host/account.h"
#include "host/frame_reader.h"
#include "host/loop.h"
#include "host/outbound.h"
#include "host/policy.h"
#include "host/unique_fd.h"

namespace ds::host {

class Server;

class Session final : public Handler {
  public:
    static constexpr std::size_t answers_bytes_max = 262'144;
    static constexpr std::size_t answers_bytes_resume = 65'536;

    // Throws std::system_error when the loop cannot watch the connection.
    Session(Server &server, std::uint64_t id, UniqueFd connection, const ucred &credentials,
            Account &account);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    std::uint64_t id() const { return id_; }
    uid_t uid() const { return account_.uid; }
    Account &account() { return account_; }
    const Peer &peer();
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

    // The session's publications, to be counted by whoever makes and ends them.
    void add_publication();
    void remove_publication();

    // ---- sending; in the slices of the user, behind the requests that were handled before ----

    // Where whole frames are appended.
    std::string &replies();
    void mark(Registration &registration); // to be told the latest state
    void mark_reconciled();                // what was told while a restart period was open
    void flush();                          // what goes into one write
    std::size_t unsent_bytes() const { return outbound_.unsent_bytes(); }

    // ---- ending ----

    void end();   // the client departs; what is queued is still sent
    void drain(); // the same without the departure: the whole directory stops
    void gone();  // nothing more is sent

    // ---- the loop's side ----

    void on_ready(std::uint32_t events) override;
    bool serve(); // requests, or the departure, as far as the slice goes; false: there is more
    void queue_to_serve(bool in_front = false);
    void resume_if_taken();

  private:
    enum class State { greeting, open, draining, gone };

    bool has_to_wait() const;
    bool handle_next();
    bool read();
    void pause();
    void depart();
    void go_on_departing();
    bool is_reading() const { return state_ == State::greeting || state_ == State::open; }
    void schedule();
    void count_unsent();
    void update_interest();

    Server &server_;
    const std::uint64_t id_;
    UniqueFd fd_;
    Account &account_;
    const pid_t pid_;
    const gid_t gid_;
    std::optional<Peer> peer_;
    State state_ = State::greeting;
    bool is_blocked_ = false;  // the socket was full; EPOLLOUT says when it is not
    bool has_input_ = false;   // the socket may hold bytes
    bool has_ended_ = false;   // the client sends nothing more, but for what the socket holds
    bool has_hung_up_ = false; // nor does it read
    Waiting to_serve_{*this};
    Waiting to_flush_{*this};
    Waiting paused_{*this};
    std::size_t counted_unsent_ = 0;
    std::uint64_t publications_ = 0;
    std::uint32_t interest_ = 0;
    ds_client_t *client_ = nullptr;
    FrameReader reader_;
    Outbound outbound_;
    std::unordered_map<std::uint32_t, std::unique_ptr<Registration>> registrations_; // by handle
    std::unique_ptr<Registration> unfinished_;
};

} // namespace ds::host
