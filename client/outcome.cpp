#include "client/outcome.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

namespace ds::client {

int left_ms(Deadline deadline) {
    if (deadline == no_deadline) return -1;
    const Deadline now = std::chrono::steady_clock::now();
    if (deadline <= now) return 0; // compared first: the difference to no_wait would overflow
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return static_cast<int>(std::min<long long>(ms, INT_MAX));
}

Outcome failed(Failure failure, std::string text) {
    return {failure, v1::STATUS_OK, std::move(text)};
}

Outcome failed_errno(Failure failure, const char *what, int error) {
    return failed(failure, std::string(what) + ": " + std::strerror(error));
}

} // namespace ds::client
