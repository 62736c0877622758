#include "crew.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <list>
#include <set>
#include <sstream>
#include <stdexcept>

#include "client/ds_client.h"

namespace system_test {

namespace {

constexpr int names_count = 10;
constexpr int first_port = 1000;
constexpr int moved_by = 10'000;

int process_of(int client) {
    return client / Crew::clients_per_process;
}

std::string name_of(int client) {
    return "crew" + std::to_string(client % names_count);
}

std::string instance_of(int client) {
    return "c" + std::to_string(client);
}

void check(int error) {
    if (error != DS_CLIENT_OK) throw std::runtime_error(ds_client_strerror(error));
}

// Instances with their ports, sorted, so that "c1:1001" is found as one.
using Told = std::set<std::string>;

std::string entry_of(int client, int moved) {
    const int port = first_port + client + (process_of(client) == moved ? moved_by : 0);
    return instance_of(client) + ':' + std::to_string(port);
}

Told told_of(const ds_client_snapshot_t &snapshot) {
    Told told;
    for (std::size_t i = 0; i < snapshot.instance_count; i++)
        told.insert(snapshot.instances[i]->instance + std::string(":") +
                    std::to_string(snapshot.instances[i]->ipv4_port));
    return told;
}

Told expected(const std::string &name, int gone, int moved) {
    Told told;
    for (int i = 0; i < Crew::clients_count; i++)
        if (name_of(i) == name && process_of(i) != gone) told.insert(entry_of(i, moved));
    return told;
}

bool has_instance(const Told &told, const std::string &instance) {
    const auto found = told.lower_bound(instance + ':');
    return found != told.end() && found->starts_with(instance + ':');
}

// ---- one watched name ----

struct Watch {
    std::string name;
    int mortal = Crew::none;
    ds_registration_t *registration = nullptr;
    Told told;
    bool knew_everybody = false;
    std::size_t calls = 0;

    static void on_snapshot(void *ctx, ds_registration_t *, const ds_client_snapshot_t *snapshot) {
        static_cast<Watch *>(ctx)->take(*snapshot);
    }

    void take(const ds_client_snapshot_t &snapshot) {
        calls++;
        told = told_of(snapshot);
        std::string missing;
        for (int i = 0; i < Crew::clients_count; i++)
            if (name_of(i) == name && process_of(i) != mortal &&
                !has_instance(told, instance_of(i)))
                missing += ' ' + instance_of(i);
        if (knew_everybody && !missing.empty()) failure = "a watcher was told without" + missing;
        knew_everybody = knew_everybody || missing.empty();
    }

    bool is_settled(int gone, int moved) const {
        ds_registration_info_t info{};
        info.size = sizeof info;
        check(ds_client_registration_get_info(registration, &info));
        const Told wanted = expected(name, gone, moved);
        return info.snapshot != nullptr && info.snapshot->is_reconciling == 0 && told == wanted &&
               told_of(*info.snapshot) == wanted;
    }

    // Of any watch: a callback must not throw.
    static inline std::string failure;
};

// ---- one client ----

class Member {
  public:
    Member(const std::string &socket, int index, int mortal) : index_(index) {
        ds_client_options_t options{};
        options.size = sizeof options;
        options.socket = socket.c_str();
        options.backoff_first_ms = 2;
        options.backoff_max_ms = 40;
        check(ds_client_create(&options, &handle_));
        publish(Crew::none);
        for (const int distance : {0, 1, 5})
            watch(name_of(index + distance), mortal);
    }
    ~Member() { ds_client_destroy(handle_); }
    Member(const Member &) = delete;
    Member &operator=(const Member &) = delete;

    int fd() const { return ds_client_fd(handle_); }
    void dispatch() { check(ds_client_dispatch(handle_)); }

    bool is_lost() const {
        ds_client_info_t info{};
        info.size = sizeof info;
        check(ds_client_get_info(handle_, &info));
        return info.state != DS_CLIENT_CONNECTED;
    }
    // Connected, published, registered and told something.
    bool is_back() {
        const int error = ds_client_sync(handle_, 0);
        if (error != DS_CLIENT_ERROR_TIMEOUT) check(error);
        return error == DS_CLIENT_OK;
    }
    bool is_settled(int gone, int moved) {
        return is_back() && std::ranges::all_of(watches_, [=](const Watch &watch) {
                   return watch.is_settled(gone, moved);
               });
    }
    std::size_t take_calls() {
        std::size_t calls = 0;
        for (Watch &watch : watches_)
            calls += std::exchange(watch.calls, 0);
        return calls;
    }

