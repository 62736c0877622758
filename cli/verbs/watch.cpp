// dsctl watch: what is published under some names, and every change of it.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/change_text.h"
#include "cli/context.h"
#include "cli/directory.h"
#include "cli/help.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/wait.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Shows the instances of each NAME (lines with =), then a line for every change:\n"
    "  + appeared   ~ changed   - gone\n"
    "Runs until Ctrl-C or SIGTERM, which end it with 0. A watcher that reads slowly is told the\n"
    "newest state, not each step. With -o json or jsonl there is one object a line.";

constexpr char examples[] =
    "Examples:\n"
    "  dsctl watch web\n"
    "  dsctl watch web db -o jsonl\n"
    "  dsctl watch web --once                    is it there? (exit code 3: no)\n"
    "  dsctl watch web --count 1 --timeout 10    wait for a change (exit code 5: none)\n"
    "  dsctl watch web --exec 'echo \"$DS_EVENT $DS_ENDPOINT\" >> web.log'\n"
    "\n"
    "--exec sets DS_EVENT (appeared, changed or gone), DS_NAME, DS_VERSION, DS_INSTANCE,\n"
    "DS_ENDPOINT, DS_HA_ROLE, DS_ISSU_ROLE, DS_ISSU_ID, DS_SCOPE, DS_NODE, DS_LOCAL (1 or 0),\n"
    "DS_ID, DS_GENERATION, DS_PID and DS_REASON. Commands run one after another.\n";

struct Options {
    std::vector<std::string> names;
    bool once = false;
    std::uint64_t count = 0; // 0: without end
    double timeout_s = 0;    // 0: none
    std::string command;
};

// Runs `command` in a shell and waits for its end. Complains when it does not end with 0.
void run_command(const std::string &command, const sigset_t &mask,
                 const std::vector<std::pair<std::string, std::string>> &variables) {
    std::vector<std::string> settings;
    for (char **own = environ; *own != nullptr; own++) {
        if (std::strncmp(*own, "DS_", 3) != 0 || std::strncmp(*own, "DS_SOCKET=", 10) == 0) {
            settings.emplace_back(*own);
        }
    }
    for (const auto &[name, value] : variables)
        settings.push_back(std::string(name).append(1, '=').append(value));
    std::vector<char *> environment;
    environment.reserve(settings.size() + 1);
    for (std::string &setting : settings)
        environment.push_back(setting.data());
    environment.push_back(nullptr);
    std::string text = command;
    char shell[] = "/bin/sh", flag[] = "-c";
    char *const arguments[] = {shell, flag, text.data(), nullptr};

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &mask);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::fflush(stdout);
    pid_t child = -1;
    const int error =
        ::posix_spawn(&child, shell, &files, &attributes, arguments, environment.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) {
        complain(std::string("cannot run /bin/sh: ") + std::strerror(error));
        return;
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR)
        continue;
    if (WIFSIGNALED(status)) {
        complain("the command was ended by signal " + std::to_string(WTERMSIG(status)));
    } else if (WEXITSTATUS(status) != 0) {
        complain("the command ended with " + std::to_string(WEXITSTATUS(status)));
    }
}

class Watcher {
  public:
    Watcher(const Context &context, const Options &options)
        : context_(context), options_(options), lines_(context, options.names),
          snapshots_(options.names.size()), told_(options.names.size(), false) {}

    int run();

  private:
    // What the library calls back with; it is not to be called from there, nor to see exceptions.
    struct Registration {
        Watcher *watcher;
        std::size_t index;
    };
    static void on_snapshot(void *ctx, ds_registration_t *,
                            const ds_client_snapshot_t *snapshot) noexcept;
    static void on_answer(void *ctx, ds_registration_t *,
                          const ds_registration_info_t *info) noexcept;

    int register_names();
    bool take_told();
    void take(std::size_t index, const v1::Snapshot &snapshot);
    void show_first(const v1::Snapshot &snapshot);
    bool handle_changes(const v1::Snapshot &snapshot, const std::vector<Change> &changes);
    bool is_done() const;
    int result() const;
    int finish_once() const;

    const Context &context_;
    const Options &options_;
    ChangeLines lines_;
    StopSignals stop_;
    std::vector<Registration> registrations_;
    std::deque<std::pair<std::size_t, v1::Snapshot>> told_now_; // by the library, not taken yet
    client::Outcome refusal_;
    Daemon daemon_;
    std::vector<v1::Snapshot> snapshots_; // the newest of each name
    std::vector<bool> told_;
    std::uint64_t changes_ = 0;
    bool reconciling_ = false;
};

int Watcher::run() {
    client::Deadline deadline = client::no_deadline;
    if (options_.timeout_s > 0) {
        deadline = client::deadline_in(
            std::chrono::milliseconds(static_cast<std::int64_t>(options_.timeout_s * 1000)));
    }
    if (const int code = connect(context_, daemon_); code != exit_ok) return code;
    if (!options_.once || !context_.is_json()) print(lines_.header());
    if (const int code = register_names(); code != exit_ok) return code;
    for (;;) {
        const client::Outcome outcome = daemon_.dispatch();
        if (take_told()) return result();
        if (!refusal_.ok()) return fail("cannot watch", refusal_);
        if (!outcome.ok()) return fail("watching ended", outcome);
        const Wake wake = wait_for(daemon_, stop_, -1, deadline);
        if (wake.stop) return exit_ok;
        if (wake.timeout) {
            complain("the time is over");
            return exit_timeout;
        }
    }
}

