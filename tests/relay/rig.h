// What the contract suite needs of an engine's surroundings: several nodes in one process, and the
// accidents that befall them.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "relay/engine.h"
#include "relay/update.h"
#include "tests/relay/directory_double.h"

namespace relay_test {

class Rig {
  public:
    virtual ~Rig() = default;

    // The node's engine, not started. One at a time for each node.
    virtual void make_engine(std::uint8_t node, const std::string &rack,
                             DirectoryDouble &directory) = 0;
    virtual ds::relay::Engine &engine(std::uint8_t node) = 0;
    // The node's daemon dies; the store learns of it in its own time.
    virtual void kill(std::uint8_t node) = 0;
    // The daemon dies and its successor, which knows that, will follow.
    virtual void kill_for_restart(std::uint8_t node) = 0;
    // The store cannot be reached, long enough to be reported; and then it can.
    virtual void begin_outage() = 0;
    virtual void end_outage() = 0;
    // All that the store held is gone.
    virtual void wipe() = 0;
    // An entry that an earlier life of that node left, whose node key still stands.
    virtual void plant(std::uint8_t node, const ds::relay::Update &update) = 0;
    // Whether the store holds an entry of that node with that name and id.
    virtual bool holds(std::uint8_t node, const std::string &name, std::uint32_t id) = 0;

    // Lets everything go its way until the condition holds; false when patience is at its end.
    virtual bool until(const std::function<bool()> &condition) = 0;
    // How the engines feel, for the text of a failure.
    virtual std::string describe() const { return {}; }
    // Until everything that was sent has reached the store and come to all nodes.
    virtual bool settle() = 0;
};

struct RigFactory {
    const char *name;
    std::unique_ptr<Rig> (*make)();
};

std::unique_ptr<Rig> make_fake_rig();
std::unique_ptr<Rig> make_etcd_rig();

} // namespace relay_test
