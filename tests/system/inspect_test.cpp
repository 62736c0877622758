// The verbs of dsctl that show what the daemon knows: dump, clients, nodes, stats and completion.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

bool holds(const std::string &text, const std::string &part) {
    return text.find(part) != text.npos;
}

// The first line that holds the text; empty when none does.
std::string line_with(const std::string &text, const std::string &part) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        if (holds(line, part)) return line;
        at = end + 1;
    }
    return {};
}

// What python prints of an expression in `x`, the JSON document or the list of those of its lines.
std::string python(const std::string &json, const std::string &expression) {
    const TemporaryDirectory dir;
    const std::string path = dir.path() + "/json";
    std::ofstream(path) << json;
    const Finished finished =
        run({{"/usr/bin/env", "python3", "-c",
              "import json, sys, datetime\n"
              "text = open(sys.argv[1]).read()\n"
              "try: x = json.loads(text)\n"
              "except ValueError: x = [json.loads(line) for line in text.splitlines()]\n"
              "print((" +
                  expression + "))\n",
              path},
             {}});
    EXPECT_EQ(finished.err, "") << json.substr(0, 1000);
    return finished.out.substr(0, finished.out.find_last_not_of('\n') + 1);
}

class Inspect : public System {
  protected:
    Finished dsctl(std::vector<std::string> arguments) {
        return run_dsctl(daemon.socket(), arguments);
    }
    // What it prints, which has to succeed without a word on stderr.
    std::string out_of(std::vector<std::string> arguments) {
        Finished finished = dsctl(arguments);
        EXPECT_EQ(finished.exit, (Exit{0, 0})) << arguments.front();
        EXPECT_EQ(finished.err, "");
        return finished.out;
    }
};

TEST_F(Inspect, services_are_dumped_as_rows_with_their_registrations_counted) {
    Client publisher(daemon, "cam"), watcher(daemon, "eye");
    publisher.publish("web", "a b", 80, v1::SCOPE_SYSTEM);
    watcher.watch("web");

    const std::string table = out_of({"dump", "services"});
    const std::string wide = out_of({"dump", "services", "-o", "wide"});

    EXPECT_TRUE(table.starts_with("NAME  INSTANCE  SCOPE   ENDPOINT     HA  ISSU  NODE   PID"))
        << table;
    EXPECT_TRUE(holds(table, "web   \"a b\"     SYSTEM  10.0.0.1:80  -   -     local  " +
                                 std::to_string(getpid()) + "  1     20"))
        << table;
    EXPECT_FALSE(holds(table, "PUBLISHER"));
    EXPECT_TRUE(holds(line_with(wide, "NAME"), "  ID ")) << wide;
    EXPECT_TRUE(holds(line_with(wide, "NAME"), "  PUBLISHER")) << wide;
    EXPECT_FALSE(holds(wide, "\033")) << "colours are for terminals";
}

TEST_F(Inspect, the_json_of_every_verb_is_valid_in_both_forms) {
    Client client(daemon, "c\"am");
    client.publish("we\"b", "\\", 80);
    client.watch("we\"b");
    const std::vector<std::vector<std::string>> verbs = {{"dump", "services"},
                                                         {"dump", "registrations"},
                                                         {"dump", "clients"},
                                                         {"clients"},
                                                         {"nodes"},
                                                         {"stats"},
                                                         {"status"}};

    // All in one list: pairs of a document and the list of its lines.
    std::string pairs;
    for (const std::vector<std::string> &verb : verbs) {
        std::vector<std::string> json = verb, lines = verb;
        json.insert(json.end(), {"-o", "json"});
        lines.insert(lines.end(), {"-o", "jsonl"});
        std::string listed = out_of(lines);
        listed.pop_back();
        std::replace(listed.begin(), listed.end(), '\n', ',');
        pairs += (pairs.empty() ? "[" : ", [") + out_of(json) + ", [" + listed + "]]";
    }
    const std::string shapes = python('[' + pairs + ']', "[type(both[0]).__name__ for both in x]");
    const std::string same_keys =
        python('[' + pairs + ']',
               "all(list((both[0][0] if isinstance(both[0], list) else both[0]).keys()) == "
               "list(both[1][0].keys()) for both in x)");

    EXPECT_EQ(shapes, "['list', 'list', 'list', 'list', 'list', 'dict', 'dict']");
    EXPECT_EQ(same_keys, "True");
}

