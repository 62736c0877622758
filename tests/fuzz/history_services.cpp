// Steps of a history: publishing, withdrawing, and the steps that these consist of.
#include <array>

#include "history.h"

namespace ds::fuzz {

namespace {

constexpr std::uint32_t unknown_index = 5; // indexes begin above 10

ds_node_t *writable(const ds_node_t *node) {
    return const_cast<ds_node_t *>(node);
}

ds_service_key_t key_of(Target &target) {
    ds_service_key_t key;
    VIDL_CLEAR(&key);
    VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, target.name.data());
    VIDL_SET(&key, scope, DS_KEY_BIT_SCOPE, target.scope);
    if (target.instance) VIDL_SET(&key, instance, DS_KEY_BIT_INSTANCE, target.instance->data());
    return key;
}

// Of a publication, what is matched is what its first endpoint says.
void take_from_endpoints(Target &target, const Endpoints &endpoints) {
    target.scope = scope_of(endpoints);
    target.instance = endpoints.empty() ? std::nullopt : endpoints.front().instance;
}

} // namespace

void History::publish() {
    const ds_client_t *client = some_client();
    Target target = some_target();
    target.proc_id = client != nullptr ? client->client_idx : unknown_index;
    target.node = harness_.local_node();
    const Endpoints endpoints = some_endpoints(target);
    take_from_endpoints(target, endpoints);
    PublishInfo info(target.name, endpoints, in_.below(2) == 0);

    const int result =
        ds_db_publish_service(target.proc_id, harness_.local_node(), info.get(), nullptr);

    const bool is_held = info.settle();
    require(result == model_.publish(target, endpoints, std::nullopt),
            "publishing gave another result");
    require(is_held == (result == 0), "an info of a failed call is held, or the other way round");
}

void History::publish_for_relay() {
    Target target = some_target();
    target.proc_id = some_pid();
    target.node = some_node();
    target.id = static_cast<std::uint32_t>(in_.below(4));
    const ds_dsr_service_ref_t reference = {target.id, in_.byte()};
    const Endpoints endpoints = some_endpoints(target);
    take_from_endpoints(target, endpoints);
    PublishInfo info(target.name, endpoints, in_.below(2) == 0);

    const int result =
        ds_db_publish_service(target.proc_id, writable(target.node), info.get(), &reference);

    info.settle();
    require(result == model_.publish(target, endpoints, reference),
            "publishing for the relay gave another result");
}

void History::withdraw() {
    const ds_client_t *client = some_client();
    Target target = some_target();
    target.proc_id = client != nullptr ? client->client_idx : unknown_index;
    target.node = harness_.local_node();
    const ds_service_key_t key = key_of(target);

    const int result =
        ds_db_unpublish_service(target.proc_id, harness_.local_node(), &key, nullptr);

    require(result == model_.withdraw(target), "withdrawing gave another result");
}

void History::take_down() {
    const ChosenService chosen = some_service();
    if (chosen.record == nullptr) return;
    const bool is_for_owner = in_.below(2) == 0;
    const std::uint64_t owner = is_for_owner ? chosen.state->client : 0;
    ds_db_handle_service_down(chosen.record, ds_db_find_client_by_client_hdl(owner));
    model_.take_down(chosen.name, *chosen.state, owner);
}

void History::step_element() {
    const std::string name = some_name();
    ds_service_elem_t *known = element(name);
    if (known != nullptr && model_.state.elements[name].services.empty() &&
        model_.state.elements[name].registrations.empty()) {
        require(ds_db_delete_service_element(known) == 0, "an element cannot be deleted");
        model_.state.elements.erase(name);
        return;
    }
    ds_service_elem_t *selem = nullptr;
    require(ds_db_init_service_element(name.c_str(), &selem) == 0, "no element");
    const int result = ds_db_add_service_element(selem);
    require(result == (known == nullptr ? 0 : -1), "adding an element gave another result");
    if (result == 0)
        model_.state.elements[name];
    else
        require(ds_db_free_service_element(selem) == 0, "an element cannot be given back");
}

