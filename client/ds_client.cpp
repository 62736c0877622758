// The C interface: checks what it is given and lets no exception out.
#include "client/ds_client.h"

#include <cstring>
#include <memory>
#include <new>
#include <sys/random.h>

#include "client/handle.h"
#include "client/parse.h"
#include "client/publication.h"
#include "client/query.h"
#include "client/registration.h"
#include "client/structure.h"
#include "client/utf8.h"
#include "proto/frame.h"

using ds::client::give_structure;
using ds::client::Kind;
using ds::client::Query;
using ds::client::take_structure;

namespace {

constexpr char default_socket[] = "/run/ds/ds.sock";
constexpr std::size_t socket_bytes_max = 107;
constexpr std::size_t display_name_bytes_max = 255;
constexpr std::uint32_t default_backoff_first_ms = 50;
constexpr std::uint32_t default_backoff_max_ms = 2000;
constexpr std::uint32_t default_answer_ms = 5000;
constexpr std::size_t seq_bytes_max = 8; // what setting it adds to a request

template <class Body> int guarded(Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return DS_CLIENT_ERROR_NO_MEMORY;
    }
}

const char *or_empty(const char *text) {
    return text == nullptr ? "" : text;
}

// A text with a broken character would cost the whole session, so it does not get that far.
bool is_text(const char *text, std::size_t bytes_min, std::size_t bytes_max) {
    const std::size_t bytes = ::strnlen(text, bytes_max + 1);
    return bytes >= bytes_min && bytes <= bytes_max && ds::client::is_utf8({text, bytes});
}

std::uint64_t random_seed() {
    std::uint64_t seed = 0;
    if (::getrandom(&seed, sizeof seed, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof seed))
        return seed;
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

bool make_settings(const ds_client_options_t *given, ds::client::Settings &settings) {
    ds_client_options_t options;
    if (!take_structure(given, options)) return false;
    const char *socket = options.socket == nullptr ? default_socket : options.socket;
    const std::size_t socket_bytes = ::strnlen(socket, socket_bytes_max + 1);
    if (socket_bytes == 0 || socket_bytes > socket_bytes_max) return false;
    if (!is_text(or_empty(options.display_name), 0, display_name_bytes_max)) return false;
    if ((options.flags & ~DS_CLIENT_NO_RECONNECT) != 0) return false;
    const auto or_default = [](std::uint32_t value, std::uint32_t otherwise) {
        return value == 0 ? otherwise : value;
    };
    settings.socket = socket;
    settings.display_name = or_empty(options.display_name);
    settings.backoff_first_ms = or_default(options.backoff_first_ms, default_backoff_first_ms);
    settings.backoff_max_ms = or_default(
        options.backoff_max_ms, std::max(settings.backoff_first_ms, default_backoff_max_ms));
    settings.backoff_seed = options.backoff_seed == 0 ? random_seed() : options.backoff_seed;
    settings.answer_ms = or_default(options.answer_ms, default_answer_ms);
    settings.reconnects = (options.flags & DS_CLIENT_NO_RECONNECT) == 0;
    settings.state_fn = options.state_fn;
    settings.ctx = options.ctx;
    return settings.backoff_first_ms <= settings.backoff_max_ms;
}

// Checks what would break the conversation; the rest is the daemon's to judge, in words.
bool make_wish(const ds_client_service_t *given, ds::v1::Publish &publish) {
    ds_client_service_t service;
    if (!take_structure(given, service)) return false;
    if (!is_text(or_empty(service.name), 1, ds::proto::name_bytes_max)) return false;
    if (!is_text(or_empty(service.instance), 0, ds::proto::instance_bytes_max)) return false;
    if (!is_text(or_empty(service.path), 0, ds::proto::path_bytes_max)) return false;
    if (service.scope < DS_CLIENT_SCOPE_RACK || service.scope > DS_CLIENT_SCOPE_LOCAL) return false;
    if (service.ha_role > DS_CLIENT_HA_STANDBY) return false;
    if (service.issu_role > DS_CLIENT_ISSU_TERTIARY) return false;
    publish.set_name(service.name);
    publish.set_instance(or_empty(service.instance));
    publish.set_scope(static_cast<ds::v1::Scope>(service.scope));
    publish.set_ha_role(static_cast<ds::v1::HaRole>(service.ha_role));
    publish.set_issu_role(static_cast<ds::v1::IssuRole>(service.issu_role));
    publish.set_issu_id(service.issu_id);
    if (service.path != nullptr) {
        publish.mutable_endpoint()->set_path(service.path);
    } else {
        publish.mutable_endpoint()->set_allocated_ipv4(new ds::v1::Ipv4);
        publish.mutable_endpoint()->mutable_ipv4()->set_address(service.ipv4_address);
        publish.mutable_endpoint()->mutable_ipv4()->set_port(service.ipv4_port);
    }
    return true;
}

int ask(ds_client_handle_t *handle, ds::v1::Request request, ds_client_reply_fn fn, void *ctx,
        std::uint64_t *id) {
    if (!handle->is_connected()) return DS_CLIENT_ERROR_DISCONNECTED;
    if (handle->query_count >= DS_CLIENT_QUERIES_MAX) return DS_CLIENT_ERROR_LIMIT;
    auto *query = new Query(*handle, std::move(request), handle->next_id++, fn, ctx);
    query->begin();
    handle->adopt(*query, Kind::query);
    if (id != nullptr) *id = query->id();
    return DS_CLIENT_OK;
}

} // namespace

