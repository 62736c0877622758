// A client handle beside a scripted peer. What the callbacks are told is gathered as lines.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ds_client.h"
#include "scripted_peer.h"

namespace client_test {

using Lines = std::vector<std::string>;

ds_client_service_t service(const char *name, const char *instance, std::uint32_t port);

// "instance:port" or "instance:path", sorted, joined by blanks; with " (reconciling)" or
// " (resynced)" behind.
std::string digest(const ds_client_snapshot_t &snapshot);

// "pending", "live ID/GENERATION", "refused STATUS text", ...
std::string describe(const ds_publication_info_t &info);
std::string describe(ds_publication_t *publication);

class ClientTest : public testing::Test {
  protected:
    ClientTest();
    ~ClientTest() override;

    // Before make(): waits of 1 to 4 ms with a fixed seed unless a test says otherwise.
    void make();
    void connect();   // make() and up to the peer's answer to the greeting
    void reconnect(); // after a loss, up to the same

    bool is_readable() const;
    void pump(); // dispatches for as long as there is something to do at once
    // Dispatches until it is so; fails the test when it does not become so.
    void await(const std::function<bool()> &is_so);
    void lose_connection(); // by the peer

    ds_publication_t *publish(const char *name, const char *instance, std::uint32_t port);
    ds_registration_t *watch(const char *name);
    // Both with the peer's answer.
    ds_registration_t *watch_told(const char *name, const std::string &instances);
    // What was told since the last call.
    Lines taken();

    ScriptedPeer peer_;
    ds_client_options_t options_{};
    ds_client_handle_t *handle_ = nullptr;
    Lines told_;
    v1::Request registration_;                         // the newest of watch_told() and restore()
    std::function<void(const std::string &)> on_told_; // called within the callbacks

  private:
    static void on_state(void *ctx, ds_client_handle_t *, ds_client_state_t state, int error,
                         const char *reason);
    static void on_publication(void *ctx, ds_publication_t *, const ds_publication_info_t *info);
    static void on_snapshot(void *ctx, ds_registration_t *, const ds_client_snapshot_t *snapshot);
    void tell(const std::string &line);
};

} // namespace client_test
