// Rules and limits of the real daemon: from a file, and from the file again while it runs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

class Policy : public testing::Test {
  protected:
    void configure(const std::string &text) { std::ofstream(file()) << text; }
    std::string file() const { return dir_.path() + "/ds.toml"; }
    Daemon::Options with_file() const {
        Daemon::Options options;
        options.arguments = {"--config", file()};
        return options;
    }
    static void reload(Daemon &daemon) {
        daemon.signal(SIGHUP);
        EXPECT_TRUE(daemon.next_line().starts_with("dsd: reloaded "));
    }
    static Finished run_dsd(std::vector<std::string> arguments) {
        Launch launch;
        launch.arguments = std::move(arguments);
        launch.arguments.insert(launch.arguments.begin(), dsd_program());
        return run(launch);
    }
    static std::string me() {
        const Finished id = run({{"/usr/bin/id", "-un"}, {}});
        return id.out.substr(0, id.out.find('\n'));
    }

  private:
    TemporaryDirectory dir_;
};

std::string text_of(const v1::Reply &reply) {
    return v1::Status(reply.status()) == v1::STATUS_OK ? "ok" : reply.text();
}

// What the daemon says to somebody who connects.
std::string refusal_of_connection(const Daemon &daemon) {
    RawSocket socket(daemon.socket());
    const std::optional<v1::Event> event = socket.receive();
    if (!event) return "nothing";
    EXPECT_EQ(event->reply().status(), v1::STATUS_LIMIT);
    EXPECT_FALSE(socket.receive());
    return event->reply().text();
}

// ---- the file ----

TEST_F(Policy, a_good_file_is_ok_and_a_bad_one_is_told_error_by_error) {
    configure("[limits]\nsessions = 7\n");
    const Finished good = run_dsd({"--check-config", file()});
    configure("[limits]\nsesions = 7\nsessions = -1\n");

    const Finished bad = run_dsd({"--check-config", file()});
    const Finished start = run_dsd({"--config", file()});
    const Finished missing = run_dsd({"--config", file() + ".none"});

    EXPECT_EQ(good.exit, (Exit{0, 0}));
    EXPECT_EQ(good.out, file() + ": ok\n");
    EXPECT_EQ(bad.exit, (Exit{2, 0}));
    EXPECT_EQ(bad.out, "");
    EXPECT_EQ(bad.err,
              file() + ":2:1: limits.sesions: there is no such key; did you mean 'sessions'?\n" +
                  file() + ":3:12: limits.sessions: -1 is out of range; 0 to 1000000 is allowed\n");
    EXPECT_EQ(start.exit, (Exit{2, 0}));
    EXPECT_EQ(start.err, bad.err);
    EXPECT_EQ(missing.exit, (Exit{2, 0}));
    EXPECT_EQ(missing.err, file() + ".none: cannot be read: No such file or directory\n");
}

TEST_F(Policy, the_command_line_is_above_the_file) {
    configure("[daemon]\nsocket = \"/from/file\"\nruntime_dir = \"/from/file\"\nconsole = true\n");

    const Finished printed = run_dsd({"--config", file(), "--socket", "/given", "--print-config"});

    EXPECT_EQ(printed.exit, (Exit{0, 0}));
    for (const char *line : {"socket = \"/given\"\n", "runtime_dir = \"/from/file\"\n",
                             "trace_dir = \"/from/file/trace\"\n", "console = true\n"})
        EXPECT_NE(printed.out.find(line), std::string::npos) << line << printed.out;
}

TEST_F(Policy, the_file_in_the_users_own_folder_is_read_when_it_is_there) {
    const std::string folder = file() + ".d";
    Launch launch;
    if (geteuid() == 0)
        launch.arguments = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    launch.arguments.insert(launch.arguments.end(), {dsd_program(), "--check-config"});
    launch.environment = {"XDG_CONFIG_HOME=" + folder};

    const Finished without = run(launch);
    std::filesystem::create_directories(folder + "/ds");
    std::ofstream(folder + "/ds/ds.toml") << "[limits]\nsessions = 1\n";
    const Finished with = run(launch);

    EXPECT_EQ(without.out, "there is no configuration file; the defaults hold\n");
    EXPECT_EQ(with.out, folder + "/ds/ds.toml: ok\n") << with.err;
}