// ---- version and errors ----

uint32_t ds_client_abi(void) {
    return DS_CLIENT_ABI;
}

const char *ds_client_version(void) {
    return DS_CLIENT_VERSION;
}

const char *ds_client_strerror(int error) {
    switch (error) {
    case DS_CLIENT_OK:
        return "success";
    case DS_CLIENT_ERROR_ARGUMENT:
        return "an argument is not allowed";
    case DS_CLIENT_ERROR_NO_MEMORY:
        return "out of memory";
    case DS_CLIENT_ERROR_SYSTEM:
        return "the system refused";
    case DS_CLIENT_ERROR_BUSY:
        return "not from within a callback";
    case DS_CLIENT_ERROR_TIMEOUT:
        return "the time is over";
    case DS_CLIENT_ERROR_INTERRUPTED:
        return "interrupted by a signal";
    case DS_CLIENT_ERROR_UNREACHABLE:
        return "nobody listens there";
    case DS_CLIENT_ERROR_DISCONNECTED:
        return "not connected";
    case DS_CLIENT_ERROR_PROTOCOL:
        return "the peer does not speak this protocol";
    case DS_CLIENT_ERROR_REFUSED:
        return "the daemon refused";
    case DS_CLIENT_ERROR_EXISTS:
        return "the handle has such a publication";
    case DS_CLIENT_ERROR_LIMIT:
        return "too many unanswered queries";
    case DS_CLIENT_ERROR_WITHDRAWN:
        return "somebody else withdrew the publication";
    default:
        return "unknown error";
    }
}

// ---- the handle ----

int ds_client_create(const ds_client_options_t *options, ds_client_handle_t **handle) {
    return guarded([&]() -> int {
        ds::client::Settings settings;
        if (handle == nullptr || !make_settings(options, settings)) return DS_CLIENT_ERROR_ARGUMENT;
        auto made = std::make_unique<ds_client_handle>(std::move(settings));
        if (!made->open()) return DS_CLIENT_ERROR_SYSTEM;
        *handle = made.release();
        return DS_CLIENT_OK;
    });
}

void ds_client_destroy(ds_client_handle_t *handle) {
    if (handle != nullptr) handle->destroy();
}

int ds_client_fd(const ds_client_handle_t *handle) {
    return handle == nullptr ? -1 : handle->fd();
}

