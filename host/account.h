// The users who have sessions: what each has, may have, and the work that waits for each.
//
// Work is shared among users, not among sessions, so that nobody gets more of the daemon by opening
// more sessions. A user's work is done in rounds: a number of requests is handled, then what they
// brought about is sent, so that many answers leave with one write. A round is done in slices of a
// few microseconds, and between two slices the daemon looks for what has come up meanwhile. In each
// turn of the loop every user for whom work has come up since the last turn gets a slice, and of
// those whose work is not done, the next one in line. So whoever asks for little waits for one
// slice of somebody else's at most, however much somebody else asks for.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <unordered_map>

#include <boost/intrusive/list.hpp>

#include "host/limits.h"

namespace ds::host {

class Session;

// A session's place in a queue; leaves it when the session goes.
struct Waiting
    : boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
    explicit Waiting(Session &of) : session(of) {}
    Session &session;
};
using WaitingQueue = boost::intrusive::list<Waiting, boost::intrusive::constant_time_size<false>>;

struct Account
    : boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
    explicit Account(uid_t of) : uid(of) {}

    const uid_t uid;
    Amounts used;
    Amounts limits;
    WaitingQueue to_serve;       // sessions with requests, or with a departure to go on with
    WaitingQueue to_flush;       // sessions with something to send
    WaitingQueue paused;         // sessions whose requests wait until data is taken
    std::int64_t credit_ns = 0;  // below 0 when slices overran
    std::int64_t round_left = 0; // requests until it is time to send

    bool has_work() const { return !to_serve.empty() || !to_flush.empty(); }
    bool is_above(Resource resource) const { return used[resource] > limits[resource]; }
    // Looked up once.
    const std::string &name();

  private:
    std::string name_;
};
using AccountQueue = boost::intrusive::list<Account, boost::intrusive::constant_time_size<false>>;

class Accounts {
  public:
    explicit Accounts(Limits limits) : limits_(std::move(limits)) {}

    // For the next requests; what is there stays.
    void set_limits(Limits limits);

    Account &of(uid_t uid);         // made at the first call
    void release(Account &account); // forgets it when it has no session
    std::size_t count() const { return accounts_.size(); }

    // Empty when there is room for one more, else a sentence with the limit, the usage and the key.
    std::string refusal(Account &account, Resource resource) const;
    std::string refusal_of_sessions(Account &account, std::uint64_t sessions_total) const;

    template <typename Function> void for_each(Function function) const {
        for (auto &[uid, account] : accounts_)
            function(const_cast<Account &>(account));
    }

  private:
    Amounts limits_of(uid_t uid) const;

    Limits limits_;
    std::unordered_map<uid_t, Account> accounts_;
};

// Who gets the next slice.
class Shares {
  public:
    static constexpr std::int64_t slice_ns = 5'000;
    static constexpr std::int64_t slice_alone_ns = 50'000; // of the only user who has sessions
    static constexpr std::int64_t requests_per_round = 32;

    void wake(Account &account); // it has work

    bool has_work() const { return !fresh_.empty() || !backlogged_.empty(); }

    // One turn: calls serve(account) for those who get a slice.
    template <typename Function> void run(bool is_alone, Function serve) {
        length_ns_ = is_alone ? slice_alone_ns : slice_ns;
        AccountQueue fresh;
        fresh.swap(fresh_);
        Account *next = next_in_line();
        while (!fresh.empty())
            run_slice(fresh.front(), serve);
        if (next != nullptr) run_slice(*next, serve);
    }

    // Whether the slice that runs is over. What was begun is never interrupted.
    bool is_over() const { return now_ns() >= slice_end_ns_; }

  private:
    static std::int64_t now_ns();

    Account *next_in_line();
    template <typename Function> void run_slice(Account &account, Function serve) {
        account.unlink();
        slice_end_ns_ = now_ns() + length_ns_;
        serve(account);
        settle(account);
    }
    void settle(Account &account);

    AccountQueue fresh_;      // work has come up since they had a slice
    AccountQueue backlogged_; // their slice was not enough, longest waiting first
    std::int64_t length_ns_ = slice_ns;
    std::int64_t slice_end_ns_ = 0;
};

} // namespace ds::host