TEST_F(Policy, the_socket_has_the_permissions_of_the_file) {
    configure("[daemon]\nsocket_mode = 0o600\nsocket_group = \"" + std::to_string(getegid()) +
              "\"\n");
    Daemon daemon(with_file());

    const Finished stat = run({{"/usr/bin/stat", "-c", "%a %g", daemon.socket()}, {}});

    EXPECT_EQ(stat.out, "600 " + std::to_string(getegid()) + "\n");
}

// ---- rules ----

TEST_F(Policy, a_denial_names_the_rule_the_user_and_the_name) {
    configure("[[rule]]\nname = \"quiet\"\nwhat = \"publish\"\nnames = \"chat/*\"\n"
              "decision = \"deny\"\n[[rule]]\nwhat = \"register\"\nnames = \"secret\"\n"
              "decision = \"deny\"\n");
    Daemon daemon(with_file());
    Client client(daemon);

    const v1::Reply publish = client.call(publish_request("chat/a", "", 1));
    const v1::Reply watch = client.call(register_request("secret"));

    EXPECT_EQ(publish.status(), v1::STATUS_DENIED);
    EXPECT_EQ(publish.text(),
              "Rule 'quiet' (" + file() + ":1) does not let user '" + me() + "' publish 'chat/a'.");
    EXPECT_EQ(watch.status(), v1::STATUS_DENIED);
    EXPECT_EQ(watch.text(),
              "The rule (" + file() + ":6) does not let user '" + me() + "' register 'secret'.");
    EXPECT_EQ(text_of(client.call(publish_request("secret", "", 1))), "ok");
    EXPECT_EQ(text_of(client.call(register_request("chat/a"))), "ok");
    EXPECT_EQ(client.status().services(), 1u);
}

TEST_F(Policy, names_that_may_not_be_listed_are_left_out) {
    configure("[[rule]]\nwhat = \"list\"\nnames = \"secret*\"\ndecision = \"deny\"\n");
    Daemon daemon(with_file());
    Client client(daemon);
    for (const char *name : {"a", "secret", "secret/b", "z"})
        client.publish(name, "", 1);

    const v1::Reply all = client.ok(list_request(""));
    const v1::Reply one = client.call(list_request("secret"));

    ASSERT_EQ(all.list().names_size(), 2);
    EXPECT_EQ(all.list().names(0).name(), "a");
    EXPECT_EQ(all.list().names(1).name(), "z");
    EXPECT_EQ(one.status(), v1::STATUS_DENIED);
}

TEST_F(Policy, names_that_may_not_be_dumped_are_left_out_also_of_clients) {
    configure("[[rule]]\nname = \"discreet\"\nwhat = \"dump\"\nnames = \"secret/*\"\n"
              "decision = \"deny\"\n");
    Daemon daemon(with_file());
    Client client(daemon);
    client.publish("secret/web", "", 1);
    client.publish("open", "", 2);

    const v1::DumpReply names = client.ok(dump_request(v1::DUMP_KIND_SERVICES)).dump();
    const v1::DumpReply clients = client.ok(dump_request(v1::DUMP_KIND_CLIENTS)).dump();
    const v1::Reply one = client.call(dump_request(v1::DUMP_KIND_SERVICES, "secret/web"));

    ASSERT_EQ(names.names_size(), 1);
    EXPECT_EQ(names.names(0).name(), "open");
    ASSERT_EQ(clients.clients_size(), 1);
    EXPECT_EQ(clients.clients(0).services_size(), 1);
    EXPECT_EQ(clients.clients(0).service_count(), 2u);
    EXPECT_EQ(one.status(), v1::STATUS_DENIED);
}

TEST_F(Policy, who_may_dump_nothing_is_told_the_rule) {
    configure("[[rule]]\nname = \"quiet\"\nwhat = \"dump\"\ndecision = \"deny\"\n");
    Daemon daemon(with_file());
    Client client(daemon);
    v1::Request stats;
    stats.mutable_stats();

    const v1::Reply dump = client.call(dump_request(v1::DUMP_KIND_SERVICES));

    EXPECT_EQ(dump.status(), v1::STATUS_DENIED);
    EXPECT_EQ(dump.text(),
              "Rule 'quiet' (" + file() + ":1) does not let user '" + me() + "' dump.");
    EXPECT_EQ(client.call(stats).status(), v1::STATUS_DENIED);
}

