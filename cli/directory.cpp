#include "cli/directory.h"

#include "cli/context.h"

namespace ds::cli {

client::Outcome list_names(Daemon &daemon, const std::string &name, const SnapshotTaker &take) {
    std::string after;
    for (;;) {
        v1::Request request;
        request.mutable_list()->set_name(name);
        request.mutable_list()->set_after(after);
        v1::Reply reply;
        client::Outcome outcome = daemon.call(request, reply, client::deadline_in(answer_time));
        if (!outcome.ok()) return outcome;
        for (const v1::Snapshot &snapshot : reply.list().names())
            take(snapshot);
        const std::string &next = reply.list().next();
        if (next.empty()) return {};
        if (next == after) {
            return {client::Failure::protocol, v1::STATUS_OK, "the list does not come to an end"};
        }
        after = next;
    }
}

void note_reconciling() {
    complain("a restart period is open: instances that are missing may still come back");
}

} // namespace ds::cli
