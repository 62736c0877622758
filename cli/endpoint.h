// Endpoints as a user writes and reads them: "a.b.c.d:port" or an absolute path.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "ds.pb.h"

namespace ds::cli {

// Reads an endpoint. Returns nothing on success, else a sentence that says what is wrong;
// `endpoint` is written only on success. Octets and port are plain decimal numbers without leading
// zeros, port 1 to 65535; a path has at most 4,000 bytes of UTF-8 without control characters.
std::optional<std::string> parse_endpoint(std::string_view text, v1::Endpoint &endpoint);

// The form that parse_endpoint reads; empty when the endpoint is of no known kind. Not escaped.
std::string endpoint_text(const v1::Endpoint &endpoint);

} // namespace ds::cli