TEST_F(Policy, a_rule_for_a_group_fits_members_by_supplementary_groups) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to take on groups";
    configure("[[rule]]\ngroup = [54321]\nnames = \"g\"\ndecision = \"deny\"\n");
    Daemon daemon(with_file());
    const std::string socket = daemon.socket();
    const auto show_as = [&socket](const char *groups) {
        return run({{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", groups, dsctl_program(),
                     "--socket", socket, "show", "g"},
                    {}});
    };

    const Finished member = show_as("--groups=54320,54321");
    const Finished stranger = show_as("--groups=54320,54322");

    EXPECT_EQ(member.exit, (Exit{6, 0})) << member.err;
    EXPECT_NE(member.err.find("The rule (" + file() + ":1) does not let user"), std::string::npos)
        << member.err;
    EXPECT_EQ(stranger.exit, (Exit{3, 0})) << stranger.err;
}

TEST_F(Policy, a_rule_for_one_user_leaves_others_alone) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to be somebody else";
    configure("[[rule]]\nuser = 65534\ndecision = \"deny\"\n");
    Daemon daemon(with_file());
    const std::string socket = daemon.socket();
    ClientProcess other(
        [&socket](ClientProcess::Report &report) {
            Client client(socket);
            report.line(text_of(client.call(publish_request("n", "", 1))));
            report.stay();
        },
        true);
    Client client(daemon);

    EXPECT_NE(other.next_line().find("does not let user"), std::string::npos);
    EXPECT_EQ(text_of(client.call(publish_request("n", "", 1))), "ok");
}

// ---- limits ----

TEST_F(Policy, each_limit_is_told_with_usage_and_key) {
    configure("[limits]\npublications = 2\nregistrations = 1\nsessions = 2\n");
    Daemon daemon(with_file());
    Client client(daemon), second(daemon);
    const std::string user = "User '" + me() + "' has ";
    const auto keys = [](const std::string &what) {
        return " " + what + "; limits.user." + me() + "." + what + " or limits." + what +
               " changes it.";
    };
    client.publish("a", "", 1);
    second.publish("b", "", 1);
    client.watch("a");

    EXPECT_EQ(second.call(publish_request("c", "", 1)).status(), v1::STATUS_LIMIT);
    EXPECT_EQ(text_of(client.call(publish_request("c", "", 1))),
              user + "2 of 2" + keys("publications"));
    EXPECT_EQ(text_of(client.call(publish_request("a", "", 2))), "ok") << "a change is no more";
    EXPECT_EQ(text_of(second.call(register_request("a"))), user + "1 of 1" + keys("registrations"));
    EXPECT_EQ(refusal_of_connection(daemon), user + "2 of 2" + keys("sessions"));
    EXPECT_EQ(client.status().services(), 2u);
    EXPECT_EQ(client.status().sessions(), 2u);
}

TEST_F(Policy, what_is_given_back_can_be_taken_again) {
    configure("[limits]\npublications = 1\nregistrations = 1\nsessions = 2\n");
    Daemon daemon(with_file());
    Client client(daemon);
    {
        Client leaving(daemon);
        leaving.publish("a", "", 1);
        leaving.watch("a");
    }
    client.await_sessions(1);

    for (int i = 0; i < 3; i++) {
        client.publish("a", "", 1);
        client.withdraw("a", "");
        client.unwatch("a", client.watch("a"));
        const std::uint32_t id = client.publish("b", "", 1).service_id();
        client.ok(withdraw_id_request("b", id));
        Client again(daemon);
        EXPECT_EQ(again.status().sessions(), 2u);
    }
}

TEST_F(Policy, the_limit_of_all_sessions_is_told_as_such) {
    configure("[limits]\nsessions_total = 1\n");
    Daemon daemon(with_file());
    Client client(daemon);

    EXPECT_EQ(refusal_of_connection(daemon),
              "The daemon has 1 of 1 sessions; limits.sessions_total changes it.");
    EXPECT_EQ(run_dsctl(daemon.socket(), {"status"}).exit, (Exit{6, 0}));
    EXPECT_EQ(client.status().sessions_total(), 1u);
}

