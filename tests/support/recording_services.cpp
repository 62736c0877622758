// Timers, time stamps, memory duplication and the relay's send function.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/dsr.h"
#include "platform/fts.h"
#include "platform/mem.h"
#include "recording.h"

struct mgd_timer {
    std::string name;
    bool running;
    mgd_timer_duration_t duration;
};

namespace recording {
namespace {

std::vector<std::unique_ptr<mgd_timer>> timers;
std::vector<SentUpdate> updates;
uint64_t stamp = 1000;
int send_result;

std::vector<uint8_t> copy_bytes(const void *bytes, uint32_t length) {
    if (bytes == nullptr || length == 0) return {};
    const auto *first = static_cast<const uint8_t *>(bytes);
    return {first, first + length};
}

} // namespace

void set_stamp(uint64_t next) {
    stamp = next - 1;
}

uint64_t last_stamp() {
    return stamp;
}

mgd_timer_t *new_timer(const std::string &text, bool running) {
    timers.push_back(std::make_unique<mgd_timer>(mgd_timer{text, running, {0, 0}}));
    return timers.back().get();
}

void set_running(mgd_timer_t *timer, bool running) {
    timer->running = running;
}

bool is_running(const mgd_timer_t *timer) {
    return timer->running;
}

mgd_timer_duration_t started_with(const mgd_timer_t *timer) {
    return timer->duration;
}

const std::vector<SentUpdate> &sent_updates() {
    return updates;
}

void set_send_result(int result) {
    send_result = result;
}

void clear_sent_updates() {
    updates.clear();
}

void reset_services() {
    timers.clear();
    updates.clear();
    stamp = 1000;
    send_result = 0;
}

} // namespace recording

using namespace recording;

extern "C" mgd_timer_t *mgd_timer_leaf_new(mgd_timer_t *parent, uint64_t context, uint32_t zero1,
                                           uint32_t zero2) {
    note("mgd_timer_leaf_new(" + (parent == nullptr ? "null" : parent->name) + ", " +
         std::to_string(context) + ", " + std::to_string(zero1) + ", " + std::to_string(zero2) +
         ")");
    if (should_fail("mgd_timer_leaf_new").fails) return nullptr;
    return new_timer("timer#" + std::to_string(timers.size() + 1));
}

extern "C" void mgd_timer_leaf_start(mgd_timer_t *timer, mgd_timer_duration_t duration) {
    note("mgd_timer_leaf_start(" + timer->name + ", " + std::to_string(duration.seconds) + ", " +
         std::to_string(duration.fraction) + ")");
    timer->running = true;
    timer->duration = duration;
}

extern "C" void mgd_timer_leaf_stop(mgd_timer_t *timer) {
    note("mgd_timer_leaf_stop(" + timer->name + ")");
    timer->running = false;
}

extern "C" int mgd_timer_leaf_running(mgd_timer_t *timer) {
    if (timer == nullptr) {
        misuse("mgd_timer_leaf_running of a null timer");
        return 0;
    }
    note("mgd_timer_leaf_running(" + timer->name + ") = " + (timer->running ? "1" : "0"));
    return timer->running ? 1 : 0;
}

extern "C" uint64_t fts_get_stamp_fast(void) {
    note("fts_get_stamp_fast()");
    return ++stamp;
}

extern "C" void *memdup(const void *bytes, size_t length) {
    const bool fails = should_fail("memdup").fails;
    note("memdup(" + std::to_string(length) + ")" + (fails ? " = null" : ""));
    if (length == 0) misuse("memdup of no bytes");
    if (fails) return nullptr;
    void *copy = malloc(length);
    if (length != 0) memcpy(copy, bytes, length);
    return track_allocation(copy, length);
}

extern "C" int dsr_dsc_send_update(uint32_t operation, const char *service_name,
                                   uint32_t service_id, const char *instance, uint32_t scope,
                                   uint32_t pid, uint32_t version, const void *ep_bytes,
                                   uint32_t ep_len, const void *attr_bytes, uint32_t attr_len,
                                   uint32_t zero) {
    note("dsr_dsc_send_update(" + std::to_string(operation) + ", " + quoted(service_name) + ", " +
         std::to_string(service_id) + ", " + quoted(instance) + ", " + std::to_string(scope) +
         ", " + std::to_string(pid) + ", " + std::to_string(version) + ", " +
         std::to_string(ep_len) + ", " + std::to_string(attr_len) + ", " + std::to_string(zero) +
         ")");
    if (service_name == nullptr) misuse("dsr_dsc_send_update without a name");
    updates.push_back({operation, service_name == nullptr ? "" : service_name, service_id,
                       instance != nullptr, instance == nullptr ? "" : instance, scope, pid,
                       version, copy_bytes(ep_bytes, ep_len), copy_bytes(attr_bytes, attr_len),
                       zero});
    return send_result;
}
