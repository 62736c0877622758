#include "library_test.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "database_validator.h"
#include "expected_log_points.h"

namespace {

// The callbacks are plain functions; the fixture that runs is the only one.
LibraryTest *current;

// Opens the fixture to the callbacks without making its members public.
struct Host : LibraryTest {
    static std::vector<SentMessage> &sent_by(LibraryTest *test) { return test->*(&Host::sent); }
    static auto &pids_of(LibraryTest *test) { return test->*(&Host::pids); }
    static auto &paths_of(LibraryTest *test) { return test->*(&Host::paths); }
    static uint32_t &pid_depth(LibraryTest *test) { return test->*(&Host::lock_depth_at_pid); }
    static uint32_t &name_depth(LibraryTest *test) { return test->*(&Host::lock_depth_at_name); }
    void TestBody() override {}
};

std::string text_or_empty(const char *text) {
    return text == nullptr ? "" : text;
}

void copy_info(SentMessage &message, const ds_service_publish_info &info) {
    message.name = text_or_empty(info.service_name);
    message.info_presence = info.presence[0];
    message.has_entries_array = info.entries != nullptr;
    for (uint32_t index = 0; info.entries != nullptr && index < info.entries_count; ++index) {
        const ds_service_info_t &entry = info.entries[index];
        SentMessage::Entry copy{};
        copy.ep_type = entry.ep_type;
        if (entry.ep_addr != nullptr)
            copy.ep_addr.assign(entry.ep_addr, entry.ep_addr + entry.ep_addr_len);
        copy.ep_addr_pointer = entry.ep_addr;
        copy.scope = entry.scope;
        copy.attrs_count = entry.attrs_count;
        copy.instance = text_or_empty(entry.instance);
        copy.presence = entry.presence[0];
        message.entries.push_back(std::move(copy));
    }
}

std::string summary(const SentMessage &message) {
    return message.name + ", " + std::to_string(message.entries.size()) + " entries";
}

int on_notify(ds_service_elem_t *selem, ds_service_publish_info *info) {
    const auto *whole = reinterpret_cast<const ds_notif_msg *>(info);
    SentMessage message{};
    message.slot = DS_GLOBAL_SLOT_NOTIFY_HOOK;
    message.selem = selem;
    message.address = info;
    message.reg_handle = whole->reg_handle;
    message.reg_cookie = whole->reg_cookie;
    message.message_presence = whole->presence[0];
    copy_info(message, *info);
    recording::note("slot41(" + summary(message) + ")");
    Host::sent_by(current).push_back(std::move(message));
    return 41; // the library ignores it
}

int on_message(uint32_t slot, uint64_t client_hdl, const ds_notif_msg *whole) {
    SentMessage message{};
    message.slot = slot;
    message.client_hdl = client_hdl;
    message.address = whole;
    message.reg_handle = whole->reg_handle;
    message.reg_cookie = whole->reg_cookie;
    message.message_presence = whole->presence[0];
    copy_info(message, whole->publish_info);
    std::ostringstream line;
    line << "slot" << slot << "(0x" << std::hex << client_hdl << std::dec << ", handle "
         << message.reg_handle << ", " << summary(message) << ")";
    recording::note(line.str());
    Host::sent_by(current).push_back(std::move(message));
    return -44; // the library ignores it
}

int on_client_send(uint64_t client_hdl, ds_notif_msg *message) {
    return on_message(DS_GLOBAL_SLOT_CLIENT_SEND, client_hdl, message);
}

int on_client_delete(uint64_t client_hdl, ds_notif_msg *message) {
    return on_message(DS_GLOBAL_SLOT_CLIENT_DELETE, client_hdl, message);
}

std::string handle_text(uint64_t client_hdl) {
    std::ostringstream text;
    text << "0x" << std::hex << client_hdl;
    return text.str();
}

long on_client_pid(uint64_t client_hdl) {
    recording::note("slot46(" + handle_text(client_hdl) + ")");
    Host::pid_depth(current) = recording::lock_depth();
    const auto &pids = Host::pids_of(current);
    const auto found = pids.find(client_hdl);
    return found == pids.end() ? 0 : found->second;
}

const char *on_client_name(uint64_t client_hdl) {
    recording::note("slot47(" + handle_text(client_hdl) + ")");
    Host::name_depth(current) = recording::lock_depth();
    const auto &paths = Host::paths_of(current);
    const auto found = paths.find(client_hdl);
    return found == paths.end() ? nullptr : found->second.c_str();
}

template <typename Function> uint64_t slot_value(Function *function) {
    return reinterpret_cast<uint64_t>(function);
}

void name_members_of_records() {
    using recording::name_members;
    name_members("client", {{offsetof(ds_client_t, client_link), "client_link"},
                            {offsetof(ds_client_t, reg_list), "reg_list"},
                            {offsetof(ds_client_t, service_list), "service_list"}});
    name_members("selem", {{offsetof(ds_service_elem_t, service_list), "service_list"},
                           {offsetof(ds_service_elem_t, reg_list), "reg_list"}});
    name_members("service", {{offsetof(ds_service_t, selem_link), "selem_link"},
                             {offsetof(ds_service_t, client_link), "client_link"}});
    name_members("reg", {{offsetof(ds_client_reg_t, selem_link), "selem_link"},
                         {offsetof(ds_client_reg_t, client_link), "client_link"}});
    name_members("db", {{offsetof(ds_db_t, selem_tree), "selem_tree"},
                        {offsetof(ds_db_t, client_list), "client_list"},
                        {offsetof(ds_db_t, node_table), "node_table"}});
}

// Prints at the end of a test program which log points fired in it.
class FiredPoints : public ::testing::Environment {
  public:
    void TearDown() override { printf("%s\n", recording::fired_summary().c_str()); }
};
const ::testing::Environment *const fired_points =
    ::testing::AddGlobalTestEnvironment(new FiredPoints);

} // namespace

