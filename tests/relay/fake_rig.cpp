#include <map>

#include "relay/fake/fake_engine.h"
#include "tests/relay/rig.h"
#include "tests/relay/updates.h"

namespace relay_test {

using namespace ds::relay;

namespace {

class FakeRig final : public Rig {
  public:
    void make_engine(std::uint8_t number, const std::string &rack,
                     DirectoryDouble &directory) override {
        engines_[number] = std::make_unique<FakeEngine>(store_, node(number), rack);
        directory.use(engines_[number].get());
    }
    Engine &engine(std::uint8_t number) override { return *engines_.at(number); }
    void kill(std::uint8_t number) override {
        engines_.at(number)->withdraw();
        engines_.erase(number);
    }
    void kill_for_restart(std::uint8_t number) override { engines_.erase(number); }
    void begin_outage() override { store_.set_reachable(false); }
    void end_outage() override { store_.set_reachable(true); }
    void wipe() override { store_.wipe(); }
    void plant(std::uint8_t number, const Update &update) override {
        store_.node_comes(node(number), "default");
        store_.apply(node(number), update);
    }
    bool holds(std::uint8_t number, const std::string &name, std::uint32_t id) override {
        for (const Update &update : store_.entries_of(node(number)))
            if (update.name == name && update.service_id == id) return true;
        return false;
    }
    bool until(const std::function<bool()> &condition) override {
        store_.settle();
        return condition();
    }
    bool settle() override {
        store_.settle();
        return true;
    }

  private:
    FakeStore store_;
    std::map<std::uint8_t, std::unique_ptr<FakeEngine>> engines_;
};

} // namespace

std::unique_ptr<Rig> make_fake_rig() {
    return std::make_unique<FakeRig>();
}

} // namespace relay_test
