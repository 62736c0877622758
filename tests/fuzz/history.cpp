#include "history.h"

#include <array>

namespace ds::fuzz {

namespace {

constexpr std::array<const char *, 6> names = {"a", "ab", "b", "ba", "abc", ""};
constexpr std::array<const char *, 6> instances = {nullptr, "", "x", "xy", "y", "xyz"};
constexpr std::size_t services_max = 32;

} // namespace

History::History(Input &input)
    : in_(input), harness_(Harness::instance()),
      model_(read_directory(harness_.database(), harness_.nodes()), harness_.local_node()) {
    add_client();
}

History::~History() {
    harness_.reset();
}

void History::compare_events() {
    if (harness_.events != model_.events)
        fail("others were told otherwise\nlibrary:\n" + text_of(harness_.events) + "model:\n" +
             text_of(model_.events));
    harness_.events.clear();
    model_.events.clear();
}

// ---- what an input chooses ----

ds_client_t *History::some_client() {
    const auto &clients = model_.state.clients;
    if (clients.empty()) return nullptr;
    ds_client_t *client =
        ds_db_find_client_by_client_hdl(clients[in_.below(clients.size())].handle);
    require(client != nullptr, "a client is lost");
    return client;
}

ds_service_elem_t *History::element(const std::string &name) {
    ds_service_elem_t *selem = nullptr;
    const int result = ds_db_find_service_element(name.c_str(), &selem);
    require((result == 0) == (model_.state.elements.count(name) != 0) &&
                (result == 0) == (selem != nullptr),
            "a name is lost, or found");
    return selem;
}

History::ChosenService History::some_service() {
    std::size_t left = in_.below(services_max);
    ChosenService chosen;
    for (auto &[name, state] : model_.state.elements) {
        ds_service_t *record = ds_service_get_service_list_head(element(name));
        for (ServiceState &service : state.services) {
            require(record != nullptr, "a service is lost");
            chosen = {name, record, &service};
            if (left-- == 0) return chosen;
            record = ds_service_get_next_in_service_list(record);
        }
    }
    return chosen; // the last when the input wants one beyond it
}

History::ChosenRegistration History::some_registration() {
    std::size_t left = in_.below(services_max);
    ChosenRegistration chosen;
    for (auto &[name, state] : model_.state.elements) {
        ds_client_reg_t *record = ds_service_get_client_reg_list_head(element(name));
        for (RegistrationState &registration : state.registrations) {
            require(record != nullptr, "a registration is lost");
            chosen = {name, record, &registration};
            if (left-- == 0) return chosen;
            record = ds_service_get_next_in_client_reg_list(record);
        }
    }
    return chosen;
}

std::string History::some_name() {
    return names[in_.below(names.size())];
}

std::optional<std::string> History::some_instance() {
    const char *instance = instances[in_.below(instances.size())];
    return instance == nullptr ? std::nullopt : std::optional<std::string>(instance);
}

// The pids of clients too, which a replay brings back, and such as look like an index.
std::uint32_t History::some_pid() {
    static constexpr std::array<std::uint32_t, 7> pids = {7, 100, 101, 102, 11, 0, 1};
    return pids[in_.below(pids.size())];
}

Target History::some_target() {
    Target target;
    target.name = some_name();
    target.instance = some_instance();
    target.scope = static_cast<std::uint32_t>(in_.below(4));
    return target;
}

// Mostly one IP endpoint, of the few that the relay replays.
Endpoints History::some_endpoints(const Target &target) {
    static constexpr std::uint32_t unknown_type = 7;
    const std::uint8_t shape = in_.byte();
    Endpoint endpoint = ip_endpoint(shape % 4, target.scope, target.instance);
    const std::uint8_t kind = shape >> 4 & 7;
    if (kind == 5) endpoint.type = DS_EP_TYPE_PATH; // what follows is no path
    if (kind == 6) {
        std::array<char, 16> bytes;
        const std::int32_t length = ds_encode_path("/p", 2, bytes.data(), bytes.size());
        endpoint.type = DS_EP_TYPE_PATH;
        endpoint.address.assign(bytes.data(), static_cast<std::size_t>(length));
    }
    if (kind == 7) {
        endpoint.type = unknown_type;
        endpoint.address.clear();
    }
    if ((shape & 128) != 0)
        endpoint.attributes = {{DS_ATTR_HA_ROLE, shape % 4u}, {DS_ATTR_ISSU_ID, kind}};
    const std::uint8_t count = shape >> 2 & 3;
    if (count == 0 && kind == 4) return {};
    if (count == 1 && kind == 4) return {endpoint, endpoint};
    return {endpoint};
}

} // namespace ds::fuzz
