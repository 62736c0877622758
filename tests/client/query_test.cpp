// Queries, and the functions that wait.
#include <csignal>
#include <sys/time.h>

#include "client_fixture.h"

namespace client_test {
namespace {

class QueryTest : public ClientTest {
  protected:
    static void on_reply(void *ctx, const ds_client_reply_t *reply) {
        auto &test = *static_cast<QueryTest *>(ctx);
        std::string line = "reply " + std::to_string(reply->error);
        if (reply->status != 0) line += ' ' + std::to_string(reply->status) + ' ' + reply->text;
        if (reply->names != nullptr) {
            for (std::size_t i = 0; i < reply->names->name_count; i++) {
                const ds_client_snapshot_t &snapshot = *reply->names->names[i];
                line += std::string(" [") + snapshot.name + ": " + digest(snapshot) + ']';
            }
            line += std::string(" next '") + reply->names->next + '\'';
        }
        if (reply->figures != nullptr) line += " pid " + std::to_string(reply->figures->pid);
        if (reply->message != nullptr) {
            v1::Reply message;
            EXPECT_TRUE(
                message.ParseFromArray(reply->message, static_cast<int>(reply->message_bytes)));
            EXPECT_EQ(static_cast<std::uint32_t>(message.status()), reply->status);
        }
        test.told_.push_back(line);
    }
    int status(std::uint64_t *id = nullptr) {
        return ds_client_status(handle_, on_reply, this, id);
    }
};

TEST_F(QueryTest, a_list_is_answered_with_its_names) {
    connect();
    ASSERT_EQ(ds_client_list(handle_, "", "m", 2, on_reply, this, nullptr), DS_CLIENT_OK);
    pump();
    const v1::Request request = peer_.read_request();
    v1::Event event = reply_to(request);
    *event.mutable_reply()->mutable_list()->add_names() = snapshot_of("n", "a:1 b:2");
    *event.mutable_reply()->mutable_list()->add_names() = snapshot_of("o", "c:3");
    event.mutable_reply()->mutable_list()->set_next("o");

    peer_.send(event);
    pump();

    EXPECT_EQ(request.list().after(), "m");
    EXPECT_EQ(request.list().limit(), 2u);
    EXPECT_EQ(taken(), Lines{"reply 0 [n: a:1 b:2] [o: c:3] next 'o'"});
}

TEST_F(QueryTest, the_status_and_a_withdrawal_are_answered_in_their_order) {
    connect();
    ASSERT_EQ(status(), DS_CLIENT_OK);
    ASSERT_EQ(ds_client_withdraw(handle_, "web", 77, on_reply, this, nullptr), DS_CLIENT_OK);
    pump();

    v1::Event event = reply_to(peer_.read_request());
    event.mutable_reply()->mutable_status_info()->set_pid(1234);
    peer_.send(event);
    EXPECT_EQ(peer_.refuse(v1::STATUS_DENIED, "not yours").withdraw().service_id(), 77u);
    pump();

    EXPECT_EQ(taken(), (Lines{"reply 0 pid 1234", "reply -10 3 not yours"}));
}

TEST_F(QueryTest, an_encoded_request_is_passed_on_unless_the_handle_keeps_account_of_its_kind) {
    connect();
    v1::Request query;
    query.mutable_list()->set_name("web");
    const std::string bytes = query.SerializeAsString();
    v1::Request publish;
    publish.mutable_publish()->set_name("web");
    const std::string forbidden = publish.SerializeAsString();

    EXPECT_EQ(ds_client_query(handle_, forbidden.data(), forbidden.size(), on_reply, this, nullptr),
              DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_query(handle_, "\xff\xff", 2, on_reply, this, nullptr),
              DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_query(handle_, bytes.data(), bytes.size(), on_reply, this, nullptr),
              DS_CLIENT_OK);
    pump();

    EXPECT_EQ(peer_.refuse(v1::STATUS_NOT_FOUND, "nobody").list().name(), "web");
    pump();
    EXPECT_EQ(taken(), Lines{"reply -10 2 nobody"});
}

TEST_F(QueryTest, without_connection_nothing_is_asked) {
    make();

    EXPECT_EQ(status(), DS_CLIENT_ERROR_DISCONNECTED);
}

TEST_F(QueryTest, a_loss_ends_unanswered_queries_once) {
    connect();
    ASSERT_EQ(status(), DS_CLIENT_OK);
    pump();
    ASSERT_EQ(status(), DS_CLIENT_OK);

    lose_connection();

    EXPECT_EQ(taken(),
              (Lines{"disconnected -8 the daemon ended the connection", "reply -8", "reply -8"}));
}

TEST_F(QueryTest, a_cancelled_query_is_not_told_and_its_answer_disturbs_nobody) {
    connect();
    std::uint64_t first = 0, second = 0;
    ASSERT_EQ(status(&first), DS_CLIENT_OK);
    pump();
    ASSERT_EQ(status(&second), DS_CLIENT_OK);
    ASSERT_EQ(status(), DS_CLIENT_OK);

    ds_client_cancel(handle_, first);
    ds_client_cancel(handle_, second);
    ds_client_cancel(handle_, 999);
    pump();
    peer_.acknowledge();
    peer_.acknowledge();
    pump();

    EXPECT_EQ(taken(), Lines{"reply 0"});
    EXPECT_FALSE(peer_.has_request());
}

TEST_F(QueryTest, only_so_many_queries_may_be_unanswered) {
    connect();
    for (int i = 0; i < DS_CLIENT_QUERIES_MAX; i++)
        ASSERT_EQ(status(), DS_CLIENT_OK);
    EXPECT_EQ(status(), DS_CLIENT_ERROR_LIMIT);

    pump();
    peer_.acknowledge();
    pump();

    EXPECT_EQ(status(), DS_CLIENT_OK);
    EXPECT_EQ(status(), DS_CLIENT_ERROR_LIMIT);
}

// ---- waiting ----

TEST_F(QueryTest, waiting_ends_when_the_time_is_over) {
    connect();

    EXPECT_EQ(ds_client_wait(handle_, 1), DS_CLIENT_ERROR_TIMEOUT);
    EXPECT_EQ(ds_client_sync(handle_, 0), DS_CLIENT_OK);
    publish("web", "a", 80);
    EXPECT_EQ(ds_client_sync(handle_, 1), DS_CLIENT_ERROR_TIMEOUT);
}

TEST_F(QueryTest, waiting_for_nobody_tells_the_error_when_there_is_no_reconnect) {
    peer_.stop_listening();
    options_.flags = DS_CLIENT_NO_RECONNECT;
    make();

    EXPECT_EQ(ds_client_wait_connected(handle_, 10'000), DS_CLIENT_ERROR_UNREACHABLE);
    EXPECT_EQ(ds_client_sync(handle_, 10'000), DS_CLIENT_ERROR_UNREACHABLE);
}

TEST_F(QueryTest, a_sync_lasts_until_everything_is_answered) {
    connect();
    publish("web", "a", 80);
    watch("web");
    ASSERT_EQ(status(), DS_CLIENT_OK);
    pump();

    peer_.accept_publish(1);
    const v1::Request registration = peer_.accept_register();
    EXPECT_EQ(ds_client_sync(handle_, 1), DS_CLIENT_ERROR_TIMEOUT);
    peer_.send(notify(registration, snapshot_of("web", "")));
    EXPECT_EQ(ds_client_sync(handle_, 1), DS_CLIENT_ERROR_TIMEOUT);
    peer_.acknowledge();
    EXPECT_EQ(ds_client_sync(handle_, 10'000), DS_CLIENT_OK);
}

TEST_F(QueryTest, waiting_for_a_publication_tells_how_it_ended) {
    connect();
    ds_publication_t *accepted = publish("web", "a", 80);
    ds_publication_t *refused = publish("web", "b", 80);
    EXPECT_EQ(ds_client_publication_wait(accepted, 1), DS_CLIENT_ERROR_TIMEOUT);

    peer_.accept_publish(1);
    peer_.refuse(v1::STATUS_DENIED, "no");

    EXPECT_EQ(ds_client_publication_wait(accepted, 10'000), DS_CLIENT_OK);
    EXPECT_EQ(ds_client_publication_wait(refused, 10'000), DS_CLIENT_ERROR_REFUSED);
}

TEST_F(QueryTest, a_publication_that_is_destroyed_while_it_is_waited_for_ends_the_wait) {
    connect();
    ds_publication_t *publication = publish("web", "a", 80);
    pump();
    peer_.accept_publish(1);
    on_told_ = [&](const std::string &) { ds_client_publication_destroy(publication); };

    EXPECT_EQ(ds_client_publication_wait(publication, 10'000), DS_CLIENT_ERROR_WITHDRAWN);
}

TEST_F(QueryTest, a_handle_that_is_destroyed_while_something_is_waited_for_ends_the_wait) {
    connect();
    ds_publication_t *publication = publish("web", "a", 80);
    pump();
    peer_.accept_publish(1);
    on_told_ = [&](const std::string &) { ds_client_destroy(std::exchange(handle_, nullptr)); };

    EXPECT_EQ(ds_client_publication_wait(publication, 10'000), DS_CLIENT_ERROR_DISCONNECTED);
    EXPECT_EQ(handle_, nullptr);
}

TEST_F(QueryTest, a_signal_interrupts_a_wait) {
    connect();
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    itimerval timer{};
    timer.it_value.tv_usec = 1000;
    timer.it_interval.tv_usec = 1000; // in case the first comes before the wait

    ::setitimer(ITIMER_REAL, &timer, nullptr);
    const int result = ds_client_wait(handle_, 10'000);
    timer = {};
    ::setitimer(ITIMER_REAL, &timer, nullptr);

    EXPECT_EQ(result, DS_CLIENT_ERROR_INTERRUPTED);
}

TEST_F(QueryTest, null_is_an_argument_error_or_nothing) {
    ds_client_destroy(nullptr);
    ds_client_publication_destroy(nullptr);
    ds_client_registration_destroy(nullptr);
    ds_client_cancel(nullptr, 1);
    EXPECT_EQ(ds_client_fd(nullptr), -1);
    EXPECT_EQ(ds_client_dispatch(nullptr), DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_wait(nullptr, 0), DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_sync(nullptr, 0), DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_publication_wait(nullptr, 0), DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_publication_withdraw(nullptr), DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_status(nullptr, on_reply, nullptr, nullptr), DS_CLIENT_ERROR_ARGUMENT);
}

} // namespace
} // namespace client_test
