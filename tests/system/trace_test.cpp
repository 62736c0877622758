// The flight recorder: what dsctl trace shows of a real daemon, running or dead.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;
using Json = nlohmann::json;

bool holds(const std::string &text, const std::string &part) {
    return text.find(part) != text.npos;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::vector<Json> records_of(const Finished &finished) {
    EXPECT_EQ(finished.exit, (Exit{0, 0})) << finished.err;
    std::vector<Json> records;
    for (const std::string &line : lines_of(finished.out))
        records.push_back(Json::parse(line));
    return records;
}

std::string trace_dir(const Daemon &daemon) {
    return daemon.runtime_dir() + "/trace";
}

// The whole trace of a directory, a line of JSON for each record.
std::vector<Json> whole_trace(const std::string &directory,
                              std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {"trace", "--dir", directory, "--all", "-o", "jsonl"});
    return records_of(run_dsctl("/nowhere", arguments));
}

// A bit of everything that a daemon without a relay records.
void play(const Daemon &daemon) {
    Client watcher(daemon);
    const std::uint32_t orders = watcher.watch("orders");
    watcher.watch("files");
    {
        Client publisher(daemon);
        publisher.publish("orders", "node1", 7000, ds::v1::SCOPE_SYSTEM);
        publisher.publish("orders", "node1", 7001, ds::v1::SCOPE_SYSTEM);
        publisher.publish("orders", "", 7002);
        publisher.ok(path_request("files", "ümlaut%s", "/run/files 100%d.sock"));
        publisher.withdraw("orders", "node1", ds::v1::SCOPE_SYSTEM);
        watcher.unwatch("orders", orders);
        publisher.publish("gone", "with its client", 1, ds::v1::SCOPE_RACK);
    }
    watcher.await_digest("");
    watcher.await_sessions(1);
}

// ---- the same text as the console's ----

struct ConsoleLine {
    std::string tag;
    std::uint64_t thread;
    std::string text;
    bool operator==(const ConsoleLine &) const = default;
};

void PrintTo(const ConsoleLine &line, std::ostream *out) {
    *out << line.tag << '/' << line.thread << ' ' << line.text;
}

// What stderr holds beside blank lines, which some messages end with.
std::vector<ConsoleLine> console_lines(const std::string &text) {
    static const std::regex shape(
        R"(\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} (\d+) \w+:\[(\w+)/(\d+)\] (.*))");
    std::vector<ConsoleLine> lines;
    for (const std::string &line : lines_of(text)) {
        std::smatch parts;
        if (line.empty()) continue;
        if (!std::regex_match(line, parts, shape)) {
            ADD_FAILURE() << "no line of the console: " << line;
            continue;
        }
        EXPECT_EQ(parts[1], parts[3]) << line;
        lines.push_back({parts[2], std::stoull(parts[1]), parts[4]});
    }
    return lines;
}

TEST(TraceText, every_record_is_the_line_of_the_console_in_the_same_order) {
    Daemon::Options options;
    options.arguments = {"--console"};
    Daemon daemon(options);
    play(daemon);
    daemon.stop();

    const std::vector<ConsoleLine> console = console_lines(daemon.stderr_text());
    std::vector<ConsoleLine> trace;
    std::map<std::string, int> tags;
    for (const Json &record : whole_trace(trace_dir(daemon))) {
        trace.push_back({record["tag"], record["thread"], record["text"]});
        tags[trace.back().tag]++;
    }

    EXPECT_EQ(trace, console);
    for (const char *tag :
         {"DS_PUBLISH_SERVICE", "DS_PUBLISH_SERVICE_UPDATE", "SERVICE_ENDPOINT_IP",
          "SERVICE_ENDPOINT_PATH", "DS_DELETED_SERVICE", "SERVICE_INFO_ENTRY", "DS_ADD_CLIENT_REG",
          "DS_DELETE_CLIENT_REG", "DS_NOTIF_SERVICE_EXP", "DS_NOTIF_SERVICE_DELETED_EXP",
          "DS_DELETED_SERVICE_ELEM_3"})
        EXPECT_GT(tags[tag], 0) << tag;
}

