// The command line program with the real daemon.
#include <gtest/gtest.h>

#include <csignal>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

class Dsctl : public System {
  protected:
    Finished dsctl(const std::vector<std::string> &arguments) {
        return run_dsctl(daemon.socket(), arguments);
    }
};

// A dsctl that keeps running; its lines are read as they come.
class Running {
  public:
    Running(const Daemon &daemon, std::vector<std::string> arguments)
        : process_(start(daemon, std::move(arguments))) {
        out_.writer.reset();
        err_.writer.reset();
    }

    // Lines until one holds the text; throws when none does.
    std::string await_line(const std::string &text) {
        for (;;) {
            const std::optional<std::string> line = read_line(out_.reader.get(), buffer_);
            if (!line) throw std::runtime_error("dsctl ended: " + err());
            if (line->find(text) != line->npos) return *line;
        }
    }
    void signal(int number) { process_.signal(number); }
    Exit wait() { return process_.wait(); }
    std::string err() { return read_to_end(err_.reader.get()); }

  private:
    Process start(const Daemon &daemon, std::vector<std::string> arguments) {
        Launch dsctl;
        dsctl.arguments = std::move(arguments);
        dsctl.arguments.insert(dsctl.arguments.begin(), dsctl_program());
        dsctl.environment = {"DS_SOCKET=" + daemon.socket()};
        dsctl.out = out_.writer.get();
        dsctl.err = err_.writer.get();
        return launch(dsctl);
    }

    Pipe out_;
    Pipe err_;
    Process process_;
    std::string buffer_;
};

bool holds(const std::string &text, const std::string &part) {
    return text.find(part) != text.npos;
}

TEST_F(Dsctl, what_it_publishes_is_seen_listed_and_shown) {
    Running publisher(daemon, {"publish", "web", "10.0.0.1:8080", "--instance", "blue"});
    publisher.await_line("published");

    const Finished watched = dsctl({"watch", "web", "--once"});
    const Finished listed = dsctl({"list", "-o", "json"});
    const Finished shown = dsctl({"show", "web"});

    for (const Finished *finished : {&watched, &listed, &shown}) {
        EXPECT_EQ(finished->exit, (Exit{0, 0})) << finished->err;
        EXPECT_TRUE(holds(finished->out, "10.0.0.1:8080")) << finished->out;
        EXPECT_TRUE(holds(finished->out, "blue")) << finished->out;
        EXPECT_EQ(finished->err, "");
    }
    EXPECT_TRUE(listed.out.starts_with("[")) << listed.out;
    EXPECT_TRUE(holds(listed.out, "\"web\"")) << listed.out;
}

TEST_F(Dsctl, a_publisher_that_is_interrupted_withdraws_and_ends_with_0) {
    Client watcher(daemon);
    watcher.watch("web");
    watcher.snapshot();
    Running publisher(daemon, {"publish", "web", "10.0.0.1:8080"});
    publisher.await_line("published");
    ASSERT_EQ(digest(watcher.snapshot()), ":8080");

    publisher.signal(SIGINT);

    EXPECT_EQ(publisher.wait(), (Exit{0, 0}));
    EXPECT_EQ(digest(watcher.snapshot()), "");
}

TEST_F(Dsctl, a_watcher_prints_each_kind_of_change) {
    Client publisher(daemon);
    publisher.publish("web", "blue", 80);
    Running watcher(daemon, {"watch", "web", "--count", "3"});

    EXPECT_TRUE(watcher.await_line("blue").starts_with("="));
    publisher.publish("web", "red", 81);
    EXPECT_TRUE(watcher.await_line("red").starts_with("+"));
    publisher.publish("web", "red", 82);
    EXPECT_TRUE(watcher.await_line("red").starts_with("~"));
    publisher.withdraw("web", "blue");
    EXPECT_TRUE(watcher.await_line("blue").starts_with("-"));

    EXPECT_EQ(watcher.wait(), (Exit{0, 0}));
    EXPECT_EQ(watcher.err(), "");
}

TEST_F(Dsctl, what_is_not_there_ends_with_3) {
    for (const std::vector<std::string> &arguments : std::vector<std::vector<std::string>>{
             {"show", "web"}, {"watch", "web", "--once"}, {"list", "web*"}, {"withdraw", "web"}}) {
        const Finished finished = dsctl(arguments);
        EXPECT_EQ(finished.exit, (Exit{3, 0})) << arguments.front();
    }
}

TEST_F(Dsctl, a_daemon_out_of_reach_ends_it_with_4) {
    const std::string nowhere = daemon.runtime_dir() + "/nowhere.sock";

    const Finished finished = dsctl({"status", "--socket", nowhere});

    EXPECT_EQ(finished.exit, (Exit{4, 0}));
    EXPECT_EQ(finished.out, "");
    EXPECT_TRUE(holds(finished.err, nowhere)) << finished.err;
}

TEST_F(Dsctl, a_wait_that_is_over_ends_with_5) {
    const Finished finished = dsctl({"watch", "web", "--count", "1", "--timeout", "0.05"});

    EXPECT_EQ(finished.exit, (Exit{5, 0}));
    EXPECT_NE(finished.err, "");
}

TEST_F(Dsctl, a_bad_command_line_ends_with_2) {
    const std::vector<std::vector<std::string>> bad = {
        {}, {"no-such-verb"}, {"publish", "web"}, {"publish", "web", "nowhere"}, {"watch"}};
    for (const std::vector<std::string> &arguments : bad) {
        const Finished finished = dsctl(arguments);
        EXPECT_EQ(finished.exit, (Exit{2, 0})) << finished.err;
        EXPECT_EQ(finished.out, "");
    }
}

TEST_F(Dsctl, withdrawing_ends_the_publisher_with_1_and_tells_it_by_whom) {
    Running publisher(daemon, {"publish", "web", "10.0.0.1:8080", "--scope", "system"});
    publisher.await_line("published");

    const Finished finished = dsctl({"withdraw", "web"});

    EXPECT_EQ(finished.exit, (Exit{0, 0})) << finished.err;
    EXPECT_TRUE(finished.out.starts_with("withdrawn web")) << finished.out;
    EXPECT_EQ(publisher.wait(), (Exit{1, 0}));
    EXPECT_TRUE(holds(publisher.err(), "withdrawn by process"));
    EXPECT_EQ(Client(daemon).status().services(), 0u);
}

TEST_F(Dsctl, the_status_is_the_daemon_s_own) {
    Client client(daemon);
    client.publish("web", "", 80);

    const Finished table = dsctl({"status"});
    const Finished json = dsctl({"status", "-o", "json"});

    EXPECT_EQ(table.exit, (Exit{0, 0}));
    EXPECT_TRUE(holds(table.out, std::to_string(daemon.pid()))) << table.out;
    EXPECT_EQ(json.exit, (Exit{0, 0}));
    EXPECT_TRUE(holds(json.out, "\"services\"")) << json.out;
}

TEST_F(Dsctl, a_publisher_whose_daemon_goes_away_ends_with_4) {
    Running publisher(daemon, {"publish", "web", "10.0.0.1:8080"});
    publisher.await_line("published");

    daemon.stop();

    EXPECT_EQ(publisher.wait(), (Exit{4, 0}));
}

} // namespace
