#include "tests/cluster/observer.h"

#include <algorithm>
#include <stdexcept>

namespace cluster_test {

using system_test::Deadline;

const std::vector<std::string> names = {"web", "mail", "db", "log"};

std::string service_text(const std::string &name, const std::string &instance, v1::Scope scope,
                         char node) {
    const char *scopes[] = {"NONE", "RACK", "SYSTEM", "LOCAL"};
    return name + '/' + instance + ' ' + scopes[scope] + " of " + node;
}

std::string endpoint_text(std::uint32_t port, bool is_local) {
    return "port " + std::to_string(port) + (is_local ? ", local" : ", remote");
}

// Nodes are told apart by the last byte of their address.
void add_to_view(View &view, const v1::Snapshot &snapshot) {
    for (const v1::Instance &instance : snapshot.instances()) {
        const char node = instance.node().empty() ? '?' : instance.node().back();
        const std::string service =
            service_text(snapshot.name(), instance.instance(), instance.scope(), node);
        const std::string endpoint =
            endpoint_text(instance.endpoint().ipv4().port(), instance.local());
        std::string &known = view[service];
        known += (known.empty() ? "" : " and again ") + endpoint;
    }
}

Observer::Observer(const std::string &socket) : client_(socket, "observer") {
    for (const std::string &name : names)
        names_[client_.watch(name)].text = name;
}

void Observer::take() {
    v1::Event event;
    for (;;) {
        const ds::client::Outcome outcome = client_.connection().receive(event, Deadline::min());
        if (outcome.failure == ds::client::Failure::timeout) return;
        if (!outcome.ok()) throw std::runtime_error("an observer lost its daemon: " + outcome.text);
        if (event.has_notification()) take(event.notification());
    }
}

void Observer::take(const v1::Notification &notification) {
    Name &name = names_.at(notification.handle());
    const v1::Snapshot &snapshot = notification.snapshot();
    if (snapshot.version() < name.version)
        throw std::runtime_error("the version of " + name.text + " fell");
    View before = std::move(name.view);
    name = {name.text, snapshot.version(), snapshot.reconciling(), {}};
    add_to_view(name.view, snapshot);

    const Clock::time_point now = Clock::now();
    for (const auto &[service, endpoint] : before)
        if (!name.view.contains(service)) changes_.push_back({now, Change::Kind::went, service});
    for (const auto &[service, endpoint] : name.view) {
        const auto known = before.find(service);
        if (known == before.end())
            changes_.push_back({now, Change::Kind::appeared, service});
        else if (known->second != endpoint)
            changes_.push_back({now, Change::Kind::changed, service});
    }
}

View Observer::view() const {
    View all;
    for (const auto &[handle, name] : names_)
        all.insert(name.view.begin(), name.view.end());
    return all;
}

bool Observer::is_reconciling() const {
    for (const auto &[handle, name] : names_)
        if (name.is_reconciling) return true;
    return false;
}

std::string Observer::told(Change::Kind kind) const {
    std::vector<std::string> services;
    for (const Change &change : changes_)
        if (change.kind == kind) services.push_back(change.service);
    std::sort(services.begin(), services.end());
    std::string text;
    for (const std::string &service : services)
        text += (text.empty() ? "" : "; ") + service;
    return text;
}

} // namespace cluster_test
