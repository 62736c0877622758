#include "host/replication.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "host/runtime_directory.h"
#include "relay/etcd/engine.h"
#include "relay/none.h"

namespace ds::host {

namespace {

namespace asio = boost::asio;

constexpr std::size_t host_name_bytes_max = 255;

std::string first_word_of(const std::string &path) {
    std::string word;
    std::ifstream(path) >> word;
    return word;
}

// The file tells the next daemon of this runtime directory which one it follows.
void write_boot_id(const std::string &path, const std::string &id) {
    std::ofstream(path, std::ios::trunc) << id << '\n';
}

relay::EtcdConfig engine_config(const Config &config) {
    relay::EtcdConfig out;
    out.cluster = config.relay.cluster;
    out.node = config.node;
    out.rack = config.relay.rack;
    out.ca_file = config.relay.ca_file;
    out.cert_file = config.relay.cert_file;
    out.key_file = config.relay.key_file;
    out.ttl = std::chrono::milliseconds(config.relay.ttl_ms);
    // An answer that comes after the others have given this node up is of no use.
    out.call_deadline = std::min(out.call_deadline, out.ttl / 2);
    out.on_outage =
        config.relay.on_outage == "hold" ? relay::OnOutage::hold : relay::OnOutage::expire;
    std::istringstream endpoints(config.relay.endpoints);
    for (std::string endpoint; endpoints >> endpoint;)
        out.endpoints.push_back(endpoint);
    std::array<char, host_name_bytes_max + 1> name = {};
    if (gethostname(name.data(), name.size() - 1) == 0) out.host_name = name.data();
    const std::string boot_file = config.runtime_dir + "/boot_id";
    out.predecessor_boot_id = first_word_of(boot_file);
    out.boot_id = first_word_of("/proc/sys/kernel/random/uuid");
    write_boot_id(boot_file, out.boot_id);
    return out;
}

} // namespace

struct Replication::WithStore {
    WithStore(Loop &loop, const Config &config, relay::EtcdHooks hooks)
        : wake(io, dup(loop.fd())), engine(io, engine_config(config), std::move(hooks)) {}

    // The loop's descriptor is readable whenever a turn has something to do.
    void wait_for_loop() {
        if (is_waiting) return;
        is_waiting = true;
        wake.async_wait(asio::posix::stream_descriptor::wait_read,
                        [this](const boost::system::error_code &) { is_waiting = false; });
    }

    asio::io_context io{1};
    asio::posix::stream_descriptor wake;
    bool is_waiting = false;
    std::string fatal;
    relay::EtcdEngine engine;
};

Replication::Replication(Loop &loop, const Config &config) : loop_(loop) {
    if (config.relay.endpoints.empty()) {
        none_ = std::make_unique<relay::NoEngine>();
        return;
    }
    relay::EtcdHooks hooks;
    hooks.is_own_period_open = [this] { return is_own_period_open_ && is_own_period_open_(); };
    hooks.on_fatal = [this](const std::string &text) {
        with_store_->fatal = text;
        loop_.stop();
    };
    try {
        with_store_ = std::make_unique<WithStore>(loop, config, std::move(hooks));
    } catch (const std::exception &error) {
        throw StartError(std::string("relay: ") + error.what());
    }
}

Replication::~Replication() = default;

relay::Engine &Replication::engine() {
    return with_store_ ? static_cast<relay::Engine &>(with_store_->engine) : *none_;
}

void Replication::replay_while(std::function<bool()> is_own_period_open) {
    is_own_period_open_ = std::move(is_own_period_open);
}

void Replication::run() {
    if (!with_store_) return loop_.run();
    loop_.start();
    while (loop_.is_running()) {
        // What the engine has reported is told to clients at the end of a turn.
        loop_.turn(0);
        with_store_->wait_for_loop();
        if (loop_.is_running() && !loop_.is_busy()) with_store_->io.run_one();
        with_store_->io.poll();
    }
    if (!with_store_->fatal.empty()) throw StartError("relay: " + with_store_->fatal);
}

void Replication::end(bool keep_published) {
    if (!with_store_) return;
    bool is_done = false;
    with_store_->engine.stop(keep_published, [&is_done] { is_done = true; });
    while (!is_done && with_store_->io.run_one() > 0)
        continue;
}

} // namespace ds::host
