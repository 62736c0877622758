#include "sim/runner/verdict.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/workloads/scenario.h"
#include "sim/world/world.h"

namespace ds::sim {

namespace {

template <std::size_t size> void copy_text(char (&to)[size], const std::string &text) {
    std::snprintf(to, size, "%s", text.c_str());
}

void print_line(const std::string &line) {
    std::puts(line.c_str());
}

} // namespace

const char *text_of(Ending ending) {
    static constexpr const char *texts[] = {"begun", "good", "WRONG", "CRASH", "STUCK"};
    return texts[static_cast<int>(ending)];
}

Plan plan_of(const Job &job) {
    return find_scenario(job.scenario)->make(job.settings);
}

Verdict run_here(const Plan &plan, bool prints_trace) {
    World world(plan, prints_trace ? Trace::Sink(print_line) : Trace::Sink());
    const Outcome outcome = world.run();
    Verdict verdict;
    verdict.seed = plan.settings.seed;
    verdict.hash = outcome.hash;
    verdict.events = outcome.events;
    verdict.time = outcome.time;
    verdict.ending = Ending::good;
    if (!outcome.violation) return verdict;
    verdict.ending = outcome.violation->checker == "stuck" ? Ending::stuck : Ending::wrong;
    verdict.failed_at = outcome.violation->at;
    copy_text(verdict.checker, outcome.violation->checker);
    copy_text(verdict.text, outcome.violation->text);
    return verdict;
}

Verdict run_apart(const Plan &plan, int seconds_max) {
    int ends[2] = {};
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) std::abort();
    if (child == 0) {
        const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nothing, STDERR_FILENO); // the report of the first crash is enough
        const Verdict verdict = run_here(plan, false);
        const ssize_t written = write(ends[1], &verdict, sizeof verdict);
        _exit(written == static_cast<ssize_t>(sizeof verdict) ? 0 : 1);
    }
    close(ends[1]);
    Verdict verdict;
    verdict.seed = plan.settings.seed;
    pollfd waited = {ends[0], POLLIN, 0};
    if (poll(&waited, 1, seconds_max * 1000) == 0) {
        kill(child, SIGKILL);
        verdict.ending = Ending::stuck;
    } else if (read(ends[0], &verdict, sizeof verdict) != static_cast<ssize_t>(sizeof verdict)) {
        verdict.ending = Ending::crashed;
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return verdict;
}

} // namespace ds::sim
