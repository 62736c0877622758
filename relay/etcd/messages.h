// The messages of the store's JSON gateway: requests as text, answers as values.
//
// The gateway takes unknown fields in silence, so a misspelt one would be a condition that is not
// checked. The requests are therefore written here field by field, and the tests compare them byte
// by byte.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "relay/etcd/keys.h"

namespace ds::relay::etcd {

// ---- requests ----

// What has to hold for a transaction to do its operations.
struct Compare {
    enum class Target { create_revision, mod_revision, value };
    std::string key;
    Target target = Target::value;
    std::int64_t revision = 0; // for the revisions; create_revision 0: the key does not exist
    std::string value;
};

struct RangeRequest {
    KeyRange keys;             // an empty end: the one key
    std::int64_t revision = 0; // 0: the newest
    std::int64_t limit = 0;    // 0: none
    bool keys_only = false;
};

struct Operation {
    enum class Kind { put, remove, range };
    Kind kind = Kind::put;
    KeyRange keys; // an empty end: the one key
    std::string value;
    std::int64_t lease = 0; // 0: none
};

struct Transaction {
    std::vector<Compare> compares; // all have to hold
    std::vector<Operation> on_success;
    std::vector<Operation> on_failure;
};

std::string encode_range(const RangeRequest &request);
std::string encode_transaction(const Transaction &transaction);
std::string encode_lease_grant(std::int64_t ttl_s);
std::string encode_lease(std::int64_t lease); // keep alive, revoke and time to live
// A stream that watches the range from that revision on. One range for each stream: the gateway may
// drop what stands behind the first request of a body as soon as it has begun to answer.
std::string encode_watch(const KeyRange &range, std::int64_t start_revision);

// ---- answers ----

// An answer that is not of the expected form throws std::exception.

struct KeyValue {
    std::string key;
    std::string value;
    std::int64_t create_revision = 0;
    std::int64_t mod_revision = 0;
    std::int64_t lease = 0;
};

struct RangeReply {
    std::int64_t revision = 0; // of the store when it answered
    std::vector<KeyValue> items;
    bool more = false;
};

struct TransactionReply {
    std::int64_t revision = 0;
    bool succeeded = false;
    std::vector<RangeReply> ranges; // of the range operations, in order
};

struct LeaseReply {
    std::int64_t lease = 0;
    std::int64_t ttl_s = 0;         // 0 or less: the lease does not exist
    std::int64_t granted_ttl_s = 0; // of a question for the time to live
};

struct MemberReply {
    std::string version;
    std::string leader;
    std::int64_t revision = 0;
    std::int64_t database_bytes = 0;
};

struct WatchEvent {
    bool is_deletion = false;
    KeyValue item; // of a deletion only key and mod_revision
};

struct WatchReply {
    std::int64_t revision = 0;
    bool is_created = false;
    bool is_cancelled = false;
    std::int64_t compact_revision = 0; // not 0: what was asked for is compacted
    std::string cancel_reason;
    std::vector<WatchEvent> events;
};

RangeReply decode_range(std::string_view json);
TransactionReply decode_transaction(std::string_view json);
LeaseReply decode_lease(std::string_view json);      // grant, time to live
LeaseReply decode_keep_alive(std::string_view json); // its answer is a stream of one
MemberReply decode_member(std::string_view json);
WatchReply decode_watch(std::string_view json); // one line of the stream
// The text of a refusal; the body itself when it is none.
std::string decode_error(std::string_view json);

std::string to_base64(std::string_view bytes);
// Throws when it is none.
std::string from_base64(std::string_view text);

} // namespace ds::relay::etcd
