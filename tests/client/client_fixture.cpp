#include "client_fixture.h"

#include <algorithm>
#include <chrono>
#include <poll.h>
#include <utility>

namespace client_test {

ds_client_service_t service(const char *name, const char *instance, std::uint32_t port) {
    ds_client_service_t service{};
    service.size = sizeof service;
    service.name = name;
    service.instance = instance;
    service.scope = DS_CLIENT_SCOPE_LOCAL;
    service.ipv4_address = 0x0a000001;
    service.ipv4_port = port;
    return service;
}

std::string digest(const ds_client_snapshot_t &snapshot) {
    Lines words;
    for (std::size_t i = 0; i < snapshot.instance_count; i++) {
        const ds_client_instance_t &instance = *snapshot.instances[i];
        words.push_back(std::string(instance.instance) + ':' +
                        (instance.path == nullptr ? std::to_string(instance.ipv4_port)
                                                  : std::string(instance.path)));
    }
    std::sort(words.begin(), words.end());
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    if (snapshot.is_reconciling != 0) text += " (reconciling)";
    if (snapshot.is_resynced != 0) text += " (resynced)";
    return text;
}

std::string describe(const ds_publication_info_t &info) {
    const std::string answer =
        info.status == 0 ? "" : " refused " + std::to_string(info.status) + ' ' + info.text;
    switch (info.state) {
    case DS_PUBLICATION_PENDING:
        return "pending" + answer;
    case DS_PUBLICATION_LIVE:
        return "live " + std::to_string(info.service_id) + '/' + std::to_string(info.generation) +
               answer;
    case DS_PUBLICATION_REFUSED:
        return "not live" + answer;
    case DS_PUBLICATION_WITHDRAWING:
        return "withdrawing";
    case DS_PUBLICATION_WITHDRAWN:
        break;
    }
    if (info.by_other == 0) return "withdrawn";
    return "withdrawn by " + std::to_string(info.by_pid) + " of " + std::to_string(info.by_uid);
}

std::string describe(ds_publication_t *publication) {
    ds_publication_info_t info{};
    info.size = sizeof info;
    EXPECT_EQ(ds_client_publication_get_info(publication, &info), DS_CLIENT_OK);
    return describe(info);
}

ClientTest::ClientTest() {
    options_.size = sizeof options_;
    options_.socket = peer_.path().c_str();
    options_.backoff_first_ms = 1;
    options_.backoff_max_ms = 4;
    options_.backoff_seed = 7;
    options_.state_fn = on_state;
    options_.ctx = this;
}

ClientTest::~ClientTest() {
    ds_client_destroy(handle_);
}

void ClientTest::make() {
    ASSERT_EQ(ds_client_create(&options_, &handle_), DS_CLIENT_OK);
}

void ClientTest::connect() {
    make();
    pump();
    peer_.accept();
    peer_.greet();
    pump();
    EXPECT_EQ(taken(), (Lines{"connecting", "connected"}));
}

void ClientTest::reconnect() {
    await([&] { return std::find(told_.begin(), told_.end(), "connecting") != told_.end(); });
    peer_.accept();
    peer_.greet();
    await([&] { return std::find(told_.begin(), told_.end(), "connected") != told_.end(); });
    std::erase_if(told_, [](const std::string &line) { return line.starts_with("connect"); });
}

bool ClientTest::is_readable() const {
    pollfd item{ds_client_fd(handle_), POLLIN, 0};
    return ::poll(&item, 1, 0) == 1;
}

void ClientTest::pump() {
    while (is_readable())
        ASSERT_EQ(ds_client_dispatch(handle_), DS_CLIENT_OK);
}

void ClientTest::await(const std::function<bool()> &is_so) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!is_so()) {
        pollfd item{ds_client_fd(handle_), POLLIN, 0};
        ASSERT_EQ(::poll(&item, 1, 20'000), 1) << "nothing happens";
        ASSERT_EQ(ds_client_dispatch(handle_), DS_CLIENT_OK);
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "it does not become so";
    }
}

void ClientTest::lose_connection() {
    peer_.hang_up();
    await([&] {
        return std::any_of(told_.begin(), told_.end(), [](const std::string &line) {
            return line.starts_with("disconnected");
        });
    });
}

ds_publication_t *ClientTest::publish(const char *name, const char *instance, std::uint32_t port) {
    const ds_client_service_t wanted = service(name, instance, port);
    ds_publication_t *publication = nullptr;
    EXPECT_EQ(ds_client_publish(handle_, &wanted, on_publication, this, &publication),
              DS_CLIENT_OK);
    return publication;
}

ds_registration_t *ClientTest::watch(const char *name) {
    ds_registration_t *registration = nullptr;
    EXPECT_EQ(ds_client_watch(handle_, name, on_snapshot, nullptr, this, &registration),
              DS_CLIENT_OK);
    return registration;
}

ds_registration_t *ClientTest::watch_told(const char *name, const std::string &instances) {
    ds_registration_t *registration = watch(name);
    pump();
    registration_ = peer_.accept_register();
    peer_.send(notify(registration_, snapshot_of(name, instances)));
    pump();
    return registration;
}

Lines ClientTest::taken() {
    return std::exchange(told_, {});
}

void ClientTest::tell(const std::string &line) {
    told_.push_back(line);
    if (on_told_) on_told_(line);
}

void ClientTest::on_state(void *ctx, ds_client_handle_t *, ds_client_state_t state, int error,
                          const char *reason) {
    const char *words[] = {"connecting", "connected", "disconnected"};
    std::string line = words[state];
    if (error != DS_CLIENT_OK) line += ' ' + std::to_string(error) + ' ' + reason;
    static_cast<ClientTest *>(ctx)->tell(line);
}

void ClientTest::on_publication(void *ctx, ds_publication_t *, const ds_publication_info_t *info) {
    static_cast<ClientTest *>(ctx)->tell(describe(*info));
}

void ClientTest::on_snapshot(void *ctx, ds_registration_t *, const ds_client_snapshot_t *snapshot) {
    static_cast<ClientTest *>(ctx)->tell(std::string(snapshot->name) + ": " + digest(*snapshot));
}

} // namespace client_test
