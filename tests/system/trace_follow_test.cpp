// dsctl trace -f beside a daemon that works, is killed, and starts again.
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include <gtest/gtest.h>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

bool holds(const std::string &text, const std::string &part) {
    return text.find(part) != text.npos;
}

std::string trace_dir(const Daemon &daemon) {
    return daemon.runtime_dir() + "/trace";
}

// A dsctl that follows the trace, from the moment at which it was started.
class Follower {
  public:
    Follower(const std::string &socket, std::vector<std::string> arguments = {})
        : process_(start(socket, std::move(arguments))) {
        out_.writer.reset();
        err_.writer.reset();
        // The titles come when the history has been read.
        await("TIME");
    }

    // Lines until one holds the text; throws when none does. All of them are kept.
    std::string await(const std::string &text) {
        for (;;) {
            const std::string line = next();
            if (holds(line, text)) return line;
        }
    }
    std::string await_complaint(const std::string &text) {
        for (;;) {
            const std::optional<std::string> line = read_line(err_.reader.get(), err_buffer_);
            if (!line) throw std::runtime_error("dsctl ended");
            if (holds(*line, text)) return *line;
        }
    }
    std::string next() {
        std::optional<std::string> line = read_line(out_.reader.get(), buffer_);
        if (!line) throw std::runtime_error("dsctl ended: " + read_to_end(err_.reader.get()));
        seen_.push_back(*line);
        return *line;
    }
    // Every line so far, the titles first.
    const std::vector<std::string> &seen() const { return seen_; }
    void signal(int number) { process_.signal(number); }
    void close_output() { out_.reader.reset(); }
    Exit wait() { return process_.wait(); }
    Exit interrupt() {
        signal(SIGINT);
        return wait();
    }
    pid_t pid() const { return process_.pid(); }

  private:
    Process start(const std::string &socket, std::vector<std::string> arguments) {
        Launch dsctl;
        dsctl.arguments = {dsctl_program(), "trace", "-f", "-n", "0"};
        dsctl.arguments.insert(dsctl.arguments.end(), arguments.begin(), arguments.end());
        dsctl.environment = {"DS_SOCKET=" + socket};
        dsctl.out = out_.writer.get();
        dsctl.err = err_.writer.get();
        return launch(dsctl);
    }

    Pipe out_;
    Pipe err_;
    Process process_;
    std::string buffer_;
    std::string err_buffer_;
    std::vector<std::string> seen_;
};

using TraceFollow = System;

TEST_F(TraceFollow, what_happens_is_shown_as_it_happens_and_an_interrupt_ends_it_with_0) {
    Client client(daemon);
    client.publish("before", "", 1);
    Follower follower(daemon.socket());

    client.publish("web", "blue", 80);
    EXPECT_TRUE(holds(follower.await("[DS_PUBLISH_SERVICE]"), "pub web@LOCAL/gen:1"));
    client.withdraw("web", "blue");
    EXPECT_TRUE(holds(follower.await("[DS_DELETED_SERVICE]"), "delete web@LOCAL/gen:1"));

    EXPECT_EQ(follower.interrupt(), (Exit{0, 0}));
    for (const std::string &line : follower.seen())
        EXPECT_FALSE(holds(line, "before")) << line;
}

TEST_F(TraceFollow, its_lines_are_those_that_the_files_hold_in_the_same_order) {
    Follower follower(daemon.socket());
    Client client(daemon);
    client.watch("web");
    for (std::uint32_t i = 1; i <= 500; i++)
        client.publish("web", "i" + std::to_string(i % 9), i);
    client.publish("last", "", 1);

    follower.await("PROC ID");
    follower.await("[DS_NOTIF_SERVICE_EXP_3]                   [DS]: -->>");
    while (!holds(follower.seen().back(), " last"))
        follower.next();
    while (!(holds(follower.seen().back(), " last") && holds(follower.seen().back(), "notif")))
        follower.next();
    const Finished all = run_dsctl(daemon.socket(), {"trace", "--all"});

    std::string followed;
    for (const std::string &line : follower.seen())
        followed += line + '\n';
    EXPECT_EQ(followed, all.out);
    EXPECT_EQ(follower.interrupt(), (Exit{0, 0}));
}

