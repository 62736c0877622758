// Steps of a history: clients, registrations, notifications.
#include <array>
#include <cstring>

#include "history.h"

namespace ds::fuzz {

namespace {

constexpr std::size_t clients_max = 4;

} // namespace

void History::add_client() {
    if (model_.state.clients.size() == clients_max) return;
    ds_client_t *client = harness_.add_client();
    const char *name = client->client_hdl % 2 == 0 ? "even" : "odd";
    model_.add_client(client->client_hdl, static_cast<std::uint32_t>(ds_client_pid(client)), name);
}

void History::delete_client() {
    ds_client_t *client = some_client();
    if (client == nullptr) return;
    const std::uint64_t handle = client->client_hdl;
    harness_.delete_client(client);
    model_.delete_client(handle);
}

void History::discard_client() {
    ds_client_t *client = nullptr;
    require(ds_db_init_client(&client) == 0 && client->client_idx == 0, "no client record");
    require(ds_db_free_client(client) == 0, "a client record cannot be given back");
}

void History::look_up_clients() {
    for (const ClientState &state : model_.state.clients) {
        ds_client_t *client = ds_db_find_client_by_client_idx(state.index);
        require(client != nullptr && client == ds_db_find_client_by_client_hdl(state.handle),
                "a client is not found");
        std::array<char, 8> name;
        const int length = ds_client_get_name(client, name.data(), name.size());
        require(length == static_cast<int>(state.name.size()) && state.name == name.data(),
                "a client has another name");
    }
    const std::uint32_t unknown = in_.byte();
    require((ds_db_find_client_by_client_idx(unknown) != nullptr) ==
                (model_.client_with_index(unknown) != nullptr),
            "a client that nobody added is found");
}

void History::add_registration() {
    ds_client_t *client = some_client();
    if (client == nullptr) return;
    const std::string name = some_name();
    const std::uint64_t cookie = next_cookie();
    ds_client_reg_t *registration = nullptr;

    const int result = ds_db_add_new_registration(name.c_str(), client, cookie, &registration);

    require(result == 0, "registering failed");
    model_.add_registration(name, client->client_hdl, cookie);
    require(registration->handle == model_.client(client->client_hdl)->last_registration,
            "a registration has another handle than the next");
}

// Of whichever client: only the owner's can be found.
void History::delete_registration() {
    ds_client_t *client = some_client();
    const ChosenRegistration chosen = some_registration();
    if (client == nullptr || chosen.state == nullptr) return;
    const std::uint32_t handle = chosen.state->handle;

    const int result = ds_db_delete_registration(chosen.name.c_str(), client, handle);

    const bool is_found = model_.delete_registration(chosen.name, client->client_hdl, handle);
    require(result == (is_found ? 0 : -1), "unregistering gave another result");
}

// The steps that registering and unregistering consist of.
void History::step_registration() {
    ds_client_t *client = some_client();
    const std::size_t choice = in_.below(3);
    const ChosenRegistration chosen = some_registration();
    if (choice == 0) {
        if (chosen.record == nullptr) return;
        require(ds_db_delete_client_registration(chosen.record) == 0, "unregistering failed");
        model_.delete_registration(chosen.name, chosen.state->client, chosen.state->handle);
        return;
    }
    if (client == nullptr) return;
    const std::string name = some_name();
    const std::uint64_t cookie = next_cookie();
    ds_client_reg_t *registration = nullptr;
    require(ds_db_init_client_registration(client, name.c_str(), cookie, &registration) == 0,
            "no registration record");
    ds_service_elem_t *selem = element(name);
    if (choice == 1 || selem == nullptr) {
        require(ds_db_free_client_registration(registration) == 0, "it cannot be given back");
        model_.client(client->client_hdl)->last_registration++;
        return;
    }
    require(ds_db_add_client_registration(registration, client, selem) == 0, "registering failed");
    model_.add_registration(name, client->client_hdl, cookie);
}

void History::notify_all() {
    const std::string name = some_name();
    ds_service_elem_t *selem = element(name);
    require(ds_notify(selem) == 0, "telling all failed");
    if (selem != nullptr) model_.notify(name);
}

void History::notify_one() {
    const ChosenRegistration chosen = some_registration();
    if (chosen.record == nullptr) return;
    require(ds_notify_client(chosen.record, chosen.record->selem) == 0, "telling one failed");
    model_.notify_one(chosen.name, *chosen.state);
}

void History::prepare_message() {
    const std::string name = some_name();
    ds_service_elem_t *selem = element(name);
    if (selem == nullptr) return;
    ds_service_publish_info info;
    VIDL_CLEAR(&info);
    std::uint32_t count = 0;

    const int result = ds_prepare_notif_message(selem, &info, &count);

    require(result == 0 && count == info.entries_count && name == info.service_name,
            "a message cannot be prepared");
    require(read_endpoints(info) == live_endpoints(model_.state.elements[name]),
            "a message has other entries than the live ones");
    std::free(info.entries);
}

} // namespace ds::fuzz
