// Asking the daemon what is published.
#pragma once
#include <functional>
#include <string>

#include "cli/context.h"
#include "cli/daemon.h"

namespace ds::cli {

using SnapshotTaker = std::function<void(const v1::Snapshot &)>;

// Hands every name of the directory to `take`, in the daemon's order, page by page. A name of its
// own is asked for with `name`; empty asks for all. Each page has to come within the time that one
// answer may take.
client::Outcome list_names(Daemon &daemon, const std::string &name, const SnapshotTaker &take);

// Connects and asks one question. Complains on failure, in the words of `what` ("cannot ask for the
// status"), and returns the exit code.
int ask(const Context &context, const char *what, const v1::Request &request, v1::Reply &reply);

// Hands every page of a dump to `take`, the same way.
using PageTaker = std::function<void(const v1::DumpReply &)>;
client::Outcome dump_pages(Daemon &daemon, v1::Dump dump, const PageTaker &take);

// Hands every page of nodes to `take`, the same way.
using NodeTaker = std::function<void(const v1::NodesReply &)>;
client::Outcome node_pages(Daemon &daemon, const NodeTaker &take);

// Tells on stderr that instances may be missing because a restart period is open.
void note_reconciling();

} // namespace ds::cli
