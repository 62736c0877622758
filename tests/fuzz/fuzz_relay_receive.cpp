// Arbitrary updates from the relay, about other nodes and this one, in and out of restart periods.
#include <cstring>

#include "harness.h"
#include "input.h"

namespace ds::fuzz {
namespace {

constexpr std::size_t updates_max = 64;

Address sender(Input &input) {
    Address address = local_address;
    address[5] = static_cast<std::uint8_t>(input.below(4)); // 0: this node
    return address;
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
    const std::size_t sent_before = harness.sent.size();

    const int result =
        dsr_receive_cb(operation, from.data(), name.c_str(), id,
                       instance.empty() ? nullptr : instance.c_str(), scope, pid, version,
                       pointer(endpoint), endpoint.size(), pointer(attributes), attributes.size());

    require(result == 0 || result == -1, "a result that is none");
    const bool is_own = from == local_address;
    if (is_own && !harness.is_period_open()) {
        require(result == 0 && harness.sent.size() == sent_before + 1, "not turned back");
        require(harness.sent.back().operation == DSR_DELETE &&
                    harness.sent.back().version == version + 1,
                "turned back with another update than a later deletion");
    }
    if (!is_own) require(harness.sent.size() == sent_before, "an update of another node was sent");
    if (operation != DSR_DELETE && !is_own) require(result == 0, "a publication was refused");
}

void publish_local(Input &input, const ds_client_t *client) {
    ds_service_publish_info info;
    const std::string name = input.text(input.below(8));
    fill_info(info, name.c_str(), nullptr, static_cast<std::uint32_t>(input.below(4)),
              input.byte());
    info.borrowed = 1;
    ds_db_publish_service(client->client_idx, Harness::instance().local_node(), &info, nullptr);
    if (info.held == 0) discard_info(info);
}

void step(Input &input, ds_client_t *client) {
    Harness &harness = Harness::instance();
    ds_client_reg_t *registration = nullptr;
    switch (input.below(16)) {
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
    ds_client_t *client = harness.add_client();
    for (std::size_t i = 0; i < updates_max && !input.is_at_end(); i++) {
        step(input, client);
        harness.check_structure();
    }
    harness.reset();
    return 0;
}
