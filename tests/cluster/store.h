// The store as an operator sees it, for faults that begin there.
#pragma once
#include <chrono>
#include <memory>
#include <string>

namespace cluster_test {

class Store {
  public:
    explicit Store(const std::string &endpoint);
    ~Store();

    // Throws away the history up to now.
    void compact();
    // What is left of the lease on which the key of that node is; zero when there is none.
    std::chrono::seconds remaining_lease(const std::string &node_address);

  private:
    struct Access;
    std::unique_ptr<Access> access_;
};

} // namespace cluster_test
