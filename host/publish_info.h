// A publish info with all it owns: heap memory, as the directory releases it with free().
#pragma once
#include <cstdlib>
#include <memory>

#include "ds_server_lib.h"

namespace ds::host {

struct PublishInfoDeleter {
    void operator()(ds_service_publish_info *info) const {
        vidl_ds_service_publish_info_free_ext(info, std::free, 0);
        std::free(info);
    }
};
using PublishInfo = std::unique_ptr<ds_service_publish_info, PublishInfoDeleter>;

} // namespace ds::host
