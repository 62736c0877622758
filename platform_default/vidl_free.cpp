// Releases what a publish info points at.
#include "platform/vidl.h"
#include <cstdint>

namespace {

template <typename T> void release_pointer(T *&pointer, vidl_free_fn release) {
    if (pointer != nullptr) release(pointer);
    pointer = nullptr;
}

void release_entry(ds_service_info_t &entry, vidl_free_fn release) {
    release_pointer(entry.ep_addr, release);
    release_pointer(entry.attrs, release);
    release_pointer(entry.instance, release);
}

} // namespace

void vidl_ds_service_publish_info_free_ext(ds_service_publish_info *info, vidl_free_fn release,
                                           uint32_t) {
    if (info == nullptr || release == nullptr) return;
    for (std::uint32_t i = 0; info->entries != nullptr && i < info->entries_count; i++)
        release_entry(info->entries[i], release);
    release_pointer(info->entries, release);
    release_pointer(info->service_name, release);
    // Counts and bits follow the pointers, so that no later reader meets a list that is gone.
    info->entries_count = 0;
    VIDL_CLR_BIT(info, DS_PINFO_BIT_NAME);
    VIDL_CLR_BIT(info, DS_PINFO_BIT_ENTRIES);
}
