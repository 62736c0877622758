#include "bench/relay/nodes.h"

#include <poll.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "relay/etcd/keys.h"

namespace ds::bench::replication {

namespace {

constexpr int patience_ms = 60'000;

std::string write_configuration(const std::string &directory, const std::string &endpoint,
                                int number) {
    char address[18];
    std::snprintf(address, sizeof address, "02:00:00:00:%02x:%02x", number >> 8 & 0xff,
                  number & 0xff);
    const std::string path = directory + "/ds.toml";
    std::ofstream file(path);
    file << "[daemon]\nnode_address = \"" << address << "\"\n[relay]\nendpoints = \"" << endpoint
         << "\"\ncluster = \"" << cluster << "\"\n";
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
    return path;
}

} // namespace

std::unique_ptr<ServerProcess> start_node(const Options &options, const std::string &endpoint,
                                          int number) {
    return std::make_unique<ServerProcess>(
        [&](const std::string &directory) -> std::vector<std::string> {
            return {options.daemon, "--runtime-dir", directory, "--config",
                    write_configuration(directory, endpoint, number)};
        });
}

Pair::Pair(const Options &options, const Store &store)
    : sender(start_node(options, store.endpoint(), 1)),
      receiver(start_node(options, store.endpoint(), 2)) {
    Link publisher(sender->socket());
    Link watcher(receiver->socket());
    register_for(watcher, {"bench/ready"});
    v1::Request request = publish_request();
    request.mutable_publish()->set_name("bench/ready");
    publisher.put(request);
    publisher.flush();
    publisher.await_replies(1);
    await_publication(watcher);
}

etcd::KeyRange entries_of(const std::string &cluster_name) {
    return etcd::Keys(cluster_name, "default").system_entries();
}

std::vector<etcd::KeyValue> entries_for_bare_side(Gateway &gateway) {
    const std::string own = "/ds/v1/" + std::string(cluster);
    const std::string other = "/ds/v1/" + std::string(other_cluster);
    std::vector<etcd::KeyValue> entries = gateway.list(entries_of(cluster));
    for (etcd::KeyValue &entry : entries)
        entry.key = other + entry.key.substr(own.size());
    return entries;
}

void await_events(Link &link, const std::function<void(const v1::Event &)> &function) {
    std::size_t count = link.take(false, function);
    while (count == 0) {
        pollfd item = {link.fd(), POLLIN, 0};
        if (poll(&item, 1, patience_ms) == 0)
            throw std::runtime_error("a node tells nothing for a minute");
        count = link.take(false, function);
    }
}

void register_for(Link &link, const std::vector<std::string> &names) {
    constexpr std::size_t batch = 64;
    for (std::size_t i = 0; i < names.size(); i += batch) {
        const std::size_t end = std::min(i + batch, names.size());
        for (std::size_t k = i; k < end; k++) {
            v1::Request request;
            request.mutable_register_()->set_name(names[k]);
            request.mutable_register_()->set_cookie(k);
            link.put(request);
        }
        link.flush();
        std::size_t events = 0; // an answer and a notification for each
        while (events < 2 * (end - i))
            await_events(link, [&](const v1::Event &) { events++; });
    }
}

void await_publication(Link &link) {
    bool is_there = false;
    while (!is_there)
        await_events(link, [&](const v1::Event &event) {
            is_there = is_there || event.notification().snapshot().instances_size() > 0;
        });
}

v1::StatusReply status_of(Link &link) {
    v1::Request request;
    request.mutable_status();
    link.put(request);
    link.flush();
    v1::StatusReply status;
    bool is_there = false;
    while (!is_there)
        await_events(link, [&](const v1::Event &event) {
            if (!event.has_reply()) return;
            status = event.reply().status_info();
            is_there = true;
        });
    return status;
}

} // namespace ds::bench::replication
