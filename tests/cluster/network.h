// A network of a test's own on this machine, in which every host can be cut off.
//
//   host --- veth ---+
//   host --- veth ---+--- bridge --- the test process
//   host --- veth ---+
//
// The test process moves into a network namespace of its own, which holds the bridge; each host is
// one more namespace. None of them has a name: they are held by descriptors and by the processes in
// them, so they go with the test however it ends, and tests that run at the same time do not meet.
// UNIX sockets reach across, so clients of a daemon need not enter its host.
#pragma once
#include <string>
#include <vector>

#include "tests/system/harness.h"

namespace cluster_test {

class Network;

class Host {
  public:
    const std::string &address() const { return address_; }
    // The command that starts a program on this host.
    std::vector<std::string> enter() const;
    // From now on nothing gets in or out: packets are dropped, connections stay open and silent.
    void cut();
    void heal();

  private:
    friend class Network;
    explicit Host(int number);

    system_test::Descriptor network_;
    std::string cable_; // the bridge's end of it
    std::string address_;
};

class Network {
  public:
    // Why networks cannot be made on this machine; empty when they can. Tests are skipped then.
    static std::string obstacle();

    Network();
    Host add_host();

  private:
    int hosts_ = 0;
};

} // namespace cluster_test
