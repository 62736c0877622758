// Folders that the daemon cannot use, and disks that are full.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

Finished run_dsd(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), dsd_program());
    return run({std::move(arguments), {}});
}

void expect_refusal(const Finished &dsd, const std::vector<std::string> &mentioned) {
    EXPECT_EQ(dsd.exit, (Exit{1, 0}));
    EXPECT_EQ(dsd.out, "");
    EXPECT_TRUE(dsd.err.ends_with("\n")) << dsd.err;
    const std::string last = dsd.err.substr(dsd.err.rfind('\n', dsd.err.size() - 2) + 1);
    EXPECT_TRUE(last.starts_with("dsd: ")) << dsd.err;
    for (const std::string &text : mentioned)
        EXPECT_NE(last.find(text), last.npos) << text << " is not in: " << dsd.err;
}

// ---- folders ----

struct Folder {
    const char *test_name;
    std::function<void(const std::string &folder)> spoil;
    const char *culprit; // below the folder
    const char *reason;
};

const Folder folders[] = {
    {"is_a_file",
     [](const std::string &folder) {
         std::filesystem::remove(folder);
         std::ofstream(folder) << "precious";
     },
     "", "Not a directory"},
    {"is_a_link_to_nothing",
     [](const std::string &folder) {
         std::filesystem::remove(folder);
         std::filesystem::create_symlink("/nowhere/ds", folder);
     },
     "", "exists"},
    {"has_a_folder_as_its_lock",
     [](const std::string &folder) { std::filesystem::create_directory(folder + "/dsd.lock"); },
     "/dsd.lock", "Is a directory"},
    {"has_a_file_as_its_trace_folder",
     [](const std::string &folder) { std::ofstream(folder + "/trace") << "precious"; }, "/trace",
     "Not a directory"},
    {"has_a_folder_as_a_trace_ring",
     [](const std::string &folder) {
         std::filesystem::create_directories(folder + "/trace/pub.ring.new");
     },
     "/trace", "File exists"},
    {"has_a_folder_as_its_sum_of_publications",
     [](const std::string &folder) { std::filesystem::create_directory(folder + "/published"); },
     "/published", "Is a directory"},
    {"has_a_link_as_its_sum_of_publications",
     [](const std::string &folder) {
         std::filesystem::create_symlink("/nowhere", folder + "/published");
     },
     "/published", "symbolic links"},
    {"has_a_pipe_as_its_sum_of_publications",
     [](const std::string &folder) { ASSERT_EQ(mkfifo((folder + "/published").c_str(), 0600), 0); },
     "/published", "not a regular file"},
};

void PrintTo(const Folder &folder, std::ostream *out) {
    *out << folder.test_name;
}

class SpoiltFolder : public testing::TestWithParam<Folder> {};

TEST_P(SpoiltFolder, is_refused_with_its_name_and_the_reason) {
    const TemporaryDirectory dir;
    const std::string folder = dir.path() + "/ds";
    std::filesystem::create_directory(folder);
    GetParam().spoil(folder);

    const Finished dsd = run_dsd({"--runtime-dir", folder});

    expect_refusal(dsd, {folder + GetParam().culprit, GetParam().reason});
}

INSTANTIATE_TEST_SUITE_P(, SpoiltFolder, testing::ValuesIn(folders),
                         [](const auto &test) { return test.param.test_name; });

TEST(RuntimeFolder, that_is_missing_is_made_with_all_above_it) {
    const TemporaryDirectory dir;
    Daemon::Options options;
    options.runtime_dir = dir.path() + "/some/where/ds";

    Daemon daemon(options);

    EXPECT_EQ(Client(daemon).status().trace_directory(), options.runtime_dir + "/trace");
}

TEST(RuntimeFolder, of_somebody_else_is_refused_with_the_reason) {
    if (getuid() != 0) GTEST_SKIP() << "only root can run the daemon as somebody else";
    const TemporaryDirectory dir;

    const Finished dsd = run({{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                               "--clear-groups", dsd_program(), "--runtime-dir", dir.path()},
                              {}});

    expect_refusal(dsd, {dir.path() + "/dsd.lock", "Permission denied"});
}