TEST_F(Inspect, times_are_rfc_3339_with_nanoseconds_and_their_age) {
    Client client(daemon);
    client.publish("web", "", 80);

    const std::string json = out_of({"dump", "services", "-o", "json"});

    EXPECT_EQ(python(json, "len(x[0]['services'][0]['added']), x[0]['services'][0]['updated']"),
              "(30, None)");
    EXPECT_EQ(python(json, "0 <= x[0]['services'][0]['added_age_ns'] < 60e9"), "True");
    EXPECT_EQ(python(json, "abs(datetime.datetime.now(datetime.timezone.utc) - "
                           "datetime.datetime.fromisoformat(x[0]['services'][0]['added'][:26] + "
                           "'+00:00')).total_seconds() < 60"),
              "True");
}

TEST_F(Inspect, filters_choose_and_3_says_that_nothing_passed) {
    Client client(daemon, "cam");
    client.publish("web", "here", 80, v1::SCOPE_LOCAL);
    client.publish("web", "all", 81, v1::SCOPE_SYSTEM);
    client.publish("mail", "", 25, v1::SCOPE_LOCAL);

    const std::string by_name = out_of({"dump", "services", "--name", "web", "--scope", "system"});
    const std::string by_node = out_of({"dump", "services", "--node", "local", "-o", "jsonl"});
    const std::string by_client = out_of({"dump", "clients", "--name", "cam"});

    EXPECT_EQ(std::count(by_name.begin(), by_name.end(), '\n'), 2) << by_name;
    EXPECT_TRUE(holds(by_name, "10.0.0.1:81"));
    EXPECT_EQ(std::count(by_node.begin(), by_node.end(), '\n'), 2) << by_node;
    EXPECT_EQ(std::count(by_client.begin(), by_client.end(), '\n'), 4) << by_client;
    for (const std::vector<std::string> &none :
         std::vector<std::vector<std::string>>{{"dump", "services", "--name", "no"},
                                               {"dump", "services", "--node", "02:00:00:00:00:77"},
                                               {"dump", "registrations", "--name", "web"},
                                               {"dump", "clients", "--name", "no", "-o", "json"},
                                               {"clients", "--name", "no"}}) {
        const Finished finished = dsctl(none);
        EXPECT_EQ(finished.exit, (Exit{3, 0})) << none[0] << ' ' << none[1];
        EXPECT_NE(finished.err, "");
    }
    EXPECT_EQ(dsctl({"dump", "clients", "--name", "no", "-o", "json"}).out, "[]\n");
}

TEST_F(Inspect, what_a_dump_cannot_be_ends_with_2_before_the_daemon_is_asked) {
    for (const std::vector<std::string> &bad :
         std::vector<std::vector<std::string>>{{"dump"},
                                               {"dump", "threads"},
                                               {"dump", "services", "--node", "02:00"},
                                               {"dump", "services", "--scope", "moon"},
                                               {"dump", "registrations", "--scope", "local"},
                                               {"completion", "tcsh"}}) {
        const Finished finished = run_dsctl("/nowhere", bad);
        EXPECT_EQ(finished.exit, (Exit{2, 0})) << finished.err;
        EXPECT_EQ(finished.out, "");
    }
}

TEST_F(Inspect, words_are_taken_in_any_case) {
    Client client(daemon);
    client.publish("web", "", 80);

    const std::string dump = out_of({"dump", "SERVICES", "--scope", "Local", "-o", "JSONL"});
    const std::string records = out_of({"trace", "--channel", "PUB", "--name", "web"});

    EXPECT_TRUE(dump.starts_with("{\"name\":\"web\"")) << dump;
    EXPECT_TRUE(holds(records, "DS_PUBLISH")) << records;
}

