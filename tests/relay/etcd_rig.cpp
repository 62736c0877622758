#include <map>

#include "relay/etcd/records.h"
#include "tests/relay/etcd_fixture.h"
#include "tests/relay/rig.h"

namespace relay_test {

using namespace ds::relay;

namespace {

// One server for all tests of the process; each test has a cluster of its own in it.
EtcdServer &shared_server() {
    static EtcdServer server;
    static const bool is_started = (server.start(), true);
    (void)is_started;
    return server;
}

class EtcdRig final : public Rig {
  public:
    ~EtcdRig() override {
        engines_.clear();
        io_.restart();
        io_.poll();
    }
    void make_engine(std::uint8_t number, const std::string &rack,
                     DirectoryDouble &directory) override {
        EtcdConfig config = quick_config(number, {shared_server().endpoint()});
        config.cluster = cluster_;
        config.rack = rack;
        config.outage_grace = std::chrono::milliseconds(200);
        config.predecessor_boot_id = predecessors_[number];
        EtcdHooks hooks;
        hooks.is_own_period_open = [&directory] { return directory.is_own_period_open; };
        boot_ids_[number] = config.boot_id;
        engines_[number] = std::make_unique<EtcdEngine>(io_, config, hooks);
        directory.use(engines_[number].get());
        directories_[number] = &directory;
    }
    Engine &engine(std::uint8_t number) override { return *engines_.at(number); }
    void kill(std::uint8_t number) override {
        engines_.erase(number);
        directories_.erase(number);
    }
    void kill_for_restart(std::uint8_t number) override {
        kill(number);
        predecessors_[number] = boot_ids_[number];
    }
    // Back only when the outage has been reported.
    void begin_outage() override {
        std::map<std::uint8_t, std::size_t> before;
        for (const auto &[number, directory] : directories_)
            before[number] = directory->count("disconnected");
        shared_server().kill();
        until([&] {
            for (const auto &[number, directory] : directories_)
                if (directory->count("disconnected") == before[number]) return false;
            return true;
        });
    }
    void end_outage() override { shared_server().start(); }
    void wipe() override {
        shared_server().kill();
        shared_server().wipe();
        shared_server().start();
    }
    void plant(std::uint8_t number, const Update &update) override {
        StoreAccess store(io_, shared_server().endpoint());
        const etcd::Keys keys(cluster_, "default");
        if (!store.get(keys.node(node(number)))) {
            predecessors_[number] = "planted";
            store.put(keys.node(node(number)),
                      etcd::encode_node({"planted", "default", "host", 1, 1}));
        }
        store.put(keys.entry(node(number), update), etcd::encode_update(update));
    }
    bool holds(std::uint8_t number, const std::string &name, std::uint32_t id) override {
        StoreAccess store(io_, shared_server().endpoint());
        const etcd::Keys keys(cluster_, "default");
        for (const etcd::KeyRange &range :
             {keys.system_entries_of(node(number)), keys.rack_entries_of("default", node(number))})
            for (const etcd::KeyValue &item : store.range(range)) {
                const auto entry = keys.parse_entry(item.key);
                if (entry && entry->name == name && entry->service_id == id) return true;
            }
        return false;
    }
    bool until(const std::function<bool()> &condition) override {
        return run_until(io_, condition);
    }
    std::string describe() const override {
        std::string text;
        for (const auto &[number, engine] : engines_) {
            const EngineStatus status = engine->status();
            text += "\nnode " + std::to_string(number) + ": " + status.state + ", waiting " +
                    std::to_string(status.waiting) + ", audits " + std::to_string(status.audits) +
                    ", did " + directories_.at(number)->events();
            for (const ErrorCount &error : status.errors)
                text += "\n  " + error.text + " (" + std::to_string(error.count) + ")";
        }
        return text;
    }
    // Two audits begun after everything was written: the watch has caught up with them.
    bool settle() override {
        for (const auto &[number, engine] : engines_)
            if (!until([&own = *engine] { return own.status().waiting == 0; })) return false;
        std::map<std::uint8_t, std::uint64_t> wanted;
        for (const auto &[number, engine] : engines_)
            wanted[number] = engine->status().audits + 2;
        return until([&] {
            for (const auto &[number, engine] : engines_)
                if (engine->status().audits < wanted[number]) return false;
            return true;
        });
    }

  private:
    static inline int rigs_ = 0;
    const std::string cluster_ = "contract-" + std::to_string(++rigs_);
    asio::io_context io_;
    std::map<std::uint8_t, std::unique_ptr<EtcdEngine>> engines_;
    std::map<std::uint8_t, DirectoryDouble *> directories_;
    std::map<std::uint8_t, std::string> boot_ids_, predecessors_;
};

} // namespace

std::unique_ptr<Rig> make_etcd_rig() {
    return std::make_unique<EtcdRig>();
}

} // namespace relay_test
