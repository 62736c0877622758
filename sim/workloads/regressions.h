// What went wrong once, as short plans. The seed moves nothing but the delays.
#pragma once
#include "sim/base/plan.h"

namespace ds::sim {

Plan make_withdraw_beside(Settings settings);
Plan make_change_beside(Settings settings);
Plan make_long_outage(Settings settings);
Plan make_twin(Settings settings);
Plan make_last_of_rack(Settings settings);

// By design: two processes of a node come to own one entry.
Plan make_two_heirs(Settings settings);

} // namespace ds::sim
