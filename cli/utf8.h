// Reading UTF-8 that somebody else wrote: the client library's own.
#pragma once
#include "client/utf8.h"

namespace ds::cli {

using client::CodePoint;
using client::first_code_point;
using client::is_utf8;

} // namespace ds::cli