TEST(TraceText, the_table_holds_the_text_of_the_console_after_its_columns) {
    Daemon::Options options;
    options.arguments = {"--console"};
    Daemon daemon(options);
    play(daemon);
    daemon.stop();

    const Finished table = run_dsctl("/nowhere", {"trace", "--all", "--dir", trace_dir(daemon)});

    const std::vector<ConsoleLine> console = console_lines(daemon.stderr_text());
    const std::vector<std::string> lines = lines_of(table.out);
    ASSERT_EQ(lines.size(), console.size() + 1);
    const std::size_t message_column = lines[0].find("MESSAGE");
    for (std::size_t i = 0; i < console.size(); i++)
        EXPECT_EQ(lines[i + 1].substr(message_column), console[i].text);
}

// ---- a daemon that is killed ----

// Publishes so many at once that the daemon is at work whenever it is looked at.
[[noreturn]] void publish_without_end(const Daemon &daemon, ClientProcess::Report &report) {
    constexpr std::uint32_t batch = 500;
    Client client(daemon);
    for (std::uint32_t round = 1;; round++) {
        std::vector<v1::Request> requests;
        for (std::uint32_t i = 1; i <= batch; i++)
            requests.push_back(publish_request("load", "a" + std::to_string(i % 7), i));
        client.pipeline(std::move(requests));
        report.line(std::to_string(round));
    }
}

TEST(TraceOfADeadDaemon, after_a_kill_in_the_middle_of_load_every_record_is_whole) {
    for (int round = 1; round <= 3; round++) {
        Daemon daemon;
        Client watcher(daemon);
        watcher.watch("load");
        ClientProcess load(
            [&daemon](ClientProcess::Report &report) { publish_without_end(daemon, report); });
        while (load.next_line() != std::to_string(2 * round))
            continue;

        daemon.kill();

        std::map<std::string, std::uint64_t> next;
        std::map<std::string, std::uint64_t> count;
        for (const Json &record : whole_trace(trace_dir(daemon))) {
            const std::string channel = record["channel"];
            const auto [expected, is_first] = next.try_emplace(channel, record["sequence"]);
            EXPECT_EQ(record["sequence"], expected->second++);
            EXPECT_FALSE(holds(record["text"], "<?>")) << record;
            count[channel]++;
        }
        EXPECT_GE(next["pub"], 2000u * round); // two records each publication
        EXPECT_GT(count["pub"], 1500u);
        EXPECT_GT(count["notif"], 1000u);
    }
}

TEST(TraceOfADeadDaemon, without_a_daemon_the_directory_has_to_be_given) {
    Daemon daemon;
    play(daemon);
    daemon.kill();

    const Finished asked = run_dsctl(daemon.socket(), {"trace"});
    const Finished given = run_dsctl(daemon.socket(), {"trace", "--dir", trace_dir(daemon)});

    EXPECT_EQ(asked.exit, (Exit{4, 0}));
    EXPECT_TRUE(holds(asked.err, "--dir DIRECTORY")) << asked.err;
    EXPECT_EQ(given.exit, (Exit{0, 0})) << given.err;
    EXPECT_TRUE(holds(given.out, "DS_DELETED_SERVICE")) << given.out;
}

TEST(TraceOfADeadDaemon, a_restart_keeps_the_run_before) {
    TemporaryDirectory dir;
    Daemon::Options options;
    options.runtime_dir = dir.path();
    {
        Daemon first(options);
        Client(first).publish("before", "", 1);
        first.kill();
    }
    Daemon second(options);
    Client(second).publish("after", "", 1);

    const Finished previous = run_dsctl(second.socket(), {"trace", "--previous"});
    const Finished current = run_dsctl(second.socket(), {"trace"});

    EXPECT_TRUE(holds(previous.out, "pub before@")) << previous.out << previous.err;
    EXPECT_FALSE(holds(previous.out, "after")) << previous.out;
    EXPECT_TRUE(holds(current.out, "pub after@")) << current.out << current.err;
    EXPECT_FALSE(holds(current.out, "before")) << current.out;
}

