#include "sim/base/plan.h"

#include <cstdio>

namespace ds::sim {

namespace {

const char *name_of(Kind kind) {
    switch (kind) {
    case Kind::start_client:
        return "start_client";
    case Kind::kill_client:
        return "kill_client";
    case Kind::publish:
        return "publish";
    case Kind::withdraw:
        return "withdraw";
    case Kind::watch:
        return "watch";
    case Kind::unwatch:
        return "unwatch";
    case Kind::kill_daemon:
        return "kill_daemon";
    case Kind::stop_daemon:
        return "stop_daemon";
    case Kind::halt_machine:
        return "halt_machine";
    case Kind::freeze:
        return "freeze";
    case Kind::partition:
        return "partition";
    case Kind::lack_memory:
        return "lack_memory";
    case Kind::store_outage:
        return "store_outage";
    case Kind::store_wipe:
        return "store_wipe";
    case Kind::calm:
        return "calm";
    }
    return "?";
}

} // namespace

std::string text_of(const Op &op) {
    char text[160];
    std::snprintf(text, sizeof text, "%10.6f %s %u %u %u %u", static_cast<double>(op.at) / 1e9,
                  name_of(op.kind), op.a, op.b, op.c, op.d);
    return text;
}

} // namespace ds::sim
