// From a publish request to what the directory keeps.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

#include "ds.pb.h"
#include "host/publish_info.h"

namespace ds::host {

// Empty when the values identify a publication, else one sentence that names the field, what is
// wrong with its value and what is allowed.
std::string check_identity(std::string_view name, std::string_view instance, v1::Scope scope);

// The same for everything that a publication carries.
std::string check_publication(const v1::Publish &publish);

// Of a checked request. Throws std::bad_alloc.
PublishInfo make_publish_info(const v1::Publish &publish);

// Most bytes that the publication's encoded Instance can take.
std::size_t instance_bytes_bound(const v1::Publish &publish);

} // namespace ds::host