TEST_F(Inspect, registrations_are_dumped_for_names_that_nobody_publishes) {
    Client watcher(daemon, "eye");
    watcher.watch("nothing");

    const std::string table = out_of({"dump", "registrations"});
    const std::string json = out_of({"dump", "registrations", "-o", "json"});

    EXPECT_TRUE(table.starts_with("NAME     CLIENT  PID")) << table;
    EXPECT_TRUE(holds(table, "nothing  eye ")) << table;
    EXPECT_EQ(python(json, "x[0]['registrations'][0]['client'], 'services' in x[0]"),
              "('eye', False)");
}

TEST_F(Inspect, each_client_has_a_line_with_its_user_and_what_it_holds) {
    Client camera(daemon, "cam");
    camera.publish("web", "a", 1);
    camera.publish("web", "b", 2);
    camera.watch("web");
    const Finished id = run({{"/usr/bin/id", "-un"}, {}});
    const std::string user = id.out.substr(0, id.out.find('\n'));

    const std::string table = out_of({"clients", "--name", "cam"});
    const std::string json = out_of({"clients", "-o", "json"});

    EXPECT_TRUE(table.starts_with("SESSION")) << table;
    EXPECT_TRUE(holds(table, " cam ")) << table;
    EXPECT_TRUE(holds(table, ' ' + user + "  2         1 ")) << table;
    EXPECT_EQ(python(json, "[(c['user'], c['uid'], c['service_count'], c['registration_count']) "
                           "for c in x if c['name'] == 'cam']"),
              "[('" + user + "', " + std::to_string(getuid()) + ", 2, 1)]");
    EXPECT_EQ(python(json, "{c['name'] for c in x if c['name'] != 'cam'}"), "{'dsctl'}");
}

TEST_F(Inspect, the_own_node_is_listed_with_its_counters) {
    Client client(daemon);
    client.publish("web", "a", 1);
    client.withdraw("web", "a");

    const std::string table = out_of({"nodes"});
    const std::string json = out_of({"nodes", "-o", "json"});

    EXPECT_TRUE(table.starts_with("NODE               LOCAL  STATE  RACK ")) << table;
    EXPECT_EQ(python(json, "[(n['local'], n['state'], n['services'], n['services_added'], "
                           "n['services_deleted'], n['times_down'], n['last_down']) for n in x]"),
              "[(True, 'up', 0, 1, 1, 0, None)]");
}

TEST_F(Inspect, statistics_tell_how_many_there_are_and_how_many_there_were) {
    Client client(daemon);
    client.publish("web", "a", 1);
    client.publish("web", "b", 2);
    client.withdraw("web", "a");

    const std::string table = out_of({"stats"});
    const std::string json = out_of({"stats", "-o", "json"});

    EXPECT_TRUE(table.starts_with("FIELD                   VALUE\nclients                 2\n"))
        << table;
    EXPECT_TRUE(holds(table, "\nlocal services          1\n  added                 2\n")) << table;
    EXPECT_EQ(python(json, "x['local_services_added'], x['local_services_deleted']"), "(2, 1)");
}

TEST_F(Inspect, a_client_that_a_frame_cannot_hold_is_said_to_be_cut) {
    constexpr int count = 20'000;
    Client client(daemon, "big");
    std::vector<v1::Request> requests;
    for (int i = 0; i < count; i++)
        requests.push_back(publish_request("service-" + std::to_string(i), "", 80));
    client.pipeline(std::move(requests));

    const Finished finished = dsctl({"dump", "clients", "--name", "big", "-o", "jsonl"});

    EXPECT_EQ(finished.exit, (Exit{0, 0}));
    EXPECT_TRUE(holds(finished.err, "big: only ")) << finished.err;
    EXPECT_TRUE(holds(finished.err, " of 20000 services fit into a frame")) << finished.err;
    EXPECT_EQ(python(finished.out, "x['service_count'], 0 < len(x['services']) < 20000"),
              "(20000, True)");
}

