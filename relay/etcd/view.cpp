#include "relay/etcd/view.h"

#include <set>
#include <string_view>
#include <unordered_set>

#include "platform/dsr.h"

namespace ds::relay::etcd {

namespace {

void deliver(std::uint32_t operation, const NodeAddress &node, const Update &update,
             Events &events) {
    dsr_update_t borrowed = update.borrowed();
    borrowed.operation = operation;
    events.received(node, borrowed);
}

} // namespace

View::Told View::clear() {
    Told told;
    for (auto &[address, entries] : entries_)
        for (auto &[key, entry] : entries)
            if (entry.told) told[key] = std::move(entry.told);
    nodes_.clear();
    entries_.clear();
    names_.clear();
    names_with_room_.clear();
    entry_count_ = 0;
    return told;
}

void View::tell_changes_since(const Told &before, Events &events) {
    for (const auto &[address, entries] : entries_)
        for (const auto &[key, entry] : entries) {
            const auto known = before.find(key);
            if (known == before.end() || !entry.told) continue;
            const Update &was = *known->second, &is = *entry.told;
            // With another process or endpoint it came as a service of its own.
            const bool is_same = was.pid == is.pid && was.endpoint == is.endpoint;
            if (is_same && was != is) deliver(DSR_MODIFY, address, is, events);
        }
}

// ---- changes ----

void View::replace(const std::vector<KeyValue> &items, Events &events) {
    drop_missing(items, events);
    // Nodes first: what counts depends on them. Every entry that is left is settled by its item.
    for (const KeyValue &item : items)
        if (const auto node = keys_.parse_node(item.key)) learn_node(*node, item);
    for (const KeyValue &item : items)
        if (!keys_.parse_node(item.key)) put(item, events);
}

void View::drop_missing(const std::vector<KeyValue> &items, Events &events) {
    std::unordered_set<std::string_view> listed;
    for (const KeyValue &item : items)
        listed.insert(item.key);
    for (auto node = nodes_.begin(); node != nodes_.end();) {
        const NodeAddress address = (node++)->first;
        if (!listed.contains(keys_.node(address))) remove_node(address, events);
    }
    for (auto node = entries_.begin(); node != entries_.end();) {
        const auto here = node++;
        for (auto entry = here->second.begin(); entry != here->second.end();) {
            const auto missing = entry++;
            const bool is_last = here->second.size() == 1;
            if (listed.contains(missing->first)) continue;
            remove_entry(here->first, missing, events);
            if (is_last) break; // the map of this node went with it
        }
    }
    // A list is the truth: whatever revision was known, what it says is newer.
    for (auto &[address, node] : nodes_)
        node.mod_revision = 0;
    for (auto &[address, entries] : entries_)
        for (auto &[key, entry] : entries)
            entry.mod_revision = 0;
}

void View::put(const KeyValue &item, Events &events) {
    if (const auto node = keys_.parse_node(item.key))
        put_node(*node, item, events);
    else if (const auto parts = keys_.parse_entry(item.key))
        put_entry(*parts, item, events);
    else
        journal_.refuse(item.key, "key is not of any known form");
}

void View::remove(const std::string &key, std::int64_t revision, Events &events) {
    if (const auto address = keys_.parse_node(key)) {
        const auto found = nodes_.find(*address);
        if (found != nodes_.end() && found->second.mod_revision < revision)
            remove_node(*address, events);
        return;
    }
    const auto parts = keys_.parse_entry(key);
    if (!parts) return;
    const auto node = entries_.find(parts->node);
    if (node == entries_.end()) return;
    const auto entry = node->second.find(key);
    if (entry != node->second.end() && entry->second.mod_revision < revision)
        remove_entry(parts->node, entry, events);
}

// True when other entries than before may count.
bool View::learn_node(const NodeAddress &address, const KeyValue &item) {
    Node &node = nodes_[address];
    if (item.mod_revision < node.mod_revision) return false;
    NodeInfo info;
    const std::string problem = decode_node(item.value, info);
    if (!problem.empty()) journal_.refuse(item.key, problem);
    const bool is_same_key = problem.empty() && node.info && node.info->rack == info.rack &&
                             node.create_revision == item.create_revision;
    node.info = problem.empty() ? std::optional(std::move(info)) : std::nullopt;
    node.create_revision = item.create_revision;
    node.mod_revision = item.mod_revision;
    return !is_same_key;
}

void View::put_node(const NodeAddress &address, const KeyValue &item, Events &events) {
    const bool is_change = learn_node(address, item);
    const auto entries = entries_.find(address);
    if (!is_change || entries == entries_.end()) return;
    for (auto &[key, entry] : entries->second)
        settle(address, key, entry, events);
    fill_room(events);
}

void View::put_entry(const EntryKey &parts, const KeyValue &item, Events &events) {
    Entries &entries = entries_[parts.node];
    const auto found = entries.find(item.key);
    if (found == entries.end() && entry_count_ >= limits_.entries_max) {
        if (entries.empty()) entries_.erase(parts.node);
        return journal_.refuse(item.key, "there are too many entries");
    }
    if (found == entries.end()) entry_count_++;
    Entry &entry = entries[item.key];
    if (item.mod_revision < entry.mod_revision) return;
    entry.parts = parts;
    entry.mod_revision = item.mod_revision;
    Update update;
    const std::string problem = decode_update(parts, item.value, update);
    if (problem.empty())
        entry.update = std::make_shared<const Update>(std::move(update));
    else
        entry.update.reset(), journal_.refuse(item.key, problem);
    settle(parts.node, item.key, entry, events);
    fill_room(events);
}

// The directory drops the node's services by itself.
void View::remove_node(const NodeAddress &address, Events &events) {
    nodes_.erase(address);
    const auto entries = entries_.find(address);
    if (entries != entries_.end())
        for (auto &[key, entry] : entries->second)
            forget(address, key, entry);
    events.node_down(address);
    fill_room(events);
}

void View::remove_entry(const NodeAddress &address, Entries::iterator entry, Events &events) {
    const auto node = entries_.find(address);
    untell(address, entry->second, events);
    forget(address, entry->first, entry->second);
    node->second.erase(entry);
    entry_count_--;
    if (node->second.empty()) entries_.erase(node);
    fill_room(events);
}

// ---- what the directory knows ----

bool View::counts(const NodeAddress &address, const Entry &entry) const {
    const auto node = nodes_.find(address);
    if (!entry.update || node == nodes_.end()) return false;
    if (!node->second.info || entry.mod_revision <= node->second.create_revision) return false;
    // A node that has moved leaves entries of its old rack behind for a moment.
    return entry.parts.scope != DSR_SCOPE_RACK || node->second.info->rack == entry.parts.rack;
}

void View::settle(const NodeAddress &address, const std::string &key, Entry &entry,
                  Events &events) {
    if (counts(address, entry)) {
        if (entry.told && *entry.told == *entry.update)
            entry.told = entry.update;
        else
            tell(address, key, entry, events);
        return;
    }
    untell(address, entry, events);
    forget(address, key, entry);
}

// The directory finds a service of another node by its process id among other things, so a change
// of that is a deletion and an addition.
void View::tell(const NodeAddress &address, const std::string &key, Entry &entry, Events &events) {
    const bool is_change = entry.told && entry.told->pid == entry.update->pid;
    if (!is_change) {
        untell(address, entry, events);
        forget(address, key, entry);
    }
    const std::size_t bytes = told_bytes(*entry.update);
    if (!take_room(address, key, entry, bytes)) {
        untell(address, entry, events);
        forget(address, key, entry);
        names_[entry.parts.name].waiting.insert({address, key});
        entry.is_waiting = true;
        return journal_.refuse(key, "its name holds too much to be told to a client");
    }
    if (!entry.told) nodes_[address].told++;
    entry.told = entry.update;
    deliver(is_change ? DSR_MODIFY : DSR_ADD, address, *entry.told, events);
}

void View::untell(const NodeAddress &address, Entry &entry, Events &events) {
    if (entry.told) deliver(DSR_DELETE, address, *entry.told, events);
}

// Gives back the room of what was told.
void View::forget(const NodeAddress &address, const std::string &key, Entry &entry) {
    const auto name = names_.find(entry.parts.name);
    if (entry.told) {
        entry.told.reset();
        const auto node = nodes_.find(address);
        if (node != nodes_.end()) node->second.told--;
        name->second.bytes -= entry.told_bytes;
        if (!name->second.waiting.empty()) names_with_room_.insert(entry.parts.name);
    }
    if (entry.is_waiting) name->second.waiting.erase({address, key});
    entry.is_waiting = false;
    entry.told_bytes = 0;
    if (name != names_.end() && name->second.bytes == 0 && name->second.waiting.empty())
        names_.erase(name);
}

bool View::take_room(const NodeAddress &address, const std::string &key, Entry &entry,
                     std::size_t bytes) {
    Name &name = names_[entry.parts.name];
    if (name.bytes - entry.told_bytes + bytes > limits_.name_bytes_max) return false;
    name.bytes = name.bytes - entry.told_bytes + bytes;
    entry.told_bytes = bytes;
    if (entry.is_waiting) name.waiting.erase({address, key});
    entry.is_waiting = false;
    return true;
}

// Entries that did not fit under their name are tried again once something of it went.
void View::fill_room(Events &events) {
    while (!names_with_room_.empty()) {
        const std::string name = *names_with_room_.begin();
        names_with_room_.erase(names_with_room_.begin());
        const auto found = names_.find(name);
        if (found == names_.end()) continue;
        const auto waiting = found->second.waiting; // settling changes it, and may end the name
        for (const auto &[address, key] : waiting) {
            Entry &entry = entries_.at(address).at(key);
            const auto now = names_.find(name);
            const std::size_t taken = now != names_.end() ? now->second.bytes : 0;
            if (taken + told_bytes(*entry.update) <= limits_.name_bytes_max)
                settle(address, key, entry, events);
        }
    }
}

// ---- questions ----

std::vector<View::Remains> View::remains() const {
    std::vector<Remains> result;
    for (const auto &[address, entries] : entries_) {
        if (nodes_.contains(address)) continue;
        Remains remains = {address, {keys_.system_entries_of(address)}};
        std::set<std::string> racks;
        for (const auto &[key, entry] : entries)
            if (entry.parts.scope == DSR_SCOPE_RACK) racks.insert(entry.parts.rack);
        for (const std::string &rack : racks)
            remains.ranges.push_back(keys_.rack_entries_of(rack, address));
        result.push_back(std::move(remains));
    }
    return result;
}

bool View::has_remains() const {
    for (const auto &[address, entries] : entries_)
        if (!nodes_.contains(address)) return true;
    return false;
}

std::int64_t View::revision_of(const std::string &key) const {
    if (const auto address = keys_.parse_node(key)) {
        const auto node = nodes_.find(*address);
        return node != nodes_.end() ? node->second.mod_revision : 0;
    }
    const auto parts = keys_.parse_entry(key);
    const auto node = parts ? entries_.find(parts->node) : entries_.end();
    if (node == entries_.end()) return 0;
    const auto entry = node->second.find(key);
    return entry != node->second.end() ? entry->second.mod_revision : 0;
}

bool View::has_place_for(const std::string &key) const {
    if (keys_.parse_node(key)) return true;
    return keys_.parse_entry(key) && (revision_of(key) != 0 || entry_count_ < limits_.entries_max);
}

void View::for_each_key(const std::function<void(const std::string &, std::int64_t)> &visit) const {
    for (const auto &[address, node] : nodes_)
        visit(keys_.node(address), node.mod_revision);
    for (const auto &[address, entries] : entries_)
        for (const auto &[key, entry] : entries)
            visit(key, entry.mod_revision);
}

} // namespace ds::relay::etcd