void Watcher::on_snapshot(void *ctx, ds_registration_t *,
                          const ds_client_snapshot_t *snapshot) noexcept {
    const auto &registration = *static_cast<Registration *>(ctx);
    registration.watcher->told_now_.emplace_back(registration.index, to_message(*snapshot));
}

void Watcher::on_answer(void *ctx, ds_registration_t *,
                        const ds_registration_info_t *info) noexcept {
    if (info->state != DS_REGISTRATION_REFUSED) return;
    static_cast<Registration *>(ctx)->watcher->refusal_ = {
        client::Failure::refused, static_cast<v1::Status>(info->status), info->text};
}

int Watcher::register_names() {
    registrations_.reserve(options_.names.size()); // they are given away by address
    for (std::size_t i = 0; i < options_.names.size(); i++) {
        registrations_.push_back({this, i});
        const int error = ds_client_watch(daemon_.get(), options_.names[i].c_str(), on_snapshot,
                                          on_answer, &registrations_.back(), nullptr);
        if (error != DS_CLIENT_OK) return fail("cannot watch", daemon_.outcome_of(error));
    }
    return exit_ok;
}

// True when there is nothing more to watch for.
bool Watcher::take_told() {
    while (!told_now_.empty()) {
        const auto [index, snapshot] = std::move(told_now_.front());
        told_now_.pop_front();
        take(index, snapshot);
        if (is_done()) return true;
    }
    return false;
}

void Watcher::take(std::size_t index, const v1::Snapshot &snapshot) {
    if (snapshot.reconciling() && !reconciling_) note_reconciling();
    reconciling_ = snapshot.reconciling();
    if (!told_[index]) {
        told_[index] = true;
        snapshots_[index] = snapshot;
        if (!options_.once) show_first(snapshot);
        return;
    }
    if (!handle_changes(snapshot, diff(snapshots_[index], snapshot))) return;
    snapshots_[index] = snapshot;
}

void Watcher::show_first(const v1::Snapshot &snapshot) {
    const std::uint64_t now = wall_now_ns();
    if (snapshot.instances_size() == 0) print(lines_.nothing(snapshot, now));
    for (const Change &change : all_present(snapshot))
        print(lines_.line(snapshot, change, now));
}

// False when enough changes have been told.
bool Watcher::handle_changes(const v1::Snapshot &snapshot, const std::vector<Change> &changes) {
    const std::uint64_t now = wall_now_ns();
    for (const Change &change : changes) {
        print(lines_.line(snapshot, change, now));
        if (!options_.command.empty()) {
            run_command(options_.command, stop_.mask_before(),
                        change_environment(snapshot, change));
        }
        if (++changes_ == options_.count) return false;
    }
    return true;
}

bool Watcher::is_done() const {
    if (options_.once) return std::find(told_.begin(), told_.end(), false) == told_.end();
    return options_.count > 0 && changes_ >= options_.count;
}

int Watcher::result() const {
    return options_.once ? finish_once() : exit_ok;
}

// All snapshots in the order of the names on the command line.
int Watcher::finish_once() const {
    const std::uint64_t now = wall_now_ns();
    bool any = false;
    Json array = Json::array();
    for (const v1::Snapshot &snapshot : snapshots_) {
        any |= snapshot.instances_size() > 0;
        if (context_.format == Format::json) {
            array.push_back(snapshot_json(snapshot));
            continue;
        }
        if (snapshot.instances_size() == 0) print(lines_.nothing(snapshot, now));
        for (const Change &change : all_present(snapshot))
            print(lines_.line(snapshot, change, now));
    }
    if (context_.format == Format::json) print(json_document(array));
    return any ? exit_ok : exit_not_found;
}

std::string check_count(const std::string &text) {
    const bool digits = text.find_first_not_of("0123456789") == text.npos;
    const bool positive = text.find_first_not_of('0') != text.npos;
    return digits && positive && text.size() < 19 ? "" : "a count is a whole number above 0";
}

std::string check_seconds(const std::string &text) {
    char *end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    const bool whole = !text.empty() && *end == '\0';
    return whole && seconds >= 0.001 && seconds <= 1e9 ? "" : "a time is 0.001 to 1e9 seconds";
}

int watch(const Context &context, Options options) {
    std::vector<std::string> names;
    for (const std::string &name : options.names) {
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    options.names = names;
    return Watcher(context, options).run();
}

} // namespace

Action prepare_watch(CLI::App &app) {
    auto options = std::make_shared<Options>();
    app.description(description);
    app.footer(examples);
    app.add_option("NAME", options->names, "Exact names")
        ->required()
        ->type_name("")
        ->check(check_name);
    auto *once =
        app.add_flag("--once", options->once, "Print what is there and end; 3 when nothing is");
    app.add_option("--count", options->count, "End after N changes")
        ->type_name("N")
        ->check(check_count)
        ->excludes(once);
    app.add_option("--timeout", options->timeout_s, "End with 5 when that much time is over")
        ->type_name("SECONDS")
        ->check(check_seconds);
    app.add_option("--exec", options->command, "Run this shell command for every change")
        ->type_name("COMMAND")
        ->excludes(once);
    return [options](const Context &context) { return watch(context, *options); };
}

} // namespace ds::cli