TEST_F(Inspect, a_refused_connection_ends_it_with_6_and_the_daemons_sentence) {
    const TemporaryDirectory dir;
    std::ofstream(dir.path() + "/ds.toml") << "[limits]\nsessions_total = 1\n";
    Daemon::Options options;
    options.arguments = {"--config", dir.path() + "/ds.toml"};
    Daemon small(options);
    Client client(small);

    for (const std::vector<std::string> &verb : std::vector<std::vector<std::string>>{
             {"stats"}, {"dump", "services"}, {"publish", "a", "/b"}, {"watch", "a"}, {"trace"}}) {
        const Finished finished = run_dsctl(small.socket(), verb);
        EXPECT_EQ(finished.exit, (Exit{6, 0})) << verb.front();
        EXPECT_EQ(finished.out, "");
        EXPECT_TRUE(holds(finished.err, "The daemon has 1 of 1 sessions; limits.sessions_total"))
            << finished.err;
    }
}

// ---- a large directory ----

// The publisher is another process, so that the test stays small: the most memory that a program
// has used counts from its fork on.
class Large : public Inspect {
  protected:
    static constexpr int count = 100'000;

    // Runs it with its output in the file, and returns the most memory that any child has used.
    std::size_t peak_bytes(std::vector<std::string> arguments, const std::string &path) {
        const Descriptor out(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        Launch launched;
        launched.arguments = std::move(arguments);
        launched.arguments.insert(launched.arguments.begin(), dsctl_program());
        launched.environment = {"DS_SOCKET=" + daemon.socket(),
                                "ASAN_OPTIONS=quarantine_size_mb=1"};
        launched.out = out.get();
        EXPECT_EQ(launch(launched).wait(), (Exit{0, 0}));
        rusage usage = {};
        EXPECT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
        return static_cast<std::size_t>(usage.ru_maxrss) * 1024;
    }
    // How often each service is in the file, found by `mark` in front of its number.
    static std::vector<int> tally(const std::string &path, const std::string &mark) {
        std::vector<int> seen(count);
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            if (!line.starts_with(mark)) continue;
            const auto number = static_cast<std::size_t>(std::atoi(line.c_str() + mark.size()));
            if (number < seen.size()) seen[number]++;
        }
        return seen;
    }
};

