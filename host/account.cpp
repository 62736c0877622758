#include "host/account.h"

#include <algorithm>
#include <tuple>

#include "host/users.h"
#include "platform/fts.h"

namespace ds::host {

namespace {

constexpr std::int64_t debt_ns_max = 1'000'000; // a process that had to wait is not to blame

} // namespace

const std::string &Account::name() {
    if (name_.empty()) name_ = user_name(uid);
    return name_;
}

// ---- Accounts ----

Amounts Accounts::limits_of(uid_t uid) const {
    Amounts amounts = limits_.everybody;
    if (const UserLimits *user = limits_.of(uid))
        for (std::size_t i = 0; i < resource_count; i++)
            amounts.values[i] = user->amounts.values[i].value_or(amounts.values[i]);
    return amounts;
}

void Accounts::set_limits(Limits limits) {
    limits_ = std::move(limits);
    for (auto &[uid, account] : accounts_)
        account.limits = limits_of(uid);
}

Account &Accounts::of(uid_t uid) {
    const auto [place, is_new] = accounts_.emplace(
        std::piecewise_construct, std::forward_as_tuple(uid), std::forward_as_tuple(uid));
    if (is_new) place->second.limits = limits_of(uid);
    return place->second;
}

void Accounts::release(Account &account) {
    if (account.used[Resource::sessions] == 0) accounts_.erase(account.uid);
}

std::string Accounts::refusal(Account &account, Resource resource) const {
    if (account.used[resource] < account.limits[resource]) return {};
    const std::string what = resource_names[static_cast<std::size_t>(resource)];
    return "User '" + account.name() + "' has " + std::to_string(account.used[resource]) + " of " +
           std::to_string(account.limits[resource]) + " " + what + "; limits.user." +
           account.name() + "." + what + " or limits." + what + " changes it.";
}

std::string Accounts::refusal_of_sessions(Account &account, std::uint64_t sessions_total) const {
    if (std::string text = refusal(account, Resource::sessions); !text.empty()) return text;
    if (sessions_total < limits_.sessions_total) return {};
    return "The daemon has " + std::to_string(sessions_total) + " of " +
           std::to_string(limits_.sessions_total) + " sessions; limits.sessions_total changes it.";
}

// ---- Shares ----

std::int64_t Shares::now_ns() {
    return static_cast<std::int64_t>(fts_get_stamp_fast());
}

void Shares::wake(Account &account) {
    if (!account.is_linked()) fresh_.push_back(account);
}

// Whoever overran earlier slices passes until that is made up for, as long as others are waiting.
Account *Shares::next_in_line() {
    while (!backlogged_.empty()) {
        Account &account = backlogged_.front();
        account.credit_ns = std::min(account.credit_ns + slice_ns, slice_ns);
        const bool is_alone = &account == &backlogged_.back();
        if (account.credit_ns > 0 || is_alone) return &account;
        backlogged_.splice(backlogged_.end(), backlogged_, backlogged_.begin());
    }
    return nullptr;
}

void Shares::settle(Account &account) {
    account.credit_ns = std::clamp(slice_end_ns_ - now_ns(), -debt_ns_max, std::int64_t{0});
    if (account.is_linked()) account.unlink(); // its own slice has woken it
    if (account.has_work()) backlogged_.push_back(account);
}

} // namespace ds::host
