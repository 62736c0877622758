// The programs of examples/ with the real daemon.
#include "../system/harness.h"
#include "client/ds_client.h"

namespace client_test {
namespace {

using namespace system_test;

// A program whose output is read as it comes and whose input ends when the test says so.
class Example {
  public:
    Example(const Daemon &daemon, std::vector<std::string> arguments)
        : process_(start(daemon, std::move(arguments))) {
        out_.writer.reset();
    }

    // Lines until one holds the text; throws when none does.
    std::string await_line(const std::string &text) {
        for (;;) {
            const std::optional<std::string> line = read_line(out_.reader.get(), buffer_);
            if (!line) throw std::runtime_error("it ended before it told of " + text);
            if (line->find(text) != line->npos) return *line;
        }
    }
    void end_input() { in_.writer.reset(); }
    Exit wait() { return process_.wait(); }

  private:
    // A shell connects the input, which a launch leaves as the test has it. It opens the pipe anew,
    // so this end has to stay open.
    Process start(const Daemon &daemon, std::vector<std::string> arguments) {
        const std::string fd = std::to_string(in_.reader.get());
        Launch program;
        program.arguments = {"/bin/sh", "-c", "exec \"$@\" <\"$DS_TEST_INPUT\"", "sh"};
        program.arguments.insert(program.arguments.end(), arguments.begin(), arguments.end());
        program.environment = {"DS_SOCKET=" + daemon.socket(),
                               "DS_TEST_INPUT=/proc/" + std::to_string(getpid()) + "/fd/" + fd};
        program.out = out_.writer.get();
        program.err = STDERR_FILENO;
        return launch(program);
    }

    Pipe in_;
    Pipe out_;
    Process process_;
    std::string buffer_;
};

class ExampleTest : public System {};

TEST_F(ExampleTest, the_c_program_publishes_watches_and_withdraws_at_the_end_of_its_input) {
    Example first(daemon, {PUBLISH_WATCH_PROGRAM, "web", "one", "80"});
    first.await_line("published, generation 1");
    first.await_line("web has 1 instances: one at 127.0.0.1:80");
    Example second(daemon, {PUBLISH_WATCH_PROGRAM, "web", "two", "81"});
    first.await_line("web has 2 instances: two at 127.0.0.1:81 one at 127.0.0.1:80");
    second.await_line("web has 2 instances");

    second.end_input();

    EXPECT_EQ(second.wait(), (Exit{0, 0}));
    first.await_line("web has 1 instances: one at 127.0.0.1:80");
    first.end_input();
    EXPECT_EQ(first.wait(), (Exit{0, 0}));
}

TEST_F(ExampleTest, the_c_program_tells_why_it_is_refused) {
    Example example(daemon, {PUBLISH_WATCH_PROGRAM, "web", "one", "0"});

    example.await_line("refused: endpoint.ipv4.port is 0");

    example.end_input();
    EXPECT_EQ(example.wait(), (Exit{0, 0}));
}

TEST_F(ExampleTest, the_python_program_prints_each_snapshot) {
    Example watcher(daemon, {PYTHON3_PROGRAM, WATCH_PY, "web", "3"});
    watcher.await_line("web has 0 instances");

    Example publisher(daemon, {PUBLISH_WATCH_PROGRAM, "web", "one", "80"});
    watcher.await_line("web has 1 instances");
    watcher.await_line("  one at 127.0.0.1:80 scope LOCAL pid ");
    publisher.end_input();

    watcher.await_line("web has 0 instances");
    EXPECT_EQ(watcher.wait(), (Exit{0, 0}));
    EXPECT_EQ(publisher.wait(), (Exit{0, 0}));
}

} // namespace
} // namespace client_test