TEST_F(Large, a_hundred_thousand_services_are_dumped_in_bounded_memory) {
    ClientProcess publisher([this](ClientProcess::Report &report) {
        Client client(daemon, "many");
        for (int i = 0; i < count;) {
            std::vector<v1::Request> requests;
            for (const int end = i + 10'000; i < end; i++)
                requests.push_back(publish_request("service-" + std::to_string(i), "", 80));
            client.pipeline(std::move(requests));
        }
        report.line("published");
        report.stay();
    });
    ASSERT_EQ(publisher.next_line(), "published");
    const TemporaryDirectory dir;
    const std::string path = dir.path() + "/out";
    const std::vector<int> once(count, 1);
    const std::size_t small = peak_bytes({"status"}, path);

    for (const auto &[format, mark] :
         {std::pair{"table", "service-"}, std::pair{"json", "    \"name\": \"service-"}}) {
        const std::size_t peak = peak_bytes({"dump", "services", "-o", format}, path);
        EXPECT_LT(peak, small + growth_bound(12u << 20)) << format;
        EXPECT_EQ(tally(path, mark), once) << format;
    }
}

// ---- completion ----

class Completion : public Inspect {
  protected:
    // The words that bash would offer for the last one, joined by blanks.
    std::string offered(const std::vector<std::string> &words) {
        Launch bash;
        bash.arguments = {"/bin/bash", "-c",
                          "source <(\"$0\" completion bash) && COMP_WORDS=(\"$0\" \"$@\") "
                          "COMP_CWORD=$# && _dsctl && echo \"${COMPREPLY[*]}\"",
                          dsctl_program()};
        bash.arguments.insert(bash.arguments.end(), words.begin(), words.end());
        bash.environment = {"DS_SOCKET=" + daemon.socket()};
        const Finished finished = run(bash);
        EXPECT_EQ(finished.exit, (Exit{0, 0}));
        EXPECT_EQ(finished.err, "");
        return finished.out.substr(0, finished.out.find('\n'));
    }
};

TEST_F(Completion, bash_takes_the_script_and_completes_dsctl_with_it) {
    const Finished finished =
        run({{"/bin/bash", "-c", "set -eu; source <(\"$0\" completion bash); complete -p dsctl",
              dsctl_program()},
             {}});

    EXPECT_EQ(finished.exit, (Exit{0, 0}));
    EXPECT_EQ(finished.out, "complete -F _dsctl dsctl\n");
    EXPECT_EQ(finished.err, "");
}

TEST_F(Completion, every_verb_and_every_option_of_the_help_is_offered) {
    const std::string help = out_of({"--help"});
    const std::size_t begin = help.find("Verbs:\n") + 7;
    std::istringstream verbs(help.substr(begin, help.find("\n\n", begin) - begin));
    int verb_count = 0;

    for (std::string line; std::getline(verbs, line); verb_count++) {
        const std::string verb = line.substr(2, line.find(' ', 2) - 2);
        EXPECT_TRUE(holds(' ' + offered({""}) + ' ', ' ' + verb + ' '));
        const std::string options = ' ' + offered({verb, "-"}) + ' ';
        const std::string verb_help = out_of({verb, "--help"});
        for (std::size_t at = 0; (at = verb_help.find("\n  -", at)) != verb_help.npos; at++) {
            const std::size_t start = at + 3;
            const std::string option =
                verb_help.substr(start, verb_help.find_first_of(", \n", start) - start);
            EXPECT_TRUE(holds(options, ' ' + option + ' ')) << verb << ' ' << option;
        }
    }
    EXPECT_GE(verb_count, 12);
}

TEST_F(Completion, values_are_offered_for_options_that_take_words) {
    EXPECT_EQ(offered({"du"}), "dump");
    EXPECT_EQ(offered({"-o", "js"}), "json jsonl");
    EXPECT_EQ(offered({"list", "--output", "=", "w"}), "wide");
    EXPECT_EQ(offered({"publish", "web", "/a", "--scope", ""}), "local rack system");
    EXPECT_EQ(offered({"dump", ""}), "clients registrations services");
    EXPECT_EQ(offered({"dump", "services", "--scope", "r"}), "rack");
    EXPECT_EQ(offered({"trace", "--channel", ""}), "pub reg err notif main");
    EXPECT_EQ(offered({"completion", ""}), "bash");
    EXPECT_EQ(offered({"nodes", ""}), "");
}

TEST_F(Completion, names_of_services_are_offered_where_one_is_wanted) {
    Client client(daemon);
    client.publish("web", "", 80);
    client.publish("we b", "", 80);
    client.publish("mail:in", "", 25);

    EXPECT_EQ(offered({"watch", "mail:in", "we"}), "we\\ b web");
    EXPECT_EQ(offered({"show", ""}), "mail:in we\\ b web");
    EXPECT_EQ(offered({"show", "mail", ":", ""}), "in") << "readline replaces what follows the ':'";
    EXPECT_EQ(offered({"-o", "json", "dump", "services", "--name", "web"}), "web");
    EXPECT_EQ(offered({"--socket", "/nowhere", "show", ""}), "");
    EXPECT_EQ(offered({"publish", "web", ""}), "") << "the endpoint";
    EXPECT_EQ(offered({"clients", "--name", ""}), "") << "names of clients, not of services";
}

} // namespace
