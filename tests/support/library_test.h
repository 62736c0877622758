// The fixture of the library's unit tests: a fresh global block and database on the recording
// platform, a host whose callbacks write into the same log, and makers of every kind of record.
//
// After each test the fixture checks that no platform contract was broken, that every trace record
// is the one its log point promises, that the database is consistent (database_validator.h) and
// that no memory and no record is out of reach. A test that leaves one of these on purpose says so
// with the expect_ functions.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "ds_internal.h"
#include "ds_server_lib.h"
#include "publish_info_builder.h"
#include "recording.h"

using recording::Lines;

// A deep copy of one message as a callback saw it.
struct SentMessage {
    uint32_t slot; // 41, 44 or 45
    uint64_t client_hdl;
    const void *address;      // of the message; never read
    ds_service_elem_t *selem; // slot 41 only
    std::string name;
    uint32_t reg_handle;
    uint64_t reg_cookie;
    uint8_t message_presence;
    uint8_t info_presence;
    bool has_entries_array;
    struct Entry {
        uint32_t ep_type;
        std::vector<uint8_t> ep_addr;
        const void *ep_addr_pointer;
        uint32_t scope;
        uint32_t attrs_count;
        std::string instance;
        uint8_t presence;
    };
    std::vector<Entry> entries;
};

class LibraryTest : public ::testing::Test {
  protected:
    LibraryTest();
    ~LibraryTest() override;
    void SetUp() override;
    void TearDown() override;

    // ---- the world ----

    ds_globals_t globals{};
    ds_node_t *local_node = nullptr;
    ds_db_t *db() const;
    // Installs an empty block: no database, no callbacks. The old database stays reachable
    // through database().
    ds_db_t *database() const { return database_; }
    void forget_database();  // slot 14 = 0
    void restore_database(); // slot 14 = the fixture's database

    // ---- makers ----

    ds_client_t *new_client(uint64_t client_hdl, long pid, const std::string &name = "agent");
    ds_client_t *new_unlisted_client(uint64_t client_hdl, long pid, const std::string &name);
    ds_node_t *new_node(uint8_t last_octet); // 02:00:00:00:00:xx, the local node has ff
    ds_service_elem_t *new_element(const std::string &name);
    ds_service_t *new_service(ds_service_elem_t *selem, const PublishInfoBuilder &info,
                              ds_client_t *client = nullptr, ds_node_t *node = nullptr,
                              uint32_t proc_id = 0, uint32_t service_id = 0);
    ds_client_reg_t *new_registration(ds_client_t *client, ds_service_elem_t *selem,
                                      uint64_t reg_arg = 0);
    // An info that the test owns until a record holds it; freed by the fixture when none did.
    ds_service_publish_info *new_info(const PublishInfoBuilder &info);
    // A node reference that names no record, as the library hands out when memory is short.
    static ds_node_t *unrecorded_node(uintptr_t id) { return reinterpret_cast<ds_node_t *>(id); }

    // ---- host ----

    std::vector<SentMessage> sent;         // slots 41, 44 and 45, in order
    std::map<uint64_t, long> pids;         // slot 46, by client handle
    std::map<uint64_t, std::string> paths; // slot 47; a missing handle answers null
    uint32_t lock_depth_at_pid = 0;        // mutexes held when slot 46 ran last
    uint32_t lock_depth_at_name = 0;

    // ---- console ----

    void open_console(); // sets slot 16
    void close_console();
    std::string console(); // everything written so far
    void clear_console();

    // ---- checks ----

    Lines call_order(recording::Prefixes prefixes) const { return recording::calls_with(prefixes); }
    void expect_leaks() { expects_leaks_ = true; }
    void expect_invalid_database() { expects_invalid_database_ = true; }
    void expect_misuse() { expects_misuse_ = true; }

  private:
    struct OwnedInfo {
        ds_service_publish_info *info;
        uint64_t serial;
    };
    void fill_globals();
    void check_log_points() const;
    void check_reach();
    void free_owned_infos();

    ds_db_t *database_ = nullptr;
    std::vector<OwnedInfo> owned_infos_;
    FILE *console_ = nullptr;
    char *console_text_ = nullptr;
    size_t console_size_ = 0;
    bool expects_leaks_ = false;
    bool expects_invalid_database_ = false;
    bool expects_misuse_ = false;
};
