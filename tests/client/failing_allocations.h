// Allocations of the whole program that fail on demand. In a file of its own, so that no compiler
// sees through the pair of new and delete.
#pragma once

namespace client_test {

// How many allocations succeed before one fails, once; negative: none fails.
extern long allocations_left;

} // namespace client_test
