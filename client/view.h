// Messages as the structures of the C interface. A view borrows all texts from its message, which
// has to outlive it unchanged, and holds the structures; it can be moved, not copied.
#pragma once
#include <string_view>
#include <vector>

#include "client/ds_client.h"
#include "ds.pb.h"

namespace ds::client {

class SnapshotView {
  public:
    explicit SnapshotView(const v1::Snapshot &snapshot);
    SnapshotView(SnapshotView &&) noexcept = default;
    SnapshotView &operator=(SnapshotView &&) noexcept = default;

    const ds_client_snapshot_t &get() const { return snapshot_; }

  private:
    std::vector<ds_client_instance_t> instances_;
    std::vector<const ds_client_instance_t *> pointers_;
    ds_client_snapshot_t snapshot_{};
};

class NamesView {
  public:
    explicit NamesView(const v1::ListReply &reply);
    NamesView(NamesView &&) noexcept = default;
    NamesView &operator=(NamesView &&) noexcept = default;

    const ds_client_names_t &get() const { return names_; }

  private:
    std::vector<SnapshotView> snapshots_;
    std::vector<const ds_client_snapshot_t *> pointers_;
    ds_client_names_t names_{};
};

ds_client_figures_t figures_of(const v1::StatusReply &reply);

// Copies an Ethernet address; anything that is not 6 bytes becomes zeros.
void copy_node(std::string_view address, std::uint8_t (&node)[6]);

} // namespace ds::client
