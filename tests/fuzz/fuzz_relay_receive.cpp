// Arbitrary updates from the relay, about other nodes and this one, in and out of restart periods.
#include <algorithm>

#include "harness.h"
#include "input.h"

namespace ds::fuzz {
namespace {

constexpr std::size_t updates_max = 64;

Address sender(Input &input) {
    return address_of(input.below(node_count));
}

const void *pointer(const std::vector<std::uint8_t> &bytes) {
    return bytes.empty() ? nullptr : bytes.data();
}

void receive(Input &input) {
    Harness &harness = Harness::instance();
    const Address from = sender(input);
    const std::uint32_t operation = input.below(6); // also such that do not exist
    const std::uint8_t shape = input.byte();
    const std::string name = input.text(shape & 7);
    const std::string instance = input.text(shape >> 3 & 7);
    const std::uint32_t id = (shape & 64) != 0 ? input.byte() : input.number();
    const std::uint32_t scope = input.below(6);
    const std::uint32_t pid = (shape & 128) != 0 ? input.byte() : input.number();
    const std::uint32_t version = input.number();
    const auto endpoint = input.bytes(input.byte());
    const auto attributes = input.bytes(input.byte());
    harness.events.clear();

    const int result =
        dsr_receive_cb(operation, from.data(), name.c_str(), id,
                       instance.empty() ? nullptr : instance.c_str(), scope, pid, version,
                       pointer(endpoint), endpoint.size(), pointer(attributes), attributes.size());

    require(result == 0 || result == -1, "a result that is none");
    const bool is_own = from == address_of(0);
    const auto is_update = [](const Event &event) { return event.kind == Event::update; };
    const auto &events = harness.events;
    if (is_own && !harness.is_own_period_open()) {
        require(result == 0 && events.size() == 1 && is_update(events[0]), "not turned back");
        require(events[0].operation == DSR_DELETE && events[0].version == version + 1,
                "turned back with another update than a later deletion");
    } else {
        require(std::none_of(events.begin(), events.end(), is_update), "a delivery was sent");
        const bool is_publication = operation != DSR_DELETE;
        require(!is_publication || result == 0, "a publication was refused");
    }
}

void publish_local(Input &input, const ds_client_t *client) {
    const std::string name = input.text(input.below(8));
    const auto scope = static_cast<std::uint32_t>(input.below(4));
    PublishInfo info(name, {ip_endpoint(input.byte(), scope, std::nullopt)}, true);
    const int result = ds_db_publish_service(client->client_idx, Harness::instance().local_node(),
                                             info.get(), nullptr);
    require(result == 0 && info.settle(), "a client's publication was refused");
}

void step(Input &input, ds_client_t *client) {
    Harness &harness = Harness::instance();
    ds_client_reg_t *registration = nullptr;
    switch (input.below(18)) {
    case 0:
        harness.open_own_period();
        break;
    case 1:
        harness.expire_own_period();
        break;
    case 2:
        harness.disconnect_relay();
        break;
    case 3:
        harness.expire_relay_period();
        break;
    case 4:
        dsr_connect_cb();
        break;
    case 5:
        dsr_peer_down_cb(sender(input).data());
        break;
    case 6:
        publish_local(input, client);
        break;
    case 7:
        ds_db_add_new_registration(input.text(input.below(8)).c_str(), client, 1, &registration);
        break;
    case 8:
        harness.check_structure();
        break;
    default:
        receive(input);
        break;
    }
}

} // namespace
} // namespace ds::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ds::fuzz;
    Input input(data, size);
    Harness &harness = Harness::instance();
    harness.set_logging(input.below(32) == 0);
    ds_client_t *client = harness.add_client();
    for (std::size_t i = 0; i < updates_max && !input.is_at_end(); i++)
        step(input, client);
    harness.check_structure();
    harness.reset();
    return 0;
}
