// The functions of the C interface that wait: poll and dispatch until something is so.
#include <cerrno>
#include <poll.h>

#include "client/ds_client.h"
#include "client/handle.h"
#include "client/publication.h"

using ds::client::Deadline;
using ds::client::handle_is_gone;

namespace {

Deadline deadline_of(int timeout_ms) {
    if (timeout_ms < 0) return ds::client::no_deadline;
    return ds::client::deadline_in(std::chrono::milliseconds(timeout_ms));
}

// Waits for something to dispatch and dispatches. May return handle_is_gone.
int step(ds_client_handle_t &handle, Deadline deadline) {
    if (handle.is_dispatching()) return DS_CLIENT_ERROR_BUSY;
    pollfd item{handle.fd(), POLLIN, 0};
    const int ready = ::poll(&item, 1, ds::client::left_ms(deadline));
    if (ready == 0) return DS_CLIENT_ERROR_TIMEOUT;
    if (ready < 0) return errno == EINTR ? DS_CLIENT_ERROR_INTERRUPTED : DS_CLIENT_ERROR_SYSTEM;
    return handle.dispatch();
}

// Steps until `is_done`. What is not going to happen any more is not waited for.
template <class Condition>
int wait_until(ds_client_handle_t &handle, int timeout_ms, Condition is_done) {
    if (handle.is_dispatching()) return DS_CLIENT_ERROR_BUSY;
    const Deadline deadline = deadline_of(timeout_ms);
    while (!is_done()) {
        if (handle.is_over()) return handle.last_error();
        const int result = step(handle, deadline);
        if (result != DS_CLIENT_OK) return result;
    }
    return DS_CLIENT_OK;
}

int told(int result) {
    return result == handle_is_gone ? DS_CLIENT_ERROR_DISCONNECTED : result;
}

int end_of(const ds_publication_t &publication) {
    ds_publication_info_t info{};
    publication.get_info(info);
    if (publication.is_orphan() || info.by_other != 0) return DS_CLIENT_ERROR_WITHDRAWN;
    if (info.state == DS_PUBLICATION_WITHDRAWN) return DS_CLIENT_OK;
    return info.status == DS_CLIENT_STATUS_OK ? DS_CLIENT_OK : DS_CLIENT_ERROR_REFUSED;
}

} // namespace

int ds_client_wait(ds_client_handle_t *handle, int timeout_ms) {
    if (handle == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    const Deadline deadline = handle->is_over() ? ds::client::no_wait : deadline_of(timeout_ms);
    const int result = step(*handle, deadline);
    if (result != DS_CLIENT_OK && result != DS_CLIENT_ERROR_TIMEOUT) return told(result);
    return handle->is_over() ? handle->last_error() : result;
}

int ds_client_wait_connected(ds_client_handle_t *handle, int timeout_ms) {
    if (handle == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    return told(wait_until(*handle, timeout_ms, [&] { return handle->is_connected(); }));
}

int ds_client_sync(ds_client_handle_t *handle, int timeout_ms) {
    if (handle == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    return told(wait_until(*handle, timeout_ms, [&] { return handle->is_settled(); }));
}

int ds_client_publication_wait(ds_publication_t *publication, int timeout_ms) {
    if (publication == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    ds_client_handle_t &handle = publication->handle();
    publication->pins++; // a callback may destroy it
    const int result = wait_until(
        handle, timeout_ms, [&] { return publication->is_orphan() || publication->is_settled(); });
    if (result == handle_is_gone) return DS_CLIENT_ERROR_DISCONNECTED;
    const int answer = result == DS_CLIENT_OK ? end_of(*publication) : result;
    publication->pins--;
    handle.release_if_done(*publication);
    return answer;
}
