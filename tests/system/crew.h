// Processes full of clients of the client library that publish and watch each other. Each of them
// checks whatever a watcher is told: once a watcher knew everybody, nobody who lives may be missing
// again.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "harness.h"

namespace system_test {

class Crew {
  public:
    static constexpr int processes_count = 5;
    static constexpr int clients_per_process = 20;
    static constexpr int clients_count = processes_count * clients_per_process;
    static constexpr int watches_per_client = 3;
    static constexpr int none = -1;

    // The process `mortal` may be killed by the test; the others do not miss it.
    explicit Crew(const std::string &socket, int mortal = none);

    ClientProcess &process(int index) { return processes_.at(static_cast<std::size_t>(index)); }
    void kill(int index);

    // Each process that is left is connected, has published and has been told the state of all
    // others, and no restart period is open any more. `moved`: the process whose services have
    // moved. Returns how often watchers were called back since the last time.
    std::size_t settle(int moved = none);
    // The same without waiting for what others do, for all processes but one.
    void await_back(int except = none);
    // Once its connections are lost, the services of the process get other endpoints.
    void move(int index);

  private:
    void tell(const std::string &command, int except = none);

    std::vector<ClientProcess> processes_;
    int gone_ = none;
};

} // namespace system_test
