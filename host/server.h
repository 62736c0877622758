// The daemon without its start: the sessions around the one directory, and the turn they share.
//
// Sessions whose sockets got ready, and sessions that have something to send, wait in the queues of
// their users, and a turn gives slices to users (account.h). Handling a request only marks who has
// to be told; a session gets its answers and then its notifications in one write.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "host/account.h"
#include "host/config.h"
#include "host/directory.h"
#include "host/listener.h"
#include "host/loop.h"
#include "host/outbound.h"
#include "host/requests.h"
#include "host/restart.h"
#include "host/session_table.h"
#include "host/unique_fd.h"
#include "relay/engine.h"

namespace ds::host {

class Server final : private DirectoryClients {
  public:
    // `sum` holds what the daemon before this one published, and what this one does.
    Server(Loop &loop, const Config &config, relay::Engine &engine, PublicationSum &sum,
           UniqueFd listening_socket);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Takes no more connections and requests, sends what is queued for at most a second, then stops
    // the loop. Watchers are not told that the publications end: their connection ends.
    void stop();

    // Puts these rules and limits in the place of the former ones. What exists stays.
    void set_policy(std::vector<Rule> rules, Limits limits);

    // Makes a session of a connection, or tells it which limit forbids it; for the listener and for
    // tests that bring their own socket.
    void accept(UniqueFd connection);

    // ---- what sessions and requests work with ----

    Loop &loop() { return loop_; }
    Directory &directory() { return directory_; }
    Restart &restart() { return restart_; }
    Requests &requests() { return requests_; }
    Shares &shares() { return shares_; }
    const Accounts &accounts() const { return accounts_; }
    const std::vector<Rule> &rules() const { return rules_; }
    Output &fresh_output(); // its snapshots are of the present state
    Counters &counters() { return output_.counters; }
    const SessionTable &sessions() const { return sessions_; }
    const Config &config() const { return config_; }
    const relay::Engine &engine() const { return engine_; }
    std::uint64_t uptime_ms() const;
    std::size_t queued_bytes() const;

    bool is_stopping() const { return is_stopping_; }

    void resume_paused(Account &account);
    void remove_later(const Session &session) { to_remove_.push_back(session.id()); }
    // Lets go of an ended session that does not take its last bytes in time.
    void limit_drain(const Session &session);

  private:
    void on_registration_changed(std::uint64_t argument) override;
    long process_id(std::uint64_t client) override;
    const char *process_name(std::uint64_t client) override;

    void listen_if_clients_are_taken();
    void refuse(UniqueFd connection, std::string text);
    void serve(Account &account);
    void end_overdue_drains();
    void tell_end_of_restart();
    void end_turn();
    void remove_gone();

    Loop &loop_;
    const Config &config_;
    relay::Engine &engine_;
    Directory directory_;
    Restart restart_;
    Requests requests_;
    Output output_;
    std::uint64_t changes_encoded_ = 0; // of the directory, when the snapshots were encoded
    std::vector<Rule> rules_;
    Accounts accounts_;
    Shares shares_;
    SessionTable sessions_;     // behind the accounts, which the sessions leave at their end
    UniqueFd listening_socket_; // until clients are taken
    std::optional<Listener> listener_;
    std::vector<std::uint64_t> to_remove_;
    struct Drain {
        std::uint64_t deadline_ns;
        std::uint64_t session;
    };
    std::deque<Drain> drains_; // in the order of their deadlines
    Alarm drain_alarm_;
    Alarm stop_alarm_;
    std::uint64_t started_ns_;
    bool is_stopping_ = false;
};

} // namespace ds::host