LibraryTest::LibraryTest() = default;
LibraryTest::~LibraryTest() = default;

ds_db_t *LibraryTest::db() const {
    return reinterpret_cast<ds_db_t *>(globals.slot[DS_GLOBAL_SLOT_DB]);
}

void LibraryTest::forget_database() {
    globals.slot[DS_GLOBAL_SLOT_DB] = 0;
}

void LibraryTest::restore_database() {
    globals.slot[DS_GLOBAL_SLOT_DB] = reinterpret_cast<uint64_t>(database_);
}

void LibraryTest::SetUp() {
    current = this;
    recording::reset();
    name_members_of_records();
    std::fill(std::begin(ds_lib_rtrace), std::end(ds_lib_rtrace), nullptr);
    fill_globals();
    ds_globals_set(&globals);
    ASSERT_EQ(ds_server_lib_init(nullptr), 0);
    ASSERT_EQ(ds_db_init(), 0);
    database_ = db();
    ASSERT_NE(database_, nullptr);
    recording::name(database_, sizeof *database_, "db");
    local_node = new_node(0xff);
    ASSERT_NE(local_node, nullptr);
    globals.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = reinterpret_cast<uint64_t>(local_node);
    recording::name(local_node, sizeof *local_node, "local_node");
    recording::clear_calls();
}

void LibraryTest::fill_globals() {
    globals = ds_globals_t{};
    globals.slot[DS_GLOBAL_SLOT_NOTIFY_HOOK] = slot_value(on_notify);
    globals.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = slot_value(on_client_send);
    globals.slot[DS_GLOBAL_SLOT_CLIENT_DELETE] = slot_value(on_client_delete);
    globals.slot[DS_GLOBAL_SLOT_CLIENT_PID] = slot_value(on_client_pid);
    globals.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = slot_value(on_client_name);
}

void LibraryTest::TearDown() {
    close_console();
    restore_database();
    check_log_points();
    EXPECT_EQ(recording::lock_depth(), 0u) << "the library returned with its mutex locked";
    if (!expects_misuse_) {
        EXPECT_EQ(recording::joined(recording::misuses()), "");
    }
    if (database_ != nullptr && !HasFatalFailure()) {
        if (!expects_invalid_database_) {
            EXPECT_EQ(recording::joined(validate(database_)), "");
        }
        if (!expects_leaks_ && !expects_invalid_database_) check_reach();
    }
    ds_globals_set(nullptr);
    std::fill(std::begin(ds_lib_rtrace), std::end(ds_lib_rtrace), nullptr);
    recording::reset();
}

