#include "relay/fake/fake_engine.h"

#include <utility>

#include "platform/dsr.h"

namespace ds::relay {

namespace {

FakeStore::Key key_of(const NodeAddress &node, const Update &update) {
    return {node, update.scope, update.service_id, update.name, update.instance};
}

Update with_operation(Update update, std::uint32_t operation) {
    update.operation = operation;
    return update;
}

} // namespace

// ---- store ----

void FakeStore::settle() {
    bool is_busy = true;
    while (is_busy) {
        is_busy = false;
        for (FakeEngine *engine : engines_)
            is_busy = engine->turn() || is_busy;
    }
}

void FakeStore::set_reachable(bool is_reachable) {
    if (is_reachable_ == is_reachable) return;
    is_reachable_ = is_reachable;
    for (FakeEngine *engine : engines_)
        is_reachable ? engine->connect() : engine->lose_connection();
}

void FakeStore::wipe() {
    const auto nodes = std::exchange(racks_, {});
    for (const auto &[node, rack] : nodes)
        for (FakeEngine *engine : engines_)
            if (engine->node_ != node && engine->is_connected_)
                engine->add([engine, gone = node] { engine->events_->node_down(gone); });
    entries_.clear();
    for (FakeEngine *engine : engines_) {
        if (!engine->is_connected_) continue;
        racks_[engine->node_] = engine->rack_;
        for (const auto &[key, update] : engine->wishes_)
            apply(engine->node_, update);
    }
}

void FakeStore::node_comes(const NodeAddress &node, const std::string &rack) {
    racks_[node] = rack;
}

void FakeStore::node_goes(const NodeAddress &node) {
    if (racks_.erase(node) == 0) return;
    std::erase_if(entries_, [&](const auto &item) { return item.first.node == node; });
    for (FakeEngine *engine : engines_)
        if (engine->node_ != node && engine->is_connected_)
            engine->add([engine, node] { engine->events_->node_down(node); });
}

void FakeStore::tell_others(const NodeAddress &node, const std::string &rack,
                            const Update &update) {
    for (FakeEngine *engine : engines_)
        if (engine->node_ != node && engine->is_connected_ && engine->sees(rack, update))
            engine->add(
                [engine, node, update] { engine->events_->received(node, update.borrowed()); });
}

void FakeStore::apply(const NodeAddress &node, const Update &update) {
    const Key key = key_of(node, update);
    const auto found = entries_.find(key);
    const std::string rack = racks_.contains(node) ? racks_[node] : "";
    if (update.operation == DSR_DELETE) {
        if (found == entries_.end()) return;
        const Entry gone = found->second;
        entries_.erase(found);
        return tell_others(node, gone.rack, with_operation(gone.update, DSR_DELETE));
    }
    const Update stored = with_operation(update, DSR_ADD);
    if (found == entries_.end()) {
        entries_[key] = {stored, rack};
        return tell_others(node, rack, stored);
    }
    if (found->second.update == stored) return;
    const Update old = std::exchange(found->second.update, stored);
    // The directory finds a service of another node by its process id among other things.
    if (old.pid == stored.pid) return tell_others(node, rack, with_operation(stored, DSR_MODIFY));
    tell_others(node, rack, with_operation(old, DSR_DELETE));
    tell_others(node, rack, stored);
}

std::vector<Update> FakeStore::entries_of(const NodeAddress &node) const {
    std::vector<Update> result;
    for (const auto &[key, entry] : entries_)
        if (key.node == node) result.push_back(entry.update);
    return result;
}

// ---- engine ----

FakeEngine::FakeEngine(FakeStore &store, const NodeAddress &node, std::string rack)
    : store_(store), node_(node), rack_(std::move(rack)) {
    store_.engines_.insert(this);
}

FakeEngine::~FakeEngine() {
    store_.engines_.erase(this);
}

void FakeEngine::add(Step step) {
    const bool was_empty = steps_.empty();
    steps_.push_back(std::move(step));
    if (was_empty && on_pending) on_pending();
}

bool FakeEngine::turn() {
    if (steps_.empty()) return false;
    const Step step = std::move(steps_.front());
    steps_.pop_front();
    step();
    return true;
}

void FakeEngine::start(Events &events) {
    events_ = &events;
    if (store_.is_reachable_) connect();
}

void FakeEngine::connect() {
    if (events_ != nullptr) add([this] { list(); });
}

// What was on its way is lost with the connection.
void FakeEngine::lose_connection() {
    steps_.clear();
    if (!std::exchange(is_connected_, false)) return;
    add([this] { events_->disconnected(); });
}

void FakeEngine::list() {
    if (!store_.is_reachable_ || is_connected_) return;
    is_connected_ = true;
    store_.racks_[node_] = rack_;
    wishes_.clear();
    events_->connected();
    const auto entries = store_.entries_; // what is bounced goes from the store
    for (const auto &[key, entry] : entries) {
        const bool is_own = key.node == node_;
        const bool is_told =
            is_own ? !wishes_.contains(key)
                   : store_.racks_.contains(key.node) && sees(entry.rack, entry.update);
        if (is_told) events_->received(key.node, entry.update.borrowed());
    }
    events_->listed();
}

bool FakeEngine::sees(const std::string &rack, const Update &update) const {
    return update.scope != DSR_SCOPE_RACK || rack == rack_;
}

int FakeEngine::send(const dsr_update_t &borrowed) {
    if (!is_connected_) return -1;
    const Update update = Update::copy_of(borrowed);
    sent_.push_back(update);
    if (update.operation == DSR_DELETE)
        wishes_.erase(key_of(node_, update));
    else
        wishes_[key_of(node_, update)] = with_operation(update, DSR_ADD);
    store_.apply(node_, update);
    return 0;
}

void FakeEngine::withdraw() {
    lose_connection();
    steps_.clear();
    events_ = nullptr;
    store_.node_goes(node_);
}

} // namespace ds::relay
