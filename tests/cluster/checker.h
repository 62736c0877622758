// Whether every node shows what it has to show.
//
// The truth is what the living clients have published. A node has to see of it everything that was
// published on itself, and of each other node that it is connected with the services of scope
// system, and those of scope rack when both are in one rack. It has to see nothing else.
#pragma once
#include <gtest/gtest.h>

#include "tests/cluster/cluster.h"

namespace cluster_test {

View expected_view(const Cluster &cluster, const Node &node);

// Waits until every daemon that runs shows exactly that: its observer, a listing and a dump of all
// names, and no restart period. A failure tells what each node has too much or too little.
testing::AssertionResult agrees(Cluster &cluster);

} // namespace cluster_test
