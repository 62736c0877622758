// Random histories of a directory: every input is a sequence of the library's operations.
#include <array>
#include <cstddef>

#include "history.h"

namespace ds::fuzz {
namespace {

constexpr std::size_t steps_max = 100;
constexpr std::size_t logged_steps_max = 25; // they cost much more

struct Operation {
    std::uint32_t share; // of the steps
    void (History::*run)();
};

// exported_functions.txt says which exported functions each of them calls.
constexpr Operation operations[] = {
    {8, &History::publish},
    {3, &History::publish_for_relay},
    {4, &History::withdraw},
    {2, &History::take_down},
    {4, &History::add_registration},
    {2, &History::delete_registration},
    {1, &History::step_registration},
    {1, &History::notify_all},
    {1, &History::notify_one},
    {1, &History::prepare_message},
    {2, &History::add_client},
    {1, &History::delete_client},
    {1, &History::discard_client},
    {1, &History::look_up_clients},
    {1, &History::step_element},
    {2, &History::step_service},
    {2, &History::update_service},
    {1, &History::delete_service},
    {1, &History::find_service},
    {1, &History::compare_endpoints},
    {6, &History::receive_publication},
    {2, &History::receive_deletion},
    {2, &History::connect},
    {2, &History::disconnect},
    {1, &History::peer_down},
    {1, &History::node_down},
    {1, &History::mark_remote_services},
    {1, &History::send_to_relay},
    {2, &History::open_own_period},
    {2, &History::expire_own_period},
    {2, &History::expire_relay_period},
    {1, &History::finalize},
    {2, &History::dump},
    {1, &History::count_names},
    {1, &History::walk},
    {1, &History::trace},
    {1, &History::compare},
};

constexpr std::size_t shares() {
    std::size_t sum = 0;
    for (const Operation &operation : operations)
        sum += operation.share;
    return sum;
}

const Operation &operation_at(std::size_t share) {
    const Operation *operation = operations;
    for (; share >= operation->share; operation++)
        share -= operation->share;
    return *operation;
}

} // namespace

void History::run() {
    const bool is_logged = in_.below(32) == 31;
    harness_.set_logging(is_logged);
    const std::size_t most = is_logged ? logged_steps_max : steps_max;
    for (std::size_t i = 0; i < most && !in_.is_at_end(); i++) {
        (this->*operation_at(in_.below(shares())).run)();
        compare_events();
    }
    compare();
}

} // namespace ds::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    ds::fuzz::Input input(data, size);
    ds::fuzz::History(input).run();
    return 0;
}