    void publish(int moved) {
        const std::string name = name_of(index_), instance = instance_of(index_);
        ds_client_service_t service{};
        service.size = sizeof service;
        service.name = name.c_str();
        service.instance = instance.c_str();
        service.scope = index_ % 3 == 0 ? DS_CLIENT_SCOPE_SYSTEM : DS_CLIENT_SCOPE_LOCAL;
        service.ipv4_address = 0x0a000001;
        service.ipv4_port = static_cast<std::uint32_t>(
            first_port + index_ + (process_of(index_) == moved ? moved_by : 0));
        if (publication_ == nullptr)
            check(ds_client_publish(handle_, &service, nullptr, nullptr, &publication_));
        else
            check(ds_client_publication_update(publication_, &service));
    }

  private:
    void watch(const std::string &name, int mortal) {
        Watch &watch = watches_.emplace_back();
        watch.name = name;
        watch.mortal = mortal;
        check(ds_client_watch(handle_, name.c_str(), Watch::on_snapshot, nullptr, &watch,
                              &watch.registration));
    }

    int index_;
    ds_client_handle_t *handle_ = nullptr;
    ds_publication_t *publication_ = nullptr;
    std::list<Watch> watches_;
};

// ---- one process ----

class Muster {
  public:
    Muster(const std::string &socket, int process, int mortal, ClientProcess::Report &report)
        : process_(process), report_(report) {
        for (int i = 0; i < Crew::clients_per_process; i++)
            members_.emplace_back(socket, process * Crew::clients_per_process + i, mortal);
    }

    // Until killed.
    [[noreturn]] void run() {
        for (;;) {
            turn();
            if (!Watch::failure.empty()) throw std::runtime_error(Watch::failure);
            if (!goal_.empty() && is_reached()) goal_.clear();
        }
    }

  private:
    // Whatever was there before a command is dispatched along with it.
    void turn() {
        std::vector<pollfd> items = {{report_.commands(), POLLIN, 0}};
        for (const Member &member : members_)
            items.push_back({member.fd(), POLLIN, 0});
        if (poll(items.data(), items.size(), -1) < 0) throw std::runtime_error("cannot poll");
        auto item = items.begin();
        if (item->revents != 0) goal_ = report_.next_command();
        for (Member &member : members_)
            if ((++item)->revents != 0) member.dispatch();
    }

    bool is_reached() {
        std::istringstream words(goal_);
        std::string what;
        int gone = Crew::none, moved = Crew::none;
        words >> what >> gone >> moved;
        if (what == "settle" && all([=](Member &m) { return m.is_settled(gone, moved); })) {
            std::size_t calls = 0;
            for (Member &member : members_)
                calls += member.take_calls();
            report_.line(std::to_string(calls));
            return true;
        }
        if (what == "back" && all([](Member &m) { return m.is_back(); })) {
            report_.line("back");
            return true;
        }
        if (what == "move" && all([](Member &m) { return m.is_lost(); })) {
            for (Member &member : members_)
                member.publish(process_);
            report_.line("moved");
            return true;
        }
        return false;
    }

    bool all(const std::function<bool(Member &)> &is_so) {
        return std::ranges::all_of(members_, is_so);
    }

    int process_;
    ClientProcess::Report &report_;
    std::list<Member> members_;
    std::string goal_;
};

} // namespace

Crew::Crew(const std::string &socket, int mortal) {
    for (int i = 0; i < processes_count; i++)
        processes_.emplace_back(
            [&, i](ClientProcess::Report &report) { Muster(socket, i, mortal, report).run(); });
}

void Crew::kill(int index) {
    process(index).kill();
    gone_ = index;
}

void Crew::tell(const std::string &command, int except) {
    for (int i = 0; i < processes_count; i++)
        if (i != gone_ && i != except) process(i).tell(command);
}

std::size_t Crew::settle(int moved) {
    tell("settle " + std::to_string(gone_) + ' ' + std::to_string(moved));
    std::size_t calls = 0;
    for (int i = 0; i < processes_count; i++)
        if (i != gone_) calls += std::stoul(process(i).next_line());
    return calls;
}

void Crew::await_back(int except) {
    tell("back", except);
    for (int i = 0; i < processes_count; i++)
        if (i != gone_ && i != except) process(i).next_line();
}

void Crew::move(int index) {
    process(index).tell("move");
    process(index).next_line();
}

} // namespace system_test
