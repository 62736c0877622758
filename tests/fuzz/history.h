// One random history: every step is an operation of the library, done to the model as well. After
// each step the library must have told what the model says; where the input wants it, and at the
// end, all that can be seen of the directory must be the same.
#pragma once
#include "directory_dump.h"
#include "directory_model.h"
#include "harness.h"
#include "input.h"

namespace ds::fuzz {

class History {
  public:
    explicit History(Input &input);
    ~History();
    History(const History &) = delete;
    History &operator=(const History &) = delete;

    void run();

    // Operations. What an input cannot choose, as a service of an empty directory, does nothing.

    // history_clients.cpp
    void add_client();
    void delete_client();
    void discard_client();
    void look_up_clients();
    void add_registration();
    void delete_registration();
    void step_registration();
    void notify_all();
    void notify_one();
    void prepare_message();

    // history_services.cpp
    void publish();
    void publish_for_relay();
    void withdraw();
    void take_down();
    void step_element();
    void step_service();
    void update_service();
    void delete_service();
    void find_service();
    void compare_endpoints();

    // history_relay.cpp
    void receive_publication();
    void receive_deletion();
    void connect();
    void disconnect();
    void peer_down();
    void node_down();
    void mark_remote_services();
    void send_to_relay();
    void open_own_period();
    void expire_own_period();
    void expire_relay_period();
    void finalize();

    // history_reading.cpp
    void dump();
    void count_names();
    void walk();
    void trace();
    void compare();

  private:
    // A service or registration, in both directories. Null when there is none.
    struct ChosenService {
        std::string name;
        ds_service_t *record = nullptr;
        ServiceState *state = nullptr;
    };
    struct ChosenRegistration {
        std::string name;
        ds_client_reg_t *record = nullptr;
        RegistrationState *state = nullptr;
    };

    ChosenService some_service();
    ChosenRegistration some_registration();
    ds_client_t *some_client(); // null when there is none
    ds_service_elem_t *element(const std::string &name);
    std::string some_name();
    std::optional<std::string> some_instance();
    std::uint32_t some_pid();
    ds_node_t *some_node() { return harness_.nodes()[in_.below(node_count)]; }
    Target some_target();
    Endpoints some_endpoints(const Target &target);
    void receive(std::uint32_t operation);
    std::uint64_t next_cookie() { return ++last_cookie_ << 32 | 1; }

    void compare_events();

    Input &in_;
    Harness &harness_;
    DirectoryModel model_;
    std::uint64_t last_cookie_ = 0;
};

} // namespace ds::fuzz
