// The store behind TLS, with certificates on both sides.
#include "tests/relay/etcd_fixture.h"

using namespace relay_test;
using ds::relay::EtcdConfig;

namespace {

class etcd_tls : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        directory = std::make_unique<TemporaryDirectory>();
        good = make_certificates(directory->path(), "good");
        stranger = make_certificates(directory->path(), "stranger");
        server = std::make_unique<EtcdServer>(&good);
        server->start();
    }
    static void TearDownTestSuite() {
        server.reset();
        directory.reset();
    }
    ~etcd_tls() override {
        daemon.engine.reset();
        io.restart();
        io.poll();
    }
    EtcdConfig config_with(const Certificates &certificates) {
        EtcdConfig config = quick_config(1, {server->endpoint()});
        config.ca_file = certificates.ca_file;
        config.cert_file = certificates.cert_file;
        config.key_file = certificates.key_file;
        return config;
    }
    void start(const EtcdConfig &config) {
        daemon.engine = std::make_unique<ds::relay::EtcdEngine>(io, config);
        daemon.directory.use(daemon.engine.get());
        daemon.engine->start(daemon.directory);
    }
    bool fails_with(const std::string &text) {
        return run_until(io, [&] {
            for (const auto &error : daemon.engine->status().errors)
                if (error.text.find(text) != std::string::npos) return true;
            return false;
        });
    }

    static inline std::unique_ptr<TemporaryDirectory> directory;
    static inline Certificates good, stranger;
    static inline std::unique_ptr<EtcdServer> server;
    asio::io_context io;
    Daemon daemon{node(1)};
};

} // namespace

TEST_F(etcd_tls, carries_what_plain_connections_carry) {
    start(config_with(good));
    ASSERT_TRUE(run_until(io, [&] { return daemon.directory.is_listed(); }));
    Daemon other(node(2));
    EtcdConfig config = config_with(good);
    config.node = node(2);
    other.engine = std::make_unique<ds::relay::EtcdEngine>(io, config);
    other.directory.use(other.engine.get());
    other.engine->start(other.directory);

    daemon.directory.publish(update_of("web", 1));

    EXPECT_TRUE(run_until(io, [&] { return other.directory.seen() == "web;@1v1"; }));
}

TEST_F(etcd_tls, verifies_names_as_well_as_addresses) {
    boost::system::error_code unknown;
    asio::ip::tcp::resolver(io).resolve("localhost", "1", unknown);
    if (unknown) GTEST_SKIP() << "this machine has no address for localhost: " << unknown.message();

    EtcdConfig config = config_with(good);
    config.endpoints = {"https://localhost:" + std::to_string(server->port())};
    start(config);

    EXPECT_TRUE(run_until(io, [&] { return daemon.directory.is_listed(); }));
}

TEST_F(etcd_tls, is_refused_by_a_server_of_another_authority) {
    EtcdConfig config = config_with(good);
    config.ca_file = stranger.ca_file;
    start(config);

    EXPECT_TRUE(fails_with("certificate verify failed"));
    EXPECT_EQ(daemon.directory.events(), "");
}

TEST_F(etcd_tls, is_refused_without_a_certificate_of_this_node) {
    EtcdConfig config = config_with(good);
    config.cert_file.clear();
    config.key_file.clear();
    start(config);

    EXPECT_TRUE(fails_with("https://127.0.0.1"));
    EXPECT_EQ(daemon.directory.events(), "");
}

TEST_F(etcd_tls, files_that_cannot_be_read_are_named_at_once) {
    EtcdConfig config = config_with(good);
    config.ca_file = directory->path() / "missing.pem";

    try {
        ds::relay::EtcdEngine engine(io, config);
        FAIL() << "the engine took it";
    } catch (const std::exception &error) {
        EXPECT_NE(std::string(error.what()).find("missing.pem"), std::string::npos);
    }
}

TEST(etcd_config, that_is_of_no_use_is_refused_with_a_sentence) {
    const EtcdConfig good = quick_config(1, {"http://127.0.0.1:2379"});
    const auto with = [&](auto change) {
        EtcdConfig config = good;
        change(config);
        return ds::relay::check_config(config);
    };

    EXPECT_EQ(ds::relay::check_config(good), "");
    EXPECT_EQ(with([](EtcdConfig &c) { c.endpoints.clear(); }), "there is no endpoint.");
    EXPECT_EQ(with([](EtcdConfig &c) { c.endpoints = {"127.0.0.1:2379"}; }),
              "endpoint '127.0.0.1:2379' begins with neither http:// nor https://.");
    EXPECT_EQ(with([](EtcdConfig &c) { c.endpoints = {"http://host"}; }),
              "endpoint 'http://host' has no port.");
    EXPECT_EQ(with([](EtcdConfig &c) { c.endpoints = {"http://host:0"}; }),
              "endpoint 'http://host:0' has a bad port.");
    EXPECT_NE(with([](EtcdConfig &c) { c.cluster = "a/b"; }), "");
    EXPECT_NE(with([](EtcdConfig &c) { c.rack = ""; }), "");
    EXPECT_NE(with([](EtcdConfig &c) { c.boot_id = ""; }), "");
    EXPECT_NE(with([](EtcdConfig &c) { c.node = {}; }), "");
    EXPECT_NE(with([](EtcdConfig &c) { c.cert_file = "x"; }), "");
    EXPECT_NE(with([](EtcdConfig &c) { c.ttl = std::chrono::seconds(1); }), "");
    EXPECT_NE(with([](EtcdConfig &c) { c.call_deadline = c.ttl; }), "");
    EXPECT_NE(with([](EtcdConfig &c) { c.predecessor_boot_id = c.boot_id; }), "");
}