TEST(TraceOfADeadDaemon, files_that_cannot_be_read_are_named_the_others_shown_and_the_exit_is_1) {
    Daemon daemon;
    play(daemon);
    daemon.stop();
    const std::string dir = trace_dir(daemon);
    std::filesystem::resize_file(dir + "/notif.ring", 100'000);
    std::ofstream(dir + "/main.ring") << "not a ring";
    std::fstream reg(dir + "/reg.ring", std::ios::binary | std::ios::in | std::ios::out);
    reg.seekp(8) << '\0' << '\0' << '\0' << '\1'; // the version, as the other byte order has it
    reg.close();
    std::fstream err(dir + "/err.ring", std::ios::binary | std::ios::in | std::ios::out);
    err.seekp(120) << "0123456789abcdef"; // the format identifier
    err.close();

    const Finished finished = run_dsctl("/nowhere", {"trace", "--dir", dir});

    EXPECT_EQ(finished.exit, (Exit{1, 0}));
    EXPECT_TRUE(holds(finished.out, "DS_PUBLISH_SERVICE")) << finished.out;
    for (const char *reason :
         {"notif.ring is damaged: it is not as long", "main.ring is not a trace ring file",
          "reg.ring was written on a machine of the other byte order",
          "err.ring has the log points of table 0123456789abcdef"})
        EXPECT_TRUE(holds(finished.err, reason)) << finished.err;
}

// ---- which records ----

class TraceFilters : public System {
  protected:
    void SetUp() override { play(daemon); }
    std::vector<Json> trace(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"trace", "-o", "jsonl"});
        return records_of(run_dsctl(daemon.socket(), arguments));
    }
    std::vector<Json> all(std::vector<std::string> arguments = {}) {
        arguments.emplace_back("--all");
        return trace(arguments);
    }
};

TEST_F(TraceFilters, the_newest_n_are_the_last_of_all) {
    const std::vector<Json> everything = all();
    ASSERT_GT(everything.size(), 25u);

    EXPECT_EQ(trace({"-n", "5"}), std::vector<Json>(everything.end() - 5, everything.end()));
    EXPECT_EQ(trace({}), std::vector<Json>(everything.end() - 20, everything.end()));
    EXPECT_EQ(trace({"-n", "0"}).size(), 0u);
}

TEST_F(TraceFilters, channel_tag_name_and_grep_take_what_they_say_and_nothing_else) {
    const std::vector<Json> everything = all();
    const auto expect = [&](const std::vector<std::string> &arguments, const auto &is_wanted) {
        std::vector<Json> wanted;
        std::copy_if(everything.begin(), everything.end(), std::back_inserter(wanted), is_wanted);
        EXPECT_FALSE(wanted.empty()) << arguments[0];
        EXPECT_LT(wanted.size(), everything.size()) << arguments[0];
        EXPECT_EQ(all(arguments), wanted) << arguments[0];
    };

    expect({"--channel", "reg", "--channel", "notif"}, [](const Json &record) {
        return record["channel"] == "reg" || record["channel"] == "notif";
    });
    expect({"--tag", "ds_delete*"},
           [](const Json &record) { return std::string(record["tag"]).starts_with("DS_DELETE"); });
    expect({"--name", "files"}, [](const Json &record) {
        const Json name = {{"type", "s"}, {"value", "files"}};
        return std::find(record["args"].begin(), record["args"].end(), name) !=
               record["args"].end();
    });
    expect({"--grep", "port=700[12]"}, [](const Json &record) {
        return holds(record["text"], "port=7001") || holds(record["text"], "port=7002");
    });
}