TEST_F(Policy, the_limit_of_one_user_leaves_others_alone) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to be somebody else";
    configure("[limits]\npublications = 1\n[limits.user.0]\npublications = 3\n");
    Daemon daemon(with_file());
    const std::string socket = daemon.socket();
    ClientProcess other(
        [&socket](ClientProcess::Report &report) {
            Client client(socket);
            client.publish("a", "", 1);
            report.line(text_of(client.call(publish_request("b", "", 1))));
            report.stay();
        },
        true);
    EXPECT_NE(other.next_line().find("has 1 of 1 publications"), std::string::npos);
    Client client(daemon);

    for (const char *name : {"a", "b", "c"})
        EXPECT_EQ(text_of(client.call(publish_request(name, "", 1))), "ok");
    EXPECT_NE(text_of(client.call(publish_request("d", "", 1))).find("has 3 of 3 publications"),
              std::string::npos);
}

// Two sessions that read nothing exceed the limit together, though each is within its own.
TEST_F(Policy, above_the_limit_of_queued_bytes_all_is_told_later_and_nothing_is_lost) {
    configure("[limits]\nqueued_bytes = 65536\n");
    Daemon daemon(with_file());
    Client witness(daemon);
    for (int i = 0; i < 10; i++)
        witness.ok(path_request("busy", std::to_string(i), long_path(3000)));
    constexpr std::uint32_t requests = 30; // of 30 kB each
    std::string frames = hello_frame();
    for (std::uint32_t seq = 2; seq < 2 + requests; seq++)
        frames += frame_of(list_request("busy"), seq);
    RawSocket first(daemon.socket()), second(daemon.socket());

    first.send(frames);
    second.send(frames);
    witness.await_sessions(3);
    for (int i = 0; i < 100; i++)
        witness.publish("other", "", 1);
    const std::uint64_t queued = witness.status().queued_bytes();

    EXPECT_GT(queued, 65'536u);
    EXPECT_LT(queued, 65'536u + 4 * 32'768u);
    for (RawSocket *socket : {&first, &second})
        for (std::uint32_t seq = 1; seq < 2 + requests; seq++)
            ASSERT_EQ(socket->receive()->reply().seq(), seq);
    EXPECT_EQ(witness.status().queued_bytes(), 0u);
}

// ---- reload ----

TEST_F(Policy, a_reload_takes_rules_and_limits_and_leaves_what_exists) {
    configure("");
    Daemon daemon(with_file());
    Client client(daemon);
    client.publish("a", "", 1);
    client.publish("b", "", 1);
    configure("[limits]\npublications = 1\n[[rule]]\nwhat = \"register\"\ndecision = \"deny\"\n");

    reload(daemon);

    EXPECT_EQ(client.call(register_request("a")).status(), v1::STATUS_DENIED);
    EXPECT_NE(text_of(client.call(publish_request("c", "", 1))).find("has 2 of 1 publications"),
              std::string::npos);
    EXPECT_EQ(text_of(client.call(publish_request("a", "", 2))), "ok");
    EXPECT_EQ(client.status().services(), 2u);
    configure("");
    reload(daemon);
    EXPECT_EQ(text_of(client.call(publish_request("c", "", 1))), "ok");
    EXPECT_EQ(text_of(client.call(register_request("a"))), "ok");
}

TEST_F(Policy, a_reload_with_a_bad_file_changes_nothing_and_tells_every_error) {
    configure("[[rule]]\nnames = \"x\"\ndecision = \"deny\"\n");
    Daemon daemon(with_file());
    Client client(daemon);
    configure("[limits]\nsesions = 1\n[[rule]]\n");
    daemon.signal(SIGHUP);
    client.status(); // a turn of the daemon in which the signal was seen, or the one before it

    configure("[[rule]]\nnames = \"x\"\ndecision = \"deny\"\n[daemon]\nconsole = true\n");
    for (bool is_told = false; !is_told;) {
        EXPECT_EQ(client.call(publish_request("x", "", 1)).status(), v1::STATUS_DENIED);
        is_told = daemon.stderr_text().find("stays as it was; errors: 2") != std::string::npos;
    }
    reload(daemon);

    const std::string log = daemon.stderr_text();
    EXPECT_NE(log.find("limits.sesions: there is no such key"), std::string::npos) << log;
    EXPECT_NE(log.find("rule.decision: is missing"), std::string::npos) << log;
    EXPECT_NE(log.find("daemon.console has changed; it needs a restart"), std::string::npos) << log;
    EXPECT_EQ(client.call(publish_request("x", "", 1)).status(), v1::STATUS_DENIED);
}

} // namespace
