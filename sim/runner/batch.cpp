#include "sim/runner/batch.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace ds::sim {

namespace {

using WallClock = std::chrono::steady_clock;

// One process, which runs every n-th job.
struct Worker {
    pid_t process = -1;
    int pipe = -1;
    std::size_t next = 0; // the job that it runs, or runs next
    bool is_running = false;
    WallClock::time_point since;
};

class Batch {
  public:
    Batch(const std::vector<Job> &jobs, int processes, int seconds_max,
          const std::function<bool(const Verdict &)> &take)
        : jobs_(jobs), stride_(static_cast<std::size_t>(processes)), longest_(seconds_max),
          take_(take), workers_(stride_) {
        for (std::size_t i = 0; i < workers_.size(); i++)
            begin(workers_[i], i);
    }
    ~Batch() {
        for (Worker &worker : workers_)
            end(worker);
    }
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;

    void run() {
        while (!is_over_) {
            std::vector<pollfd> waited;
            for (const Worker &worker : workers_)
                if (worker.pipe >= 0) waited.push_back({worker.pipe, POLLIN, 0});
            if (waited.empty()) return;
            poll(waited.data(), waited.size(), 1000);
            for (const pollfd &ready : waited)
                for (Worker &worker : workers_)
                    if (worker.pipe == ready.fd && ready.revents != 0 && !is_over_)
                        read_from(worker);
            for (Worker &worker : workers_)
                if (worker.is_running && WallClock::now() - worker.since > longest_ && !is_over_)
                    fail(worker, Ending::stuck);
        }
    }

  private:
    void begin(Worker &worker, std::size_t first) {
        worker = {};
        worker.next = first;
        if (first >= jobs_.size()) return;
        int ends[2] = {};
        if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
        std::fflush(nullptr);
        worker.process = fork();
        if (worker.process < 0) std::abort();
        if (worker.process == 0) work(ends[1], first);
        close(ends[1]);
        worker.pipe = ends[0];
        worker.since = WallClock::now();
        worker.is_running = true;
    }

    [[noreturn]] void work(int pipe, std::size_t first) {
        for (std::size_t i = first; i < jobs_.size(); i += stride_) {
            Verdict verdict = run_here(plan_of(jobs_[i]), false);
            verdict.index = i;
            if (write(pipe, &verdict, sizeof verdict) != static_cast<ssize_t>(sizeof verdict))
                _exit(1);
        }
        _exit(0);
    }

    void read_from(Worker &worker) {
        Verdict verdict;
        const ssize_t bytes = read(worker.pipe, &verdict, sizeof verdict);
        if (bytes == static_cast<ssize_t>(sizeof verdict)) {
            worker.next += stride_;
            worker.since = WallClock::now();
            is_over_ = !take_(verdict);
        } else if (worker.next < jobs_.size()) {
            fail(worker, Ending::crashed);
        } else {
            end(worker);
        }
    }

    void fail(Worker &worker, Ending ending) {
        Verdict verdict;
        verdict.ending = ending;
        verdict.index = worker.next;
        verdict.seed = jobs_[worker.next].settings.seed;
        end(worker);
        is_over_ = !take_(verdict);
        if (!is_over_) begin(worker, worker.next + stride_);
    }

    static void end(Worker &worker) {
        if (worker.pipe < 0) return;
        kill(worker.process, SIGKILL);
        waitpid(worker.process, nullptr, 0);
        close(worker.pipe);
        worker.pipe = -1;
        worker.is_running = false;
    }

    const std::vector<Job> &jobs_;
    const std::size_t stride_;
    const std::chrono::seconds longest_;
    const std::function<bool(const Verdict &)> &take_;
    std::vector<Worker> workers_;
    bool is_over_ = false;
};

} // namespace

void run_batch(const std::vector<Job> &jobs, int processes, int seconds_max,
               const std::function<bool(const Verdict &)> &take) {
    Batch(jobs, processes, seconds_max, take).run();
}

} // namespace ds::sim