void LibraryTest::check_log_points() const {
    for (const recording::Trace &trace : recording::all_traces())
        EXPECT_EQ(difference_from_expected(trace), "") << "log point " << trace.id;
}

void LibraryTest::check_reach() {
    free_owned_infos();
    const std::set<const void *> reachable = reachable_memory(database_);
    for (const recording::Allocation &block : recording::allocations())
        EXPECT_EQ(reachable.count(block.memory), 1u)
            << "leaked " << block.size << " bytes, allocation " << block.serial;
    for (const recording::LiveRecord &record : recording::live_records())
        EXPECT_EQ(reachable.count(record.memory), 1u)
            << "leaked " << recording::name_of(record.memory);
}

void LibraryTest::free_owned_infos() {
    for (const OwnedInfo &owned : owned_infos_)
        if (recording::is_live(owned.info, owned.serial) && owned.info->held == 0)
            free_publish_info(owned.info);
    owned_infos_.clear();
}

ds_client_t *LibraryTest::new_unlisted_client(uint64_t client_hdl, long pid,
                                              const std::string &name) {
    ds_client_t *client = nullptr;
    EXPECT_EQ(ds_db_init_client(&client), 0);
    client->client_hdl = client_hdl;
    snprintf(client->name, sizeof client->name, "%s", name.c_str());
    pids[client_hdl] = pid;
    return client;
}

ds_client_t *LibraryTest::new_client(uint64_t client_hdl, long pid, const std::string &name) {
    ds_client_t *client = new_unlisted_client(client_hdl, pid, name);
    EXPECT_EQ(ds_db_add_client(client), 0);
    return client;
}

ds_node_t *LibraryTest::new_node(uint8_t last_octet) {
    const uint8_t address[6] = {2, 0, 0, 0, 0, last_octet};
    return reinterpret_cast<ds_node_t *>(platform_get_nodeid_from_ethaddr(address));
}

ds_service_elem_t *LibraryTest::new_element(const std::string &name) {
    ds_service_elem_t *selem = nullptr;
    EXPECT_EQ(ds_db_init_service_element(name.c_str(), &selem), 0);
    EXPECT_EQ(ds_db_add_service_element(selem), 0);
    return selem;
}

ds_service_t *LibraryTest::new_service(ds_service_elem_t *selem, const PublishInfoBuilder &info,
                                       ds_client_t *client, ds_node_t *node, uint32_t proc_id,
                                       uint32_t service_id) {
    if (proc_id == 0 && client != nullptr) proc_id = client->client_idx;
    if (node == nullptr) node = local_node;
    ds_service_t *service = nullptr;
    EXPECT_EQ(ds_db_init_service(proc_id, node, new_info(info), selem->name_hash, &service, client,
                                 selem, service_id),
              0);
    EXPECT_EQ(ds_db_add_service(service, client), 0);
    return service;
}

ds_client_reg_t *LibraryTest::new_registration(ds_client_t *client, ds_service_elem_t *selem,
                                               uint64_t reg_arg) {
    ds_client_reg_t *reg = nullptr;
    EXPECT_EQ(ds_db_init_client_registration(client, selem->name, reg_arg, &reg), 0);
    EXPECT_EQ(ds_db_add_client_registration(reg, client, selem), 0);
    return reg;
}

ds_service_publish_info *LibraryTest::new_info(const PublishInfoBuilder &info) {
    ds_service_publish_info *built = info.build();
    owned_infos_.push_back({built, recording::serial_of(built)});
    return built;
}

void LibraryTest::open_console() {
    close_console();
    console_ = open_memstream(&console_text_, &console_size_);
    globals.slot[DS_GLOBAL_SLOT_CONSOLE] = reinterpret_cast<uint64_t>(console_);
}

void LibraryTest::close_console() {
    globals.slot[DS_GLOBAL_SLOT_CONSOLE] = 0;
    if (console_ == nullptr) return;
    fclose(console_);
    free(console_text_);
    console_ = nullptr;
    console_text_ = nullptr;
}

std::string LibraryTest::console() {
    if (console_ == nullptr) return "";
    fflush(console_);
    return {console_text_, console_size_};
}

void LibraryTest::clear_console() {
    open_console();
}
