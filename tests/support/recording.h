// The recording platform: an implementation of every platform function that a test can look into.
//
// Each call is written as one text line into one process-wide log, in the order in which the calls
// were made; each function that can fail can be made to fail. Pointers appear in the log under
// names: records of a pool are "client#1", "selem#2", "service#1", "reg#3" in the order in which
// they were taken, members of a named record are "client#1.client_link", unnamed memory is "ptr".
//
// The library's own calls of malloc, calloc, free, the mutex functions and gettimeofday are seen
// as well: the test programs link a copy of the library in which objcopy renamed these symbols
// (library_symbols.txt), so calls of the test program and of the C++ runtime are never touched.
//
// One thread at a time, except for the log itself. reset() starts a new test.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "platform/chunk.h"
#include "platform/mgd_timer.h"
#include "platform/rtrace.h"
#include "platform/vanto.h"

namespace recording {

constexpr uint32_t trace_point_count = 87;

// ---- life ----

// Forgets calls, traces, updates, names, faults, timers and misuses, and releases what the code
// under test left behind (pools, tables, memory). The count of fired trace points stays.
void reset();

// ---- the log of calls ----

using Prefixes = std::initializer_list<std::string_view>;
using Lines = std::vector<std::string>;

const Lines &calls();
Lines calls_with(Prefixes prefixes);    // only lines that start with one of the prefixes
Lines calls_without(Prefixes prefixes); // all other lines
void clear_calls();                     // forgets calls, traces and sent updates, nothing else
void note(std::string line);            // adds a line, for host callbacks
std::string joined(const Lines &lines); // one line each, for messages

// ---- names of memory ----

struct Member {
    size_t offset;
    std::string name;
};

// Gives [start, start + size) a name; a later name of the same start replaces it.
void name(const void *start, size_t size, std::string text);
// Names the members of every record whose name starts with this kind ("client" for "client#1").
void name_members(std::string kind, std::vector<Member> members);
std::string name_of(const void *address);

// ---- faults ----

// Makes the nth call from now of that function fail; every = each call until clear_faults().
// Function names are those of the platform and "malloc", "calloc", "pthread_mutex_init",
// "pthread_mutexattr_init" for calls made inside the library; "allocation" counts malloc, calloc
// and memdup together. result is what an int function then returns.
constexpr uint32_t every = 0;
void fail(std::string function, uint32_t nth = 1, int result = -1);
// Makes the nth call from now and every later one fail, until clear_faults(). As with fail(), a
// function has one fault at a time, the one that was set last.
void fail_from(std::string function, uint32_t nth, int result = -1);
// The next calloc of elements of this size does not fail, though it is counted; the log tells.
// 0 for none.
void spare_calloc_of(size_t element_size);
bool take_spared(size_t element_size); // for calloc itself: whether this is the one
void clear_faults();

// For the platform functions themselves.
struct Failure {
    bool fails = false;
    int result = 0;
};
Failure should_fail(std::string_view function);

// ---- misuse ----

// Calls that break a platform contract: a free of a foreign record, a double link, a null timer.
const Lines &misuses();
void misuse(std::string text);
void clear_misuses();

// ---- trace records ----

struct Trace {
    std::string channel;
    uint32_t id;
    uint32_t record_size;
    uint32_t has_strings;
    std::string signature;
    std::string format;
    std::string text;
};

const std::vector<Trace> &traces();     // since clear_calls()
const std::vector<Trace> &all_traces(); // since reset()
std::vector<Trace> traces_of(uint32_t id);
std::vector<uint32_t> trace_ids();
rtrace_handle_t open_channel(const std::string &channel); // a channel that no library call opened
uint64_t fired(uint32_t id);                              // since the program started
std::string fired_summary();                              // "fired N/87" and the ids that did not

struct OpenedChannel {
    std::string name;
    uint32_t buffer_size;
    uint32_t point_count;
    std::string source_path;
    std::string format_id;
    uint64_t option;
};
const std::vector<OpenedChannel> &opened_channels();

// ---- clocks and timers ----

void set_stamp(uint64_t next); // the next fts_get_stamp_fast() returns this, then one more each
uint64_t last_stamp();
void set_wall_clock(const timeval &now); // what gettimeofday tells the library
mgd_timer_t *new_timer(const std::string &text, bool running = false);
void set_running(mgd_timer_t *timer, bool running);
bool is_running(const mgd_timer_t *timer);
mgd_timer_duration_t started_with(const mgd_timer_t *timer);

// ---- updates handed to the relay ----

struct SentUpdate {
    uint32_t operation;
    std::string service_name;
    uint32_t service_id;
    bool has_instance;
    std::string instance;
    uint32_t scope;
    uint32_t pid;
    uint32_t version;
    std::vector<uint8_t> endpoint;
    std::vector<uint8_t> attributes;
    uint32_t zero;
};
const std::vector<SentUpdate> &sent_updates();
void set_send_result(int result);

// ---- encodings of this platform ----

std::vector<uint8_t> encode_ip(const uint8_t (&address)[4], uint32_t port);
std::vector<uint8_t> encode_path(std::string_view path);

// ---- memory of the library ----

struct Allocation {
    void *memory;
    size_t size;
    uint64_t serial; // tells a block from a later one at the same address
};

size_t live_allocations(); // blocks that the library or host_malloc took and nobody freed
std::vector<Allocation> allocations(); // the same, one by one
bool is_live(const void *memory, uint64_t serial);
// Memory that changes hands between test and library comes from here and goes back here.
void *host_malloc(size_t size);
void host_free(void *memory);
uint64_t serial_of(const void *memory); // 0 = not live
void release_all_allocations();
void *track_allocation(void *memory, size_t size);

// ---- records and tables ----

struct LiveRecord {
    std::string kind;
    void *memory;
    size_t size;
};
std::vector<LiveRecord> live_records(); // records taken from pools and not given back
size_t live_pools();
std::vector<void *> table_values(const vanto_hashtable_t *table);
uint32_t lock_depth(); // mutexes the library holds now

// Used by reset(): each area forgets its own state.
void reset_containers();
void reset_services();
void reset_traces();
void clear_traces();
void clear_sent_updates();
void reset_memory();
std::string quoted(const char *text); // "text" with quotes, or null

} // namespace recording