int ds_client_dispatch(ds_client_handle_t *handle) {
    if (handle == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    const int result = handle->dispatch();
    return result == ds::client::handle_is_gone ? DS_CLIENT_OK : result;
}

int ds_client_get_info(const ds_client_handle_t *handle, ds_client_info_t *info) {
    if (handle == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    ds_client_info_t filled{};
    handle->get_info(filled);
    return give_structure(filled, info) ? DS_CLIENT_OK : DS_CLIENT_ERROR_ARGUMENT;
}

// ---- publications ----

int ds_client_publish(ds_client_handle_t *handle, const ds_client_service_t *service,
                      ds_publication_fn fn, void *ctx, ds_publication_t **publication) {
    return guarded([&]() -> int {
        auto wish = std::make_shared<ds::v1::Publish>();
        if (handle == nullptr || !make_wish(service, *wish)) return DS_CLIENT_ERROR_ARGUMENT;
        auto made = std::make_unique<ds_publication>(*handle, std::move(wish), fn, ctx);
        if (!handle->publications_by_key.try_emplace(made->key(), made.get()).second)
            return DS_CLIENT_ERROR_EXISTS;
        handle->adopt(*made, Kind::publication);
        if (publication != nullptr) *publication = made.get();
        made.release();
        return DS_CLIENT_OK;
    });
}

int ds_client_publication_update(ds_publication_t *publication,
                                 const ds_client_service_t *service) {
    return guarded([&]() -> int {
        auto wish = std::make_shared<ds::v1::Publish>();
        if (publication == nullptr || !make_wish(service, *wish)) return DS_CLIENT_ERROR_ARGUMENT;
        const std::string key =
            ds_publication::key_of(wish->name(), wish->instance(), wish->scope());
        if (key != publication->key()) return DS_CLIENT_ERROR_ARGUMENT;
        publication->update(std::move(wish));
        return DS_CLIENT_OK;
    });
}

int ds_client_publication_withdraw(ds_publication_t *publication) {
    if (publication == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    publication->withdraw();
    return DS_CLIENT_OK;
}

int ds_client_publication_get_info(const ds_publication_t *publication,
                                   ds_publication_info_t *info) {
    if (publication == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
    ds_publication_info_t filled{};
    publication->get_info(filled);
    return give_structure(filled, info) ? DS_CLIENT_OK : DS_CLIENT_ERROR_ARGUMENT;
}

void ds_client_publication_destroy(ds_publication_t *publication) {
    if (publication != nullptr) publication->retire();
}

// ---- registrations ----

int ds_client_watch(ds_client_handle_t *handle, const char *name, ds_snapshot_fn snapshot_fn,
                    ds_registration_fn state_fn, void *ctx, ds_registration_t **registration) {
    return guarded([&]() -> int {
        if (handle == nullptr || !is_text(or_empty(name), 1, ds::proto::name_bytes_max))
            return DS_CLIENT_ERROR_ARGUMENT;
        auto made = std::make_unique<ds_registration>(*handle, name, handle->next_id++, snapshot_fn,
                                                      state_fn, ctx);
        handle->registrations_by_cookie.emplace(made->cookie(), made.get());
        handle->adopt(*made, Kind::registration);
        if (registration != nullptr) *registration = made.get();
        made.release();
        return DS_CLIENT_OK;
    });
}

int ds_client_registration_get_info(ds_registration_t *registration, ds_registration_info_t *info) {
    return guarded([&]() -> int {
        if (registration == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
        registration->prepare_to_tell();
        ds_registration_info_t filled{};
        registration->get_info(filled);
        return give_structure(filled, info) ? DS_CLIENT_OK : DS_CLIENT_ERROR_ARGUMENT;
    });
}

void ds_client_registration_destroy(ds_registration_t *registration) {
    if (registration != nullptr) registration->retire();
}

// ---- queries ----

int ds_client_list(ds_client_handle_t *handle, const char *name, const char *after, uint32_t limit,
                   ds_client_reply_fn fn, void *ctx, uint64_t *query) {
    return guarded([&]() -> int {
        const bool fits = is_text(or_empty(name), 0, ds::proto::name_bytes_max) &&
                          is_text(or_empty(after), 0, ds::proto::name_bytes_max);
        if (handle == nullptr || fn == nullptr || !fits) return DS_CLIENT_ERROR_ARGUMENT;
        ds::v1::Request request;
        request.set_allocated_list(new ds::v1::List);
        request.mutable_list()->set_name(or_empty(name));
        request.mutable_list()->set_after(or_empty(after));
        request.mutable_list()->set_limit(limit);
        return ask(handle, std::move(request), fn, ctx, query);
    });
}

int ds_client_status(ds_client_handle_t *handle, ds_client_reply_fn fn, void *ctx,
                     uint64_t *query) {
    return guarded([&]() -> int {
        if (handle == nullptr || fn == nullptr) return DS_CLIENT_ERROR_ARGUMENT;
        ds::v1::Request request;
        request.set_allocated_status(new ds::v1::StatusQuery);
        return ask(handle, std::move(request), fn, ctx, query);
    });
}

int ds_client_withdraw(ds_client_handle_t *handle, const char *name, uint32_t service_id,
                       ds_client_reply_fn fn, void *ctx, uint64_t *query) {
    return guarded([&]() -> int {
        const bool fits = is_text(or_empty(name), 1, ds::proto::name_bytes_max);
        if (handle == nullptr || fn == nullptr || service_id == 0 || !fits)
            return DS_CLIENT_ERROR_ARGUMENT;
        ds::v1::Request request;
        request.set_allocated_withdraw(new ds::v1::Withdraw);
        request.mutable_withdraw()->set_name(name);
        request.mutable_withdraw()->set_service_id(service_id);
        return ask(handle, std::move(request), fn, ctx, query);
    });
}

int ds_client_query(ds_client_handle_t *handle, const void *request, size_t request_bytes,
                    ds_client_reply_fn fn, void *ctx, uint64_t *query) {
    return guarded([&]() -> int {
        if (handle == nullptr || request == nullptr || fn == nullptr ||
            request_bytes > ds::proto::frame_bytes_max - seq_bytes_max)
            return DS_CLIENT_ERROR_ARGUMENT;
        ds::v1::Request parsed;
        if (!ds::client::parse_message(request, request_bytes, parsed))
            return DS_CLIENT_ERROR_ARGUMENT;
        switch (parsed.body_case()) {
        case ds::v1::Request::kHello:
        case ds::v1::Request::kPublish:
        case ds::v1::Request::kRegister:
        case ds::v1::Request::kUnregister:
            return DS_CLIENT_ERROR_ARGUMENT;
        default:
            return ask(handle, std::move(parsed), fn, ctx, query);
        }
    });
}

void ds_client_cancel(ds_client_handle_t *handle, uint64_t query) {
    if (handle != nullptr) handle->cancel(query);
}
