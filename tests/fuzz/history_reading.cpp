// Steps of a history: everything that only reads.
#include <array>

#include "history.h"
#include "structure.h"

namespace ds::fuzz {

void History::dump() {
    static constexpr std::array<const char *, 3> process_names = {"even", "odd", "eve"};
    DumpRequest request;
    request.flags = static_cast<std::uint32_t>(in_.below(8));
    const std::size_t filter = in_.below(4);
    if (filter == 1) request.name = process_names[in_.below(process_names.size())];
    if (filter > 1) request.name = some_name();
    if (in_.below(2) != 0) request.node = some_node();
    request.scope = 4 - static_cast<std::uint32_t>(in_.below(5));
    if (!can_be_dumped(model_.state)) return;

    const Dump seen = take_dump(request);

    const Dump expected = expected_dump(model_.state, request);
    if (seen != expected)
        fail("a dump differs\nlibrary:\n" + text_of(seen) + "model:\n" + text_of(expected));
}

void History::count_names() {
    std::optional<std::string> name;
    if (in_.below(4) != 0) name = some_name() + (in_.below(2) != 0 ? "b" : "");
    const char *filter = name ? name->c_str() : nullptr;
    const auto scope = static_cast<std::uint32_t>(in_.below(5));
    ds_node_t *node = some_node();
    const DirectoryState &state = model_.state;
    require(ds_db_get_registered_service_count(filter) == registered_names(state, name),
            "another number of registered names");
    require(ds_db_get_published_service_count(filter, scope) ==
                published_names(state, name, scope, nullptr),
            "another number of published names");
    require(ds_db_get_remote_published_service_count(filter, node, scope) ==
                published_names(state, name, scope, node),
            "another number of names published by a node");
    const std::string process = in_.below(2) == 0 ? "even" : "odd";
    require(ds_db_get_client_count(nullptr) == state.clients.size() &&
                ds_db_get_client_count(process.c_str()) == client_count(state, process),
            "another number of clients");
}

// Every record, by its iterator, and the tests of every element.
void History::walk() {
    const auto count = [](auto *, void *counter) -> void * {
        ++*static_cast<std::size_t *>(counter);
        return nullptr;
    };
    std::size_t clients = 0;
    std::size_t services = 0;
    std::size_t registrations = 0;
    ds_db_client_iter(count, &clients);
    require(ds_db_services_iter(count, &services) == 1, "the walk over services was not finished");
    require(ds_db_client_reg_iter(count, &registrations) == 1,
            "the walk over registrations was not finished");
    const auto scope = static_cast<std::uint32_t>(in_.below(5));
    const auto has_any = [&](const ElementState &state, const ds_node_t *node) {
        for (const ServiceState &service : state.services)
            if (is_live(service, scope, node)) return 1;
        return 0;
    };
    for (const auto &[name, state] : model_.state.elements) {
        ds_service_elem_t *selem = element(name);
        services -= state.services.size();
        registrations -= state.registrations.size();
        require(ds_db_service_element_has_services(selem, scope) == has_any(state, nullptr),
                "an element has services, or has none");
        for (ds_node_t *node : harness_.nodes())
            require(ds_db_service_element_has_remote_services(selem, node, scope) ==
                        has_any(state, node),
                    "an element has services of a node, or has none");
        require(ds_db_service_element_has_registrations(selem) == !state.registrations.empty(),
                "an element has registrations, or has none");
    }
    require(clients == model_.state.clients.size() && services == 0 && registrations == 0,
            "a walk met another number of records");
}

void History::trace() {
    const ChosenService service = some_service();
    const ChosenRegistration registration = some_registration();
    const rtrace_handle_t channel = ds_lib_rtrace[DS_CHANNEL_MAIN];
    ds_db_dump(0);
    ds_db_reg_dump(0);
    trace_endpoints(service.record, channel);
    trace_service_info(service.record, channel);
    trace_client_reg_info(registration.record, channel);
}

void History::compare() {
    harness_.check_structure();
    const DirectoryState seen = read_directory(harness_.database(), harness_.nodes());
    if (seen != model_.state)
        fail("the directory differs\nlibrary:\n" + text_of(seen) + "model:\n" +
             text_of(model_.state));
}

} // namespace ds::fuzz