TEST(RuntimeFolder, without_the_socket_s_folder_is_refused_with_the_reason) {
    const TemporaryDirectory dir;
    const std::string socket = dir.path() + "/none/ds.sock";

    const Finished dsd = run_dsd({"--runtime-dir", dir.path(), "--socket", socket});

    expect_refusal(dsd, {socket, "No such file or directory"});
}

// ---- full disks ----

// A disk of its own.
class Disk : public testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "only root can mount a small disk";
    }
    void TearDown() override {
        if (is_mounted_) umount2(path().c_str(), MNT_DETACH);
    }
    void mount(const std::string &size) {
        const std::string options = "mode=0755,size=" + size;
        is_mounted_ = ::mount("tmpfs", path().c_str(), "tmpfs", 0, options.c_str()) == 0;
        if (!is_mounted_) GTEST_SKIP() << "cannot mount a small disk: " << std::strerror(errno);
    }
    void fill() {
        const Descriptor file(open(filler().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const std::string page(4096, 'x');
        while (write(file.get(), page.data(), page.size()) > 0)
            continue;
        ASSERT_EQ(errno, ENOSPC);
    }
    void make_room() { std::filesystem::remove(filler()); }
    const std::string &path() const { return dir_.path(); }
    Daemon::Options here() const {
        Daemon::Options options;
        options.runtime_dir = path();
        return options;
    }

  private:
    std::string filler() const { return path() + "/filler"; }
    TemporaryDirectory dir_;
    bool is_mounted_ = false;
};

TEST_F(Disk, that_is_full_is_told_at_the_start) {
    mount("64k");
    if (IsSkipped()) return;
    fill();

    expect_refusal(run_dsd({"--runtime-dir", path()}), {path(), "No space left on device"});
}

TEST_F(Disk, without_room_for_the_traces_is_told_at_the_start) {
    mount("512k");
    if (IsSkipped()) return;
    const TemporaryDirectory other;

    const Finished dsd = run_dsd({"--runtime-dir", path()});
    const Finished apart =
        run_dsd({"--runtime-dir", other.path(), "--trace-dir", path() + "/trace"});

    expect_refusal(dsd, {path() + "/trace", "No space left on device"});
    expect_refusal(apart, {path() + "/trace", "No space left on device"});
}

TEST_F(Disk, that_fills_up_later_is_not_noticed_before_the_next_start) {
    constexpr std::uint32_t rounds_count = 40, batch_count = 500; // the rings wrap around
    mount("16m");
    if (IsSkipped()) return;
    {
        Daemon daemon(here());
        Client client(daemon), watcher(daemon);
        watcher.watch("web");
        fill();

        for (std::uint32_t round = 0; round < rounds_count; round++) {
            std::vector<v1::Request> requests = {publish_request("web", "", 1 + round)};
            for (std::uint32_t i = 0; i < batch_count; i++) {
                requests.push_back(publish_request("other" + std::to_string(i), "", 80));
                requests.push_back(withdraw_request("other" + std::to_string(i), ""));
            }
            client.pipeline(std::move(requests));
        }
        client.ok(dump_request(v1::DUMP_KIND_CLIENTS));

        watcher.await_digest(":" + std::to_string(rounds_count));
        const Finished trace = run_dsctl(daemon.socket(), {"trace", "-n", "1"});
        EXPECT_EQ(trace.exit, (Exit{0, 0})) << trace.err;
        daemon.kill();
    }

    expect_refusal(run_dsd({"--runtime-dir", path()}), {path(), "No space left on device"});
    make_room();
    Daemon again(here());
    Client client(again);
    client.watch("web");
    EXPECT_TRUE(client.snapshot().reconciling()); // what was published before is still known
}

} // namespace
