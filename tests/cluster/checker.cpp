#include "tests/cluster/checker.h"

namespace cluster_test {

namespace {

using system_test::Client;

bool is_visible(const Node &from, const Node &to, v1::Scope scope) {
    if (&from == &to) return true;
    if (!from.is_connected || !to.is_connected) return false;
    return scope == v1::SCOPE_SYSTEM ||
           (scope == v1::SCOPE_RACK && from.options().rack == to.options().rack);
}

bool is_asked(const Node &node) {
    const bool is_holding = !node.is_connected && node.options().on_outage == "hold";
    return node.is_running() && !node.is_frozen() && !is_holding;
}

// One line for each service that is missing, too much or different.
std::string difference(const std::string &title, const View &expected, const View &shown) {
    std::string text;
    for (const auto &[service, endpoint] : expected) {
        const auto found = shown.find(service);
        if (found == shown.end())
            text += "\n  misses " + service + ", " + endpoint;
        else if (found->second != endpoint)
            text += "\n  shows " + service + ", " + found->second + " instead of " + endpoint;
    }
    for (const auto &[service, endpoint] : shown)
        if (!expected.contains(service)) text += "\n  still shows " + service + ", " + endpoint;
    return text.empty() ? text : title + text + '\n';
}

View listed_view(Client &client, bool &is_reconciling) {
    View view;
    std::string after;
    do {
        const v1::ListReply page = client.ok(system_test::list_request({}, after)).list();
        for (const v1::Snapshot &name : page.names()) {
            add_to_view(view, name);
            is_reconciling = is_reconciling || name.reconciling();
        }
        after = page.next();
    } while (!after.empty());
    return view;
}

View dumped_view(Client &client) {
    View view;
    v1::Request request = system_test::dump_request(v1::DUMP_KIND_SERVICES);
    do {
        const v1::DumpReply page = client.ok(request).dump();
        for (const v1::DumpedName &name : page.names()) {
            v1::Snapshot snapshot;
            snapshot.set_name(name.name());
            for (const v1::DumpedService &service : name.services())
                *snapshot.add_instances() = service.instance();
            add_to_view(view, snapshot);
        }
        request.mutable_dump()->set_after(page.next());
    } while (!request.dump().after().empty());
    return view;
}

std::string observed_differences(const Cluster &cluster) {
    std::string text;
    for (const auto &node : cluster.nodes()) {
        if (!is_asked(*node)) continue;
        const std::string title = std::string("the observer of node ") + node->letter();
        text += difference(title, expected_view(cluster, *node), node->observer().view());
        if (node->observer().is_reconciling()) text += title + " is in a restart period\n";
    }
    return text;
}

std::string asked_differences(const Cluster &cluster) {
    std::string text;
    for (const auto &node : cluster.nodes()) {
        if (!is_asked(*node)) continue;
        const std::string title = std::string(" of node ") + node->letter();
        const View expected = expected_view(cluster, *node);
        Client client(node->socket(), "checker");
        bool is_reconciling = false;
        text += difference("the list" + title, expected, listed_view(client, is_reconciling));
        text += difference("the dump" + title, expected, dumped_view(client));
        if (is_reconciling) text += "the list" + title + " is in a restart period\n";
    }
    return text;
}

} // namespace

View expected_view(const Cluster &cluster, const Node &node) {
    View view;
    for (const auto &member : cluster.members()) {
        const Node &home = *member->node;
        if (!home.is_running()) continue;
        for (const auto &[service, port] : member->publisher.published())
            if (is_visible(home, node, service.scope))
                view[service_text(service.name, service.instance, service.scope, home.letter())] =
                    endpoint_text(port, &home == &node);
    }
    return view;
}

// The daemons are asked only when their observers have heard what they should.
testing::AssertionResult agrees(Cluster &cluster) {
    std::string text;
    const bool is_agreed = cluster.await([&] {
        text = observed_differences(cluster);
        if (text.empty()) text = asked_differences(cluster);
        return text.empty();
    });
    if (is_agreed) return testing::AssertionSuccess();
    return testing::AssertionFailure() << '\n' << text;
}

} // namespace cluster_test
