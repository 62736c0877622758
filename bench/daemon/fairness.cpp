// How long one user's flood makes another user wait.
//
// The quiet client changes one publication of its own, each change after the answer to the one
// before: in turns alone and while a process of another user floods the daemon, so that what else
// the machine does weighs on both alike. The daemon and the quiet client have the first processor
// and the flood has the others, and the quiet client runs as soon as it can: what is measured is
// how the daemon shares its time, not how the kernel shares the machine's.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "floods.h"
#include "link.h"
#include "scenarios.h"

namespace ds::bench {

namespace {

constexpr uid_t other_user = 65534; // nobody
constexpr int rounds = 4;           // of being alone and being flooded, in one run

int checked(int result, const char *what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

// ---- processors ----

// With only one processor there is nothing to share out.
void pin(pid_t pid, bool to_first) {
    cpu_set_t all, some;
    CPU_ZERO(&all);
    CPU_ZERO(&some);
    if (sched_getaffinity(0, sizeof all, &all) != 0) return;
    bool is_first = true;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
        if (!CPU_ISSET(cpu, &all)) continue;
        if (is_first == to_first) CPU_SET(cpu, &some);
        is_first = false;
    }
    if (CPU_COUNT(&some) > 0) sched_setaffinity(pid, sizeof some, &some);
}

// Lets a process run before everything that only wants to run, and before what is less urgent.
bool prefer(pid_t pid, int urgency) {
    const sched_param priority = {.sched_priority = urgency};
    return sched_setscheduler(pid, urgency > 0 ? SCHED_FIFO : SCHED_OTHER, &priority) == 0;
}

// Puts this process beside the server, and before it; the destructor takes it back.
class Preferred {
  public:
    Preferred() {
        CPU_ZERO(&before_);
        checked(sched_getaffinity(0, sizeof before_, &before_), "sched_getaffinity");
        pin(0, true);
        prefer(0, 2);
    }
    ~Preferred() {
        prefer(0, 0);
        sched_setaffinity(0, sizeof before_, &before_);
    }
    Preferred(const Preferred &) = delete;
    Preferred &operator=(const Preferred &) = delete;

  private:
    cpu_set_t before_;
};

// ---- the other user ----

// A process of the other user that floods.
class FloodProcess {
  public:
    FloodProcess(const Flood &flood, const std::string &socket) {
        int ends[2];
        checked(pipe2(ends, O_CLOEXEC), "pipe");
        pid_ = checked(fork(), "fork");
        if (pid_ == 0) run(flood, socket, ends[1]);
        close(ends[1]);
        char byte = 0;
        const bool has_begun = read(ends[0], &byte, 1) == 1;
        close(ends[0]);
        if (!has_begun) throw std::runtime_error(std::string("no flood of ") + flood.name);
    }
    ~FloodProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    FloodProcess(const FloodProcess &) = delete;
    FloodProcess &operator=(const FloodProcess &) = delete;

    bool is_alive() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

  private:
    [[noreturn]] static void run(const Flood &flood, const std::string &socket, int begun) {
        pin(0, false);
        const bool is_root = geteuid() == 0;
        if (is_root &&
            (setgroups(0, nullptr) != 0 || setgid(other_user) != 0 || setuid(other_user) != 0))
            _exit(1);
        prctl(PR_SET_PDEATHSIG, SIGKILL); // behind setuid(), which takes it back
        try {
            flood.run(socket, [begun] { [[maybe_unused]] auto told = write(begun, "b", 1); });
        } catch (const std::exception &error) {
            std::fprintf(stderr, "dsbench: flood of %s: %s\n", flood.name, error.what());
        }
        _exit(1);
    }

    pid_t pid_ = -1;
};

// ---- the quiet client ----

class Quiet {
  public:
    explicit Quiet(const std::string &socket) : link_(socket), request_(publish_request()) {
        request_.mutable_publish()->set_name("quiet");
    }
    // What the last flood has left is cleared away.
    void await_quiet() {
        v1::Request status;
        status.mutable_status();
        for (std::uint32_t sessions = 0; sessions != 1;) {
            link_.put(status);
            link_.flush();
            link_.take(true, [&sessions](const v1::Event &event) {
                sessions = event.reply().status_info().sessions();
            });
        }
    }
    void measure(double seconds, std::vector<double> &samples_us) {
        constexpr double us_per_s = 1e6;
        const auto start = Clock::now();
        while (seconds_since(start) < seconds) {
            const auto sent = Clock::now();
            link_.put(request_);
            link_.flush();
            link_.await_replies(1);
            samples_us.push_back(seconds_since(sent) * us_per_s);
        }
    }

  private:
    Link link_;
    v1::Request request_;
};

void measure_under(const Flood &flood, const Options &options, Figures &figures) {
    const ServerProcess server(options.programs, Kind::daemon);
    pin(server.pid(), true);
    if (!prefer(server.pid(), 1))
        std::fprintf(stderr, "dsbench: the server has to wait for the processor like others\n");
    Quiet quiet(server.socket());
    std::vector<double> alone, flooded;
    for (int round = 0; round < rounds; round++) {
        {
            quiet.await_quiet();
            const Preferred preferred;
            quiet.measure(options.seconds / rounds, alone);
        }
        const FloodProcess process(flood, server.socket());
        const Preferred preferred;
        quiet.measure(options.seconds / rounds, flooded);
        if (!process.is_alive())
            throw std::runtime_error(std::string("the flood of ") + flood.name + " has ended");
    }
    for (const auto &[name, share] : {std::pair("p50", 0.50), std::pair("p99", 0.99)}) {
        const std::string prefix = std::string("fairness_") + flood.name + "_" + name + "_";
        const double before = percentile(alone, share), after = percentile(flooded, share);
        figures.add(Kind::daemon, prefix + "alone", "us", before);
        figures.add(Kind::daemon, prefix + "flooded", "us", after);
        figures.add(Kind::daemon, prefix + "ratio", "", after / before);
    }
}

} // namespace

void measure_fairness(const Options &options, Figures &figures) {
    if (geteuid() != 0)
        std::fprintf(stderr, "dsbench: without root the flood is of the same user, and what is "
                             "measured is not how users share the daemon\n");
    for (int run = 0; run < options.runs; run++)
        for (const Flood &flood : floods())
            measure_under(flood, options, figures);
}

} // namespace ds::bench