TEST_F(TraceFilters, since_and_until_cut_at_the_moment_that_a_record_states) {
    const std::vector<Json> everything = all();
    const std::size_t middle = everything.size() / 2;
    const std::string moment = everything[middle]["time"];

    const std::vector<Json> older = all({"--until", moment});
    const std::vector<Json> newer = trace({"--since", moment});
    const std::vector<Json> one = all({"--since", moment, "--until", moment});

    EXPECT_EQ(older, std::vector<Json>(everything.begin(), everything.begin() + middle + 1));
    EXPECT_EQ(newer, std::vector<Json>(everything.begin() + middle, everything.end()));
    EXPECT_EQ(one, std::vector<Json>{everything[middle]});
    EXPECT_EQ(trace({"--since", "1h"}), everything);
    EXPECT_EQ(all({"--until", "1h"}).size(), 0u);
}

TEST_F(TraceFilters, json_is_one_array_of_what_jsonl_has_a_line_each) {
    const Finished array = run_dsctl(daemon.socket(), {"trace", "--all", "-o", "json"});

    EXPECT_EQ(Json::parse(array.out), Json(all()));
}

TEST_F(TraceFilters, what_makes_no_sense_on_the_command_line_ends_with_2) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"--since", "yesterday"},
                                               {"--until", "5"},
                                               {"--grep", "a("},
                                               {"--channel", "pup"},
                                               {"-n", "3", "--all"},
                                               {"-n", "-5"},
                                               {"-f", "--until", "1m"},
                                               {"-f", "--previous"}}) {
        std::vector<std::string> line = {"trace"};
        line.insert(line.end(), arguments.begin(), arguments.end());
        const Finished finished = run_dsctl(daemon.socket(), line);
        EXPECT_EQ(finished.exit, (Exit{2, 0})) << arguments[0] << ' ' << finished.out;
        EXPECT_EQ(finished.out, "");
    }
}

// ---- on a terminal ----

// What the program writes to a terminal.
std::string on_a_terminal(const std::vector<std::string> &arguments,
                          const std::vector<std::string> &environment) {
    const Descriptor main_end(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (grantpt(main_end.get()) != 0 || unlockpt(main_end.get()) != 0)
        throw std::runtime_error("no terminal to be had");
    Descriptor terminal(open(ptsname(main_end.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    Launch dsctl;
    dsctl.arguments = {dsctl_program()};
    dsctl.arguments.insert(dsctl.arguments.end(), arguments.begin(), arguments.end());
    dsctl.environment = environment;
    dsctl.out = terminal.get();
    Process process = launch(dsctl);
    terminal.reset();
    std::string text;
    char bytes[4096];
    // The read fails once the last user of the terminal has gone.
    for (ssize_t got = 0; (got = read(main_end.get(), bytes, sizeof bytes)) > 0;)
        text.append(bytes, static_cast<std::size_t>(got));
    process.wait();
    return text;
}

TEST(TraceColors, on_a_terminal_failures_are_red_and_times_faint_unless_no_color_is_set) {
    Daemon daemon;
    play(daemon);
    daemon.stop();
    const std::string dir = trace_dir(daemon);
    std::filesystem::remove(dir + "/err.ring");
    std::filesystem::rename(dir + "/reg.ring", dir + "/err.ring");
    std::fstream err(dir + "/err.ring", std::ios::binary | std::ios::in | std::ios::out);
    err.seekp(56) << "err"; // its channel
    err.close();
    const std::vector<std::string> arguments = {"trace", "--all", "--dir", dir};

    const std::string colored = on_a_terminal(arguments, {"TERM=xterm", "NO_COLOR="});
    const std::string plain = on_a_terminal(arguments, {"TERM=xterm", "NO_COLOR=1"});

    EXPECT_TRUE(holds(colored, "\033[31merr     [DS_ADD_CLIENT_REG]")) << colored;
    EXPECT_TRUE(holds(colored, "\033[0m pub     [DS_PUBLISH_SERVICE]")) << colored;
    EXPECT_TRUE(holds(colored, "\n\033[2m")) << colored;
    EXPECT_FALSE(holds(plain, "\033")) << plain;
    EXPECT_TRUE(holds(plain, " err     [DS_ADD_CLIENT_REG]")) << plain;
}

} // namespace
