// The encoded state of one name, as clients are told it.
#pragma once
#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "ds_server_lib.h"
#include "proto/frame.h"

namespace ds::host {

// Room for the messages around a snapshot: the notification, or a listing with the name to go on
// behind.
inline constexpr std::size_t snapshot_bytes_max = proto::frame_bytes_max - 1024;

// No instance that the daemon accepts takes more than 4,400 bytes, so this many always fit.
inline constexpr std::size_t instances_always_fit = 200;

// Appends the encoded Snapshot of an element: every live service, newest first. Records that still
// wait for their publisher (proc_id 1) are not live. A name that other nodes made larger than
// snapshot_bytes_max is told with as many instances as fit, newest first, for a frame is never
// longer than promised.
// `resynced` says that a restart period has ended since the reader was told of the name.
void encode_snapshot(ds_service_elem_t *element, std::string &out, bool resynced = false);

// Appends the encoded Instance of one live service.
void encode_instance(const ds_service_t *service, std::string &out);

// Appends the encoded Endpoint; nothing for no bytes. type: DS_EP_TYPE_*.
void encode_endpoint(std::uint32_t type, const std::uint8_t *bytes, std::uint64_t length,
                     std::string &out);

// The snapshots encoded in this turn. All who are told of an element share its bytes.
class SnapshotCache {
  public:
    // For readers that are told of the end of a restart period, or for all others.
    explicit SnapshotCache(bool resynced = false) : resynced_(resynced) {}

    // The element's state at the first call since clear(); good until clear().
    const std::string &of(ds_service_elem_t *element);

    // To be called when the directory may have changed since the last call of of().
    void clear();

  private:
    using Snapshots = std::unordered_map<const ds_service_elem_t *, std::string>;
    bool resynced_;
    Snapshots snapshots_;
    std::vector<Snapshots::node_type>
        spare_; // emptied nodes, kept so that a turn allocates nothing
    const ds_service_elem_t *last_element_ = nullptr;
    const std::string *last_snapshot_ = nullptr;
};

} // namespace ds::host
