#include "tests/relay/directory_double.h"

#include <algorithm>

#include "platform/dsr.h"

namespace relay_test {

using ds::relay::NodeAddress;
using ds::relay::Update;

void DirectoryDouble::send(const Update &update) {
    const dsr_update_t borrowed = update.borrowed();
    engine_->send(borrowed);
}

void DirectoryDouble::publish(const Update &update) {
    const Key key = {update.name, update.service_id};
    Update sent = update;
    sent.operation = published_.contains(key) ? DSR_MODIFY : DSR_ADD;
    published_[key] = update;
    if (is_connected_ && !is_own_period_open) send(sent);
}

void DirectoryDouble::withdraw(const std::string &name, std::uint32_t id) {
    const auto found = published_.find({name, id});
    Update gone = found->second;
    published_.erase(found);
    gone.operation = DSR_DELETE;
    if (is_connected_) send(gone);
}

void DirectoryDouble::end_own_period() {
    is_own_period_open = false;
    for (const auto &[key, update] : published_)
        send(update);
    for (auto &[key, update] : replayed_) {
        if (published_.contains(key)) continue;
        update.operation = DSR_DELETE;
        send(update);
    }
    replayed_.clear();
}

// ---- Events ----

void DirectoryDouble::connected() {
    is_connected_ = true;
    events_.push_back("connected");
    if (is_own_period_open) return;
    for (const auto &[key, update] : published_)
        send(update);
}

void DirectoryDouble::disconnected() {
    is_connected_ = is_listed_ = false;
    events_.push_back("disconnected");
    for (auto &[key, service] : remote_)
        service.is_marked = true;
}

void DirectoryDouble::listed() {
    is_listed_ = true;
    events_.push_back("listed");
    std::erase_if(remote_, [](const auto &item) { return item.second.is_marked; });
}

void DirectoryDouble::node_down(const NodeAddress &node) {
    events_.push_back("down " + std::to_string(node[5]));
    std::erase_if(remote_, [&](const auto &item) { return item.first.first == node; });
}

void DirectoryDouble::receive_own(const Update &update) {
    if (is_own_period_open) {
        if (update.operation != DSR_DELETE) replayed_[{update.name, update.service_id}] = update;
        return;
    }
    bounces_++;
    Update answer = update;
    answer.operation = DSR_DELETE;
    answer.version++;
    send(answer);
}

void DirectoryDouble::received(const NodeAddress &sender, const dsr_update_t &borrowed) {
    const Update update = Update::copy_of(borrowed);
    if (sender == node_) return receive_own(update);
    const char *operations[] = {"?", "add", "modify", "delete"};
    updates_ += (updates_.empty() ? "" : "; ") + std::string(operations[update.operation]) + " " +
                update.name + " v" + std::to_string(update.version);
    versions_.push_back({update.name, update.version});
    const std::pair<NodeAddress, Key> key = {sender, {update.name, update.service_id}};
    if (update.operation == DSR_DELETE)
        remote_.erase(key);
    else
        remote_[key] = {update, false};
}

// ---- questions ----

std::string DirectoryDouble::seen() const {
    std::string text;
    for (const auto &[key, service] : remote_)
        text += (text.empty() ? "" : " ") + service.update.name +
                service.update.instance.value_or("") + "@" + std::to_string(key.first[5]) + "v" +
                std::to_string(service.update.version);
    return text;
}

std::string DirectoryDouble::replayed() const {
    std::string text;
    for (const auto &[key, update] : replayed_)
        text += (text.empty() ? "" : " ") + key.first;
    return text;
}

std::string DirectoryDouble::events() const {
    std::string text;
    for (const std::string &event : events_)
        text += (text.empty() ? "" : "; ") + event;
    return text;
}

std::size_t DirectoryDouble::count(const std::string &event) const {
    return static_cast<std::size_t>(std::ranges::count(events_, event));
}

std::vector<std::uint32_t> DirectoryDouble::versions(const std::string &name) const {
    std::vector<std::uint32_t> result;
    for (const auto &[received, version] : versions_)
        if (received == name) result.push_back(version);
    return result;
}

} // namespace relay_test
