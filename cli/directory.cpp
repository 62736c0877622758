#include "cli/directory.h"

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

int ask(const Context &context, const char *what, const v1::Request &request, v1::Reply &reply) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    const client::Outcome outcome = daemon.call(request, reply, client::deadline_in(answer_time));
    return outcome.ok() ? exit_ok : fail(what, outcome);
}

client::Outcome dump_pages(Daemon &daemon, v1::Dump dump, const PageTaker &take) {
    v1::Request request;
    request.mutable_dump()->Swap(&dump);
    for (;;) {
        v1::Reply reply;
        client::Outcome outcome = daemon.call(request, reply, client::deadline_in(answer_time));
        if (!outcome.ok()) return outcome;
        const v1::DumpReply &page = reply.dump();
        take(page);
        if (page.next().empty() && page.next_client() == 0) return {};
        v1::Dump &next = *request.mutable_dump();
        if (page.next() == next.after() && page.next_client() == next.after_client()) {
            return {client::Failure::protocol, v1::STATUS_OK, "the dump does not come to an end"};
        }
        next.set_after(page.next());
        next.set_after_client(page.next_client());
    }
}

client::Outcome node_pages(Daemon &daemon, const NodeTaker &take) {
    v1::Request request;
    request.mutable_nodes();
    for (;;) {
        v1::Reply reply;
        client::Outcome outcome = daemon.call(request, reply, client::deadline_in(answer_time));
        if (!outcome.ok()) return outcome;
        take(reply.nodes());
        const std::string &next = reply.nodes().next();
        if (next.empty()) return {};
        if (next <= request.nodes().after()) {
            return {client::Failure::protocol, v1::STATUS_OK, "the nodes do not come to an end"};
        }
        request.mutable_nodes()->set_after(next);
    }
}

void note_reconciling() {
    complain("a restart period is open: instances that are missing may still come back");
}

} // namespace ds::cli
