// Many processes at once, which all have to end with the same truth.
#include <gtest/gtest.h>

#include <iterator>
#include <list>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;
using Crowd = System;

constexpr std::uint32_t members_count = 200;
constexpr std::uint32_t names_count = 4;
constexpr std::uint32_t final_generation = 5;

std::string name_of(std::uint32_t i) {
    return "crowd" + std::to_string(i % names_count);
}

bool is_final(const v1::Snapshot &snapshot) {
    if (snapshot.instances_size() != static_cast<int>(members_count / names_count)) return false;
    for (const v1::Instance &instance : snapshot.instances())
        if (instance.generation() != final_generation) return false;
    return true;
}

// Publishes and changes its own instance while it watches everybody's. Reports what it saw in the
// end, versions included.
void take_part(const std::string &socket, std::uint32_t member, ClientProcess::Report &report) {
    Client client(socket);
    std::vector<v1::Snapshot> newest(names_count);
    for (std::uint32_t i = 0; i < names_count; i++)
        client.watch(name_of(i), i);
    for (std::uint32_t generation = 1; generation <= final_generation; generation++)
        client.publish(name_of(member), std::to_string(member), generation);
    std::uint32_t final_count = 0;
    while (final_count < names_count) {
        const v1::Notification told = client.notification();
        v1::Snapshot &snapshot = newest.at(told.cookie());
        if (is_final(told.snapshot()) && !is_final(snapshot)) final_count++;
        snapshot = told.snapshot();
    }
    std::string truth;
    for (const v1::Snapshot &snapshot : newest)
        truth += snapshot.name() + " v" + std::to_string(snapshot.version()) + " " +
                 digest(snapshot) + ";";
    report.line(truth);
    report.stay();
}

TEST_F(Crowd, two_hundred_processes_that_publish_and_watch_end_with_the_same_truth) {
    std::list<ClientProcess> members;
    for (std::uint32_t i = 0; i < members_count; i++)
        members.emplace_back(
            [&, i](ClientProcess::Report &report) { take_part(daemon.socket(), i, report); });

    const std::string truth = members.front().next_line();

    EXPECT_NE(truth.find("crowd3 v"), truth.npos) << truth;
    for (auto member = std::next(members.begin()); member != members.end(); ++member)
        EXPECT_EQ(member->next_line(), truth);
    for (ClientProcess &member : members)
        member.kill();
    Client witness(daemon);
    witness.await_sessions(1);
    const v1::StatusReply status = witness.status();
    EXPECT_EQ(status.services(), 0u);
    EXPECT_EQ(status.registrations(), 0u);
    EXPECT_EQ(status.publishes(), members_count * final_generation);
}

TEST_F(Crowd, two_hundred_connections_come_and_go_while_others_are_told_everything) {
    Client watcher(daemon);
    watcher.watch("web");
    std::list<Client> clients;

    for (std::uint32_t i = 1; i <= members_count; i++) {
        clients.emplace_back(daemon).publish("web", "", i);
        if (clients.size() > 10) clients.pop_front();
    }
    clients.erase(clients.begin(), std::prev(clients.end()));

    EXPECT_EQ(digest(watcher.await_digest(":" + std::to_string(members_count))), ":200");
    watcher.await_sessions(2);
}

} // namespace