// Makes a record, and adds it or gives it back.
void History::step_service() {
    ds_client_t *client = some_client();
    Target target = some_target();
    ds_service_elem_t *selem = element(target.name);
    if (selem == nullptr) return;
    target.proc_id = client != nullptr ? client->client_idx : some_pid();
    target.node = client != nullptr ? harness_.local_node() : some_node();
    target.id = static_cast<std::uint32_t>(in_.below(4));
    const Endpoints endpoints = some_endpoints(target);
    PublishInfo info(target.name, endpoints, in_.below(2) == 0);
    ds_service_t *service = nullptr;
    require(ds_db_init_service(target.proc_id, writable(target.node), info.get(), selem->name_hash,
                               &service, client, selem, target.id) == 0 &&
                info.settle(),
            "no service record");
    const ClientState *publisher = client == nullptr ? nullptr : model_.client(client->client_hdl);
    ServiceState made = model_.make_service(target, endpoints, publisher);
    if (in_.below(4) == 0) {
        char *instance = service->instance;
        require(ds_db_free_service(service) == 0, "a service cannot be given back");
        std::free(instance);
        return;
    }
    require(ds_db_add_service(service, client) == 0, "a service cannot be added");
    model_.add_service(target.name, std::move(made), client == nullptr ? 0 : client->client_hdl);
}

// A placeholder may pass through the hands of several clients. The last step of a take-over is the
// caller's: the record is told whose it is.
void History::update_service() {
    const ChosenService chosen = some_service();
    if (chosen.record == nullptr) return;
    const bool is_local = chosen.state->node == harness_.local_node();
    const bool is_placeholder = chosen.state->is_placeholder();
    ds_client_t *client = nullptr;
    for (std::size_t left = 1 + in_.below(2); left != 0; left--) {
        client = is_local && in_.below(2) != 0 ? some_client() : client;
        const Endpoints endpoints = some_endpoints(some_target());
        PublishInfo info(chosen.name, endpoints, in_.below(2) == 0);
        require(ds_db_update_service(chosen.record, info.get(), client) == 0 && info.settle(),
                "a service cannot be updated");
        model_.update_service(chosen.name, *chosen.state, endpoints,
                              client == nullptr ? 0 : client->client_hdl);
    }
    if (!is_placeholder || client == nullptr) return;
    chosen.record->proc_id = chosen.state->proc_id = client->client_idx;
    chosen.record->pid = chosen.state->pid = static_cast<std::uint32_t>(ds_client_pid(client));
}

void History::delete_service() {
    const ChosenService chosen = some_service();
    if (chosen.record == nullptr) return;
    const std::uint64_t owner = chosen.state->client;
    require(ds_db_delete_service(chosen.record, ds_db_find_client_by_client_hdl(owner)) == 0,
            "a service cannot be deleted");
    model_.delete_service(chosen.name, *chosen.state, owner);
}

void History::find_service() {
    Target target = some_target();
    const ds_client_t *client = some_client();
    const std::size_t choice = in_.below(4);
    target.proc_id = choice == 0 ? 0 : choice == 1 && client ? client->client_idx : some_pid();
    target.node = in_.below(2) == 0 ? nullptr : some_node();
    const ChosenService chosen = some_service();
    if (in_.below(2) == 0 && chosen.state != nullptr) target.id = chosen.state->id;
    ds_service_elem_t *selem = nullptr;
    ds_service_t *service = nullptr;

    const int result = ds_db_find_service(
        target.name.c_str(), target.instance ? target.instance->c_str() : nullptr, target.proc_id,
        target.scope, writable(target.node), &selem, &service, target.id);

    const ServiceState *expected = model_.find(target);
    require(result == 0 && (selem != nullptr) == (model_.state.elements.count(target.name) != 0),
            "a look-up finds another name");
    require((service != nullptr) == (expected != nullptr), "a look-up matches otherwise");
    if (service == nullptr) return;
    auto *at = ds_service_get_service_list_head(selem);
    for (const ServiceState &state : model_.state.elements[target.name].services) {
        require((at == service) == (&state == expected), "a look-up finds another service");
        at = ds_service_get_next_in_service_list(at);
    }
}

void History::compare_endpoints() {
    const ChosenService chosen = some_service();
    if (chosen.record == nullptr) return;
    const Endpoints endpoints = some_endpoints(some_target());
    PublishInfo info(chosen.name, endpoints, true);
    require((ds_db_service_endpoints_equal(chosen.record, info.get()) != 0) ==
                same_addresses(chosen.state->endpoints, endpoints),
            "endpoints compare otherwise");
}

} // namespace ds::fuzz
