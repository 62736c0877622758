// The users who have sessions: what each has, may have, and the work that waits for each.
//
// Work is shared among users, not among sessions, so that nobody gets more of the daemon by opening
// more sessions. A user's work is done in slices of bounded effort. In each turn of the loop every
// user for whom work has come up since the last turn gets a slice, and of those whose work is not
// done, the next one in line. So whoever asks for little waits for one slice of somebody else's at
// most, however much somebody else asks for.
#pragma once
#include <sys/types.h>

#include <algorithm>
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
    WaitingQueue to_serve;   // sessions with requests, or with a departure to go on with
    WaitingQueue to_flush;   // sessions with something to send
    WaitingQueue paused;     // sessions whose requests wait until data is taken
    std::int64_t credit = 0; // effort that it may still take; below 0 when a slice overran

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
    // About a microsecond of the daemon's time is 16.
    static constexpr std::int64_t effort_per_slice = 512;

    void wake(Account &account); // it has work

    bool has_work() const { return !fresh_.empty() || !backlogged_.empty(); }

    // One turn: calls serve(account) for those who get a slice.
    template <typename Function> void run(Function serve) {
        AccountQueue fresh;
        fresh.swap(fresh_);
        Account *next = next_in_line();
        while (!fresh.empty())
            run_slice(fresh.front(), serve);
        if (next != nullptr) run_slice(*next, serve);
    }

    // Of the slice that runs.
    void spend(std::int64_t effort) { left_ -= effort; }
    bool is_spent() const { return left_ <= 0; }
    // A slice is two parts: work that comes in, and work that goes out. What the first overran, the
    // second lacks.
    void refill() { left_ = std::min(left_, std::int64_t{0}) + effort_per_slice; }

  private:
    static constexpr std::int64_t debt_max = 64 * effort_per_slice;

    Account *next_in_line();
    template <typename Function> void run_slice(Account &account, Function serve) {
        account.unlink();
        left_ = effort_per_slice;
        serve(account);
        settle(account);
    }
    void settle(Account &account);

    AccountQueue fresh_;      // work has come up since they had a slice
    AccountQueue backlogged_; // their slice was not enough, longest waiting first
    std::int64_t left_ = 0;
};

} // namespace ds::host