TEST_F(TraceFollow, only_what_the_filters_take_is_shown) {
    Follower follower(daemon.socket(), {"--channel", "pub", "--name", "web"});
    Client client(daemon);
    client.watch("web");
    client.publish("other", "", 1);
    client.publish("web", "", 80);
    client.withdraw("web", "");

    follower.await("[DS_DELETED_SERVICE]");

    for (const std::string &line : follower.seen())
        EXPECT_TRUE(line.starts_with("TIME") || (holds(line, " pub ") && holds(line, "web")))
            << line;
}

TEST(TraceFollowRestart, it_goes_on_with_the_next_run_of_a_stopped_and_of_a_killed_daemon) {
    TemporaryDirectory dir;
    Daemon::Options options;
    options.runtime_dir = dir.path();
    auto daemon = std::make_unique<Daemon>(options);
    Follower follower(daemon->socket());
    for (int run = 1; run <= 2; run++) {
        const std::string pid_before = std::to_string(daemon->pid());
        Client(*daemon).publish("web" + std::to_string(run), "", 80);
        run == 1 ? daemon->stop() : daemon->kill();
        daemon = std::make_unique<Daemon>(options);
        Client(*daemon).publish("next" + std::to_string(run), "", 80);

        follower.await("pub web" + std::to_string(run));
        EXPECT_EQ(follower.await("started anew"), "-- the daemon was started anew: process " +
                                                      std::to_string(daemon->pid()) +
                                                      " after process " + pid_before);
        follower.await("pub next" + std::to_string(run));
    }

    EXPECT_EQ(follower.interrupt(), (Exit{0, 0}));
}

TEST_F(TraceFollow, what_was_overwritten_while_it_stood_still_is_counted) {
    Follower follower(daemon.socket(), {"--channel", "pub"});
    Client client(daemon);
    follower.signal(SIGSTOP);
    int status = 0;
    ASSERT_EQ(waitpid(follower.pid(), &status, WUNTRACED), follower.pid());
    constexpr std::uint32_t publications = 6000; // two records each, of 120 bytes and more
    std::vector<v1::Request> requests;
    for (std::uint32_t i = 1; i <= publications; i++) {
        requests.push_back(publish_request("web", "blue", i));
        if (requests.size() < 500) continue;
        client.pipeline(std::move(requests));
        requests.clear();
    }
    client.publish("end", "", 1);

    follower.signal(SIGCONT);
    const std::string lost = follower.await("records lost");
    follower.await("[end@;]");

    EXPECT_TRUE(lost.starts_with("-- pub: ")) << lost;
    const std::size_t count = std::stoul(lost.substr(8));
    // Beside the records there are the titles and the line about the lost ones.
    EXPECT_EQ(count + follower.seen().size() - 2, 2 * (publications + 1));
    EXPECT_EQ(follower.interrupt(), (Exit{0, 0}));
}

TEST_F(TraceFollow, a_file_that_is_cut_short_under_it_is_named_and_the_exit_is_1) {
    Client(daemon).publish("web", "", 80);
    // A copy: the daemon itself writes to its own.
    const TemporaryDirectory copy;
    for (const auto &file : std::filesystem::directory_iterator(trace_dir(daemon)))
        std::filesystem::copy(file.path(), copy.path() + "/" + file.path().filename().string());
    Follower follower("/nowhere", {"--dir", copy.path()});

    std::filesystem::resize_file(copy.path() + "/pub.ring", 0);

    EXPECT_TRUE(holds(follower.await_complaint("was cut short"), "pub.ring"));
    EXPECT_EQ(follower.interrupt(), (Exit{1, 0}));
}

TEST_F(TraceFollow, it_ends_when_nobody_reads_it_any_more) {
    Follower follower(daemon.socket());

    follower.close_output();

    EXPECT_EQ(follower.wait(), (Exit{0, 0}));
}

} // namespace
