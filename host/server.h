// The daemon without its start: the sessions around the one directory, and the turn they share.
//
// A turn reads requests and hands them to the directory; the directory's callbacks only mark who
// has to be told. At the turn's end every session concerned gets its answers and then its
// notifications in one write; answers to a long run of requests leave in portions before that. A
// departure found out while writing changes the directory once more, so the sessions it concerns
// are flushed in a further round of the same turn.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "host/config.h"
#include "host/directory.h"
#include "host/listener.h"
#include "host/loop.h"
#include "host/outbound.h"
#include "host/requests.h"
#include "host/session_table.h"
#include "host/unique_fd.h"
#include "relay/engine.h"

namespace ds::host {

class Server final : private DirectoryClients {
  public:
    Server(Loop &loop, const Config &config, relay::Engine &engine, UniqueFd listening_socket);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Takes no more connections and requests, sends what is queued for at most a second, then stops
    // the loop. Watchers are not told that the publications end: their connection ends.
    void stop();

    // Makes a session of a connection; for the listener and for tests that bring their own socket.
    void accept(UniqueFd connection);

    // ---- what sessions and requests work with ----

    Loop &loop() { return loop_; }
    Directory &directory() { return directory_; }
    Requests &requests() { return requests_; }
    Output &output() { return output_; }
    Counters &counters() { return output_.counters; }
    const SessionTable &sessions() const { return sessions_; }
    const Config &config() const { return config_; }
    const relay::Engine &engine() const { return engine_; }
    std::uint64_t uptime_ms() const;
    std::size_t queued_bytes() const;

    void flush_later(Session &session) { to_flush_.push_back(&session); }
    void resume_later(const Session &session);
    void remove_later(const Session &session) { to_remove_.push_back(session.id()); }
    // Lets go of an ended session that does not take its last bytes in time.
    void limit_drain(const Session &session);

  private:
    void on_registration_changed(std::uint64_t argument) override;
    long process_id(std::uint64_t client) override;
    const char *process_name(std::uint64_t client) override;

    void resume();
    void end_overdue_drains();
    void end_turn();
    void remove_gone();

    Loop &loop_;
    const Config &config_;
    relay::Engine &engine_;
    Directory directory_;
    Requests requests_;
    Output output_;
    SessionTable sessions_;
    std::optional<Listener> listener_;
    std::vector<Session *> to_flush_;
    std::vector<Session *> flushing_;
    std::vector<std::uint64_t> to_resume_;
    std::vector<std::uint64_t> to_remove_;
    struct Drain {
        std::uint64_t deadline_ns;
        std::uint64_t session;
    };
    std::deque<Drain> drains_; // in the order of their deadlines
    Alarm resume_alarm_;
    Alarm drain_alarm_;
    Alarm stop_alarm_;
    std::uint64_t started_ns_;
    bool is_stopping_ = false;
};

} // namespace ds::host
