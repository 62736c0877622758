// Every allocation of a conversation fails once: the library tells, and goes on.
#include <poll.h>
#include <utility>

#include "client_fixture.h"
#include "failing_allocations.h"

namespace client_test {
namespace {

// Runs `call` with the allocation of that number failing. True when it failed indeed.
template <class Call> bool with_failure(long number, Call call) {
    allocations_left = number;
    call();
    const bool failed = allocations_left < 0;
    allocations_left = -1;
    return failed;
}

ds_client_options_t options_for(const ScriptedPeer &peer) {
    ds_client_options_t options{};
    options.size = sizeof options;
    options.socket = peer.path().c_str();
    options.backoff_first_ms = options.backoff_max_ms = 1;
    options.backoff_seed = 5;
    return options;
}

TEST(Memory, a_function_that_lacks_memory_says_so_and_has_changed_nothing) {
    ScriptedPeer peer;
    const ds_client_options_t options = options_for(peer);
    ds_client_handle_t *handle = nullptr;
    const ds_client_service_t wanted = service("web", "an instance with a long name", 1);
    int result = DS_CLIENT_OK;

    long number = 0;
    for (; with_failure(number, [&] { result = ds_client_create(&options, &handle); }); number++) {
        EXPECT_EQ(result, DS_CLIENT_ERROR_NO_MEMORY) << number;
        EXPECT_EQ(handle, nullptr);
    }
    EXPECT_EQ(result, DS_CLIENT_OK);
    EXPECT_GT(number, 0);

    const auto publish = [&] {
        result = ds_client_publish(handle, &wanted, nullptr, nullptr, nullptr);
    };
    for (number = 0; with_failure(number, publish); number++)
        EXPECT_EQ(result, DS_CLIENT_ERROR_NO_MEMORY) << number;
    EXPECT_EQ(result, DS_CLIENT_OK);
    EXPECT_GT(number, 3);

    const auto watch = [&] {
        result = ds_client_watch(handle, "a service with a long name", nullptr, nullptr, nullptr,
                                 nullptr);
    };
    for (number = 0; with_failure(number, watch); number++)
        EXPECT_EQ(result, DS_CLIENT_ERROR_NO_MEMORY) << number;
    EXPECT_EQ(result, DS_CLIENT_OK);
    EXPECT_GT(number, 1);
    ds_client_destroy(handle);
}

// One publication and one registration, up to both being answered.
class Conversation {
  public:
    Conversation() {
        const ds_client_options_t options = options_for(peer_);
        const ds_client_service_t wanted = service("web", "an instance with a long name", 1);
        EXPECT_EQ(ds_client_create(&options, &handle_), DS_CLIENT_OK);
        EXPECT_EQ(ds_client_publish(handle_, &wanted, nullptr, nullptr, &publication_),
                  DS_CLIENT_OK);
        EXPECT_EQ(ds_client_watch(handle_, "web", on_snapshot, nullptr, this, nullptr),
                  DS_CLIENT_OK);
    }
    ~Conversation() { ds_client_destroy(handle_); }
    Conversation(const Conversation &) = delete;
    Conversation &operator=(const Conversation &) = delete;

    // The allocation of that number fails, counted within the library only. Returns how many
    // dispatches said so.
    int play(long number) {
        int failures = 0;
        while (describe(publication_) != "live 1/0" || instances_told_ != 2) {
            pollfd item{ds_client_fd(handle_), POLLIN, 0};
            EXPECT_EQ(::poll(&item, 1, 20'000), 1) << "it does not come to an end";
            if (item.revents == 0) break;
            allocations_left = number;
            const int result = ds_client_dispatch(handle_);
            number = std::exchange(allocations_left, -1);
            failures += result == DS_CLIENT_ERROR_NO_MEMORY ? 1 : 0;
            answer();
        }
        return failures;
    }

  private:
    // Connections that the client has given up are left alone.
    void answer() {
        ds_client_info_t info{};
        info.size = sizeof info;
        ds_client_get_info(handle_, &info);
        if (info.state == DS_CLIENT_DISCONNECTED) return;
        const bool is_new = peer_.has_connection();
        while (peer_.has_connection())
            peer_.accept();
        if (is_new) peer_.greet();
        while (peer_.has_request()) {
            const v1::Request request = peer_.read_request();
            v1::Event event = reply_to(request);
            event.mutable_reply()->set_service_id(1);
            event.mutable_reply()->set_handle(1);
            peer_.send(event);
            if (request.has_register_()) peer_.send(notify(request, snapshot_of("web", "a:1 b:2")));
        }
    }
    static void on_snapshot(void *ctx, ds_registration_t *, const ds_client_snapshot_t *snapshot) {
        static_cast<Conversation *>(ctx)->instances_told_ = snapshot->instance_count;
    }

    ScriptedPeer peer_;
    ds_client_handle_t *handle_ = nullptr;
    ds_publication_t *publication_ = nullptr;
    std::size_t instances_told_ = 0;
};

TEST(Memory, a_dispatch_that_lacks_memory_says_so_and_everything_comes_right_later) {
    long number = 0;
    int failures = 1;

    for (; failures == 1 && !testing::Test::HasFailure(); number++)
        failures = Conversation().play(number);

    EXPECT_EQ(failures, 0); // of the first number that is larger than all allocations
    EXPECT_GT(number, 15);
}

} // namespace
} // namespace client_test
