// The exit codes of the daemon: 0 when it was stopped or has answered, 1 when it cannot start,
// 2 when it was told something wrong.
#include <gtest/gtest.h>

#include <fstream>

#include "notify_socket.h"

namespace {

using namespace operation_test;
using ExitCode = testing::Test;

TEST_F(ExitCode, a_daemon_that_is_stopped_ends_with_0) {
    const TemporaryDirectory dir;
    Started daemon(dsd({"--runtime-dir", dir.path()}));

    const Exit exit = daemon.stop();

    EXPECT_EQ(exit, (Exit{0, 0}));
}

TEST_F(ExitCode, the_help_ends_with_0_and_tells_every_exit_code) {
    const Finished help = run_dsd({"--help"});

    EXPECT_EQ(help.exit, (Exit{0, 0}));
    EXPECT_EQ(help.err, "");
    EXPECT_NE(help.out.find("0 stopped by a signal, or done   1 cannot start or go on   2 usage"),
              help.out.npos)
        << help.out;
}

TEST_F(ExitCode, a_place_that_cannot_be_used_ends_with_1) {
    const Finished refused = run_dsd({"--runtime-dir", "/dev/null/ds"});

    EXPECT_EQ(refused.exit, (Exit{1, 0}));
    EXPECT_EQ(refused.err, "dsd: cannot make the directory /dev/null/ds: Not a directory\n");
}

TEST_F(ExitCode, a_configuration_with_an_error_ends_with_2) {
    const TemporaryDirectory dir;
    const std::string file = dir.path() + "/ds.toml";
    std::ofstream(file) << "[limits]\nsessions = -1\n";

    const Finished refused = run_dsd({"--config", file, "--runtime-dir", dir.path()});

    EXPECT_EQ(refused.exit, (Exit{2, 0}));
    EXPECT_TRUE(refused.err.starts_with(file + ":2:")) << refused.err;
}

} // namespace
