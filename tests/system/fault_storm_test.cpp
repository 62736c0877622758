// Thousands of sessions that die at once, and a million names: the daemon is as before.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <list>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;
using Storm = System;

constexpr std::uint32_t processes_count = 5;

std::uint32_t scaled(std::uint32_t count) {
    return is_sanitized() ? count / 10 : count;
}

rlim_t descriptors_allowed() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_max;
}

// Opens sessions that publish and watch, reports, and is killed.
void open_sessions(const std::string &socket, std::uint32_t process, std::uint32_t count,
                   ClientProcess::Report &report) {
    const rlimit limit = {descriptors_allowed(), descriptors_allowed()};
    setrlimit(RLIMIT_NOFILE, &limit);
    std::list<Client> clients;
    for (std::uint32_t i = 0; i < count; i++) {
        Client &client = clients.emplace_back(socket);
        client.publish("storm" + std::to_string(process) + '/' + std::to_string(i), "", 80);
        client.publish("shared" + std::to_string(i % 100), std::to_string(process * count + i), 80);
        client.watch("shared" + std::to_string((i + 1) % 100));
    }
    report.line("open");
    report.stay();
}

// Returns when all of them are dead; what the daemon makes of it is still to come.
void storm(const Daemon &daemon, Client &witness, std::uint32_t sessions_count) {
    const std::uint32_t count = sessions_count / processes_count;
    std::list<ClientProcess> processes;
    for (std::uint32_t i = 0; i < processes_count; i++)
        processes.emplace_back([&, i](ClientProcess::Report &report) {
            open_sessions(daemon.socket(), i, count, report);
        });
    for (ClientProcess &process : processes)
        ASSERT_EQ(process.next_line(), "open");
    const v1::StatusReply full = witness.status();
    EXPECT_EQ(full.sessions(), sessions_count + 1);
    EXPECT_EQ(full.services(), 2 * sessions_count);
    EXPECT_EQ(full.registrations(), sessions_count);
    for (ClientProcess &process : processes)
        process.kill();
}

TEST_F(Storm, five_thousand_sessions_that_are_killed_leave_nothing) {
    const std::uint32_t sessions_count = scaled(5'000);
    if (descriptors_allowed() < sessions_count + 100)
        GTEST_SKIP() << "the limit of descriptors is " << descriptors_allowed();
    Client witness(daemon);
    const std::size_t descriptors = daemon.descriptor_count();
    storm(daemon, witness, sessions_count);
    witness.await_sessions(1);
    const std::size_t memory = daemon.memory_bytes();

    storm(daemon, witness, sessions_count);
    witness.await_sessions(1);

    const v1::StatusReply status = witness.status();
    EXPECT_EQ(status.names(), 0u);
    EXPECT_EQ(status.services(), 0u);
    EXPECT_EQ(status.registrations(), 0u);
    EXPECT_EQ(status.queued_bytes(), 0u);
    EXPECT_EQ(daemon.descriptor_count(), descriptors);
    EXPECT_LT(daemon.memory_bytes(), memory + growth_bound(1u << 20));
}

TEST_F(Storm, a_million_names_that_come_and_go_leave_no_memory) {
    const std::uint32_t names_count = scaled(1'000'000);
    const std::uint32_t batch_count = 1'000, lag = 300; // names that live at the same time
    Client client(daemon);
    std::size_t memory_warm = 0;

    std::uint32_t next = 0;
    while (next < names_count + lag) {
        std::vector<v1::Request> requests;
        for (std::uint32_t i = 0; i < batch_count && next < names_count + lag; i++, next++) {
            if (next < names_count)
                requests.push_back(publish_request("million" + std::to_string(next), "", 80));
            if (next >= lag)
                requests.push_back(withdraw_request("million" + std::to_string(next - lag), ""));
        }
        client.pipeline(std::move(requests));
        if (memory_warm == 0 && next >= names_count / 10) memory_warm = daemon.memory_bytes();
    }

    EXPECT_LT(daemon.memory_bytes(), memory_warm + growth_bound(1u << 19));
    const v1::StatusReply status = client.status();
    EXPECT_EQ(status.publishes(), names_count);
    EXPECT_EQ(status.withdrawals(), names_count);
    EXPECT_EQ(status.names(), 0u);
    EXPECT_EQ(status.services(), 0u);
}

} // namespace
