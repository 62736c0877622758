#include "cli/diff.h"

#include "cli/endpoint.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

const v1::Instance *find_same(const v1::Snapshot &snapshot, const v1::Instance &wanted) {
    for (const v1::Instance &instance : snapshot.instances()) {
        if (instance.service_id() == wanted.service_id() && instance.node() == wanted.node()) {
            return &instance;
        }
    }
    return nullptr;
}

void note(std::string &reason, const char *what, const std::string &before,
          const std::string &now) {
    if (before == now) return;
    reason += std::string(", ") + what + " was " + (before.empty() ? "none" : before);
}

// Empty when the two are the same in everything a watcher is shown.
std::string describe(const v1::Instance &before, const v1::Instance &now) {
    std::string details;
    note(details, "endpoint", endpoint_text(before.endpoint()), endpoint_text(now.endpoint()));
    note(details, "ha role", ha_text(before.ha_role()), ha_text(now.ha_role()));
    note(details, "issu", issu_cell(before), issu_cell(now));
    note(details, "scope", scope_text(before.scope()), scope_text(now.scope()));
    note(details, "instance", before.instance(), now.instance());
    if (details.empty() && before.generation() == now.generation() && before.pid() == now.pid()) {
        return {};
    }
    // A watcher that read slowly is told the newest state only; the generations tell how much that
    // spans.
    std::string reason = "changed";
    if (now.generation() > before.generation() + 1) {
        reason += ' ' + std::to_string(now.generation() - before.generation()) + " times";
    }
    return reason + (details.empty() ? ", published again as it was" : details);
}

} // namespace

std::vector<Change> diff(const v1::Snapshot &before, const v1::Snapshot &after) {
    std::vector<Change> changes;
    for (const v1::Instance &old : before.instances()) {
        if (find_same(after, old) == nullptr) {
            changes.push_back({ChangeKind::gone, old, "withdrawn/departed"});
        }
    }
    std::vector<Change> appeared;
    for (const v1::Instance &now : after.instances()) {
        const v1::Instance *old = find_same(before, now);
        if (old == nullptr) {
            appeared.push_back({ChangeKind::appeared, now, "published"});
            continue;
        }
        std::string reason = describe(*old, now);
        if (!reason.empty()) changes.push_back({ChangeKind::changed, now, std::move(reason)});
    }
    changes.insert(changes.end(), appeared.begin(), appeared.end());
    return changes;
}

std::vector<Change> all_present(const v1::Snapshot &snapshot) {
    std::vector<Change> changes;
    for (const v1::Instance &instance : snapshot.instances()) {
        changes.push_back({ChangeKind::present, instance, "present"});
    }
    return changes;
}

} // namespace ds::cli
