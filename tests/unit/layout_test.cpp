// Sizes and field places that hosts and dump readers rely on. All of it is checked while compiling.
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "ds_internal.h"

namespace {

// ---- whole records ----

static_assert(sizeof(void *) == 8 && sizeof(long) == 8, "64-bit platform");
static_assert(sizeof(ds_globals_t) == 48 * 8);
static_assert(sizeof(ds_service_info_t) == 64);
static_assert(sizeof(ds_service_publish_info) == 32);
static_assert(sizeof(ds_notif_msg) == 48);
static_assert(sizeof(ds_service_key_t) == 48);
static_assert(sizeof(ds_service_attr_t) == 24);
static_assert(sizeof(ds_service_attrs_t) == 16);
static_assert(sizeof(ds_dump_selem_info) == 128);
static_assert(sizeof(ds_dump_service_info) == 128);
static_assert(sizeof(ds_dump_client_info) == 80);
static_assert(sizeof(ds_dump_resp_info) == 160);
static_assert(sizeof(vidl_ds_client_reg_entry) == 48);
static_assert(sizeof(ds_dump_walk_ctx) == 56);
static_assert(sizeof(zul_msg_rec_t) == 9 * 8, "nine 64-bit words");
static_assert(sizeof(ds_node_t::name) == 18);
static_assert(sizeof(ds_client_t::name) == 256);
static_assert(sizeof(ds_dsr_service_ref_t) == 8, "two 32-bit words");

// ---- presence masks: one bit per field ----

template <typename Record, size_t fields>
constexpr bool mask_fits = sizeof(Record::presence) == (fields + 7) / 8;

static_assert(mask_fits<ds_service_attr_t, DS_ATTR_NFIELDS>);
static_assert(mask_fits<ds_service_attrs_t, DS_ATTRS_NFIELDS>);
static_assert(mask_fits<ds_service_info_t, DS_SINFO_NFIELDS> && DS_SINFO_NFIELDS == 5);
static_assert(mask_fits<ds_service_publish_info, DS_PINFO_NFIELDS> && DS_PINFO_NFIELDS == 3);
static_assert(mask_fits<ds_notif_msg, DS_NOTIF_NFIELDS> && DS_NOTIF_NFIELDS == 3);
static_assert(mask_fits<ds_service_key_t, DS_KEY_NFIELDS> && DS_KEY_NFIELDS == 5);
static_assert(mask_fits<vidl_ds_client_reg_entry, DS_REGE_NFIELDS> && DS_REGE_NFIELDS == 6);
static_assert(mask_fits<ds_dump_service_info, DS_DSVC_NFIELDS> && DS_DSVC_NFIELDS == 13);
static_assert(mask_fits<ds_dump_selem_info, DS_DSEL_NFIELDS> && DS_DSEL_NFIELDS == 19);
static_assert(mask_fits<ds_dump_client_info, DS_DCLI_NFIELDS> && DS_DCLI_NFIELDS == 11);
static_assert(mask_fits<ds_dump_resp_info, DS_RESP_NFIELDS> && DS_RESP_NFIELDS == 26);
static_assert(DS_KEY_BIT_INSTANCE == 4);
static_assert(DS_RESP_BIT_SELEM_INFOS == 4 && DS_RESP_BIT_LOCAL_SERVICES_UPDATED == 12 &&
              DS_RESP_BIT_LOCAL_SERVICES_DELETED == 14 && DS_RESP_BIT_RELAY_UPDATES_SENT == 19 &&
              DS_RESP_BIT_REQUEST_FLAGS == 25);

// ---- marshalled records ----

static_assert(offsetof(ds_service_publish_info, presence) == 28 &&
                  offsetof(ds_service_publish_info, held) == 29 &&
                  offsetof(ds_service_publish_info, borrowed) == 30,
              "the marker bytes follow the presence mask");
static_assert(offsetof(ds_notif_msg, publish_info) == 0, "the message is its publish info");
static_assert(offsetof(ds_notif_msg, reg_cookie) == 32 &&
              offsetof(ds_notif_msg, reg_handle) == 40 && offsetof(ds_notif_msg, presence) == 44);
static_assert(offsetof(ds_service_info_t, scope) == 24 &&
              offsetof(ds_service_info_t, attrs) == 32 &&
              offsetof(ds_service_info_t, instance) == 48 &&
              offsetof(ds_service_info_t, presence) == 56);
static_assert(offsetof(ds_dump_client_info, service_infos_count) == 40 &&
                  offsetof(ds_dump_client_info, services_published) == 44 &&
                  offsetof(ds_dump_client_info, last_activity_time) == 56 &&
                  offsetof(ds_dump_client_info, presence) == 76,
              "counts pack against the fields behind them");
static_assert(offsetof(ds_dump_selem_info, last_add_time) == 40 &&
              offsetof(ds_dump_selem_info, local_services_added) == 80 &&
              offsetof(ds_dump_selem_info, relay_updates_sent) == 120 &&
              offsetof(ds_dump_selem_info, presence) == 124);
static_assert(offsetof(ds_dump_service_info, service_id) == 80 &&
              offsetof(ds_dump_service_info, pid) == 84 &&
              offsetof(ds_dump_service_info, proc_id) == 88 &&
              offsetof(ds_dump_service_info, added_time) == 96 &&
              offsetof(ds_dump_service_info, presence) == 120);
static_assert(offsetof(vidl_ds_client_reg_entry, presence) == 44);
static_assert(offsetof(ds_dump_resp_info, clients_added) == 60 &&
              offsetof(ds_dump_resp_info, last_client_add_time) == 72 &&
              offsetof(ds_dump_resp_info, request_flags) == 148 &&
              offsetof(ds_dump_resp_info, presence) == 152);

// ---- records of the database ----

static_assert(offsetof(ds_service_elem_t, tree_link) == 0, "an element is its tree node");
static_assert(offsetof(ds_node_t, name) == 8);
static_assert(offsetof(ds_service_elem_t, relay_updates_sent) ==
              offsetof(ds_service_elem_t, remote_change_count) + 4);
static_assert(offsetof(ds_service_t, last_relay_send_time) ==
              offsetof(ds_service_t, update_time) + 8);
static_assert(offsetof(ds_client_reg_t, last_notif_time) ==
                  offsetof(ds_client_reg_t, created_time) + 8 &&
              offsetof(ds_client_reg_t, nnotifs) == offsetof(ds_client_reg_t, last_notif_time) + 8);
static_assert(offsetof(ds_client_reg_t, creg_ver) > offsetof(ds_client_reg_t, handle) &&
              offsetof(ds_client_reg_t, name_hash) > offsetof(ds_client_reg_t, nnotifs));
static_assert(offsetof(ds_client_t, nnotifs) == offsetof(ds_client_t, last_activity_time) + 8);

constexpr size_t context_counters = offsetof(ds_db_t, registrations_deleted);
static_assert(offsetof(ds_db_t, nnotifs) == context_counters + 4);
static_assert(offsetof(ds_db_t, relay_updates_sent) == context_counters + 8);
static_assert(offsetof(ds_db_t, relay_adds_sent) == context_counters + 12);
static_assert(offsetof(ds_db_t, relay_deletes_sent) == context_counters + 16);
static_assert(offsetof(ds_db_t, relay_modifies_sent) == context_counters + 20);
static_assert(offsetof(ds_db_t, relay_updates_received) == context_counters + 24);
static_assert(offsetof(ds_db_t, relay_spare_counter) == context_counters + 28);

template <typename Record>
constexpr bool is_plain = std::is_trivial_v<Record> &&std::is_standard_layout_v<Record>;
static_assert(is_plain<ds_db_t> && is_plain<ds_node_t> && is_plain<ds_client_t> &&
              is_plain<ds_service_elem_t> && is_plain<ds_service_t> && is_plain<ds_client_reg_t>);

} // namespace

TEST(LayoutTest, the_writers_and_walkers_fit_the_iterators_without_a_cast) {
    const ds_service_iter_fn service_writer = trace_service_info;
    const ds_client_reg_iter_fn registration_writer = trace_client_reg_info;
    const avl_walk_fn walkers[] = {ds_db_mark_remote_services, ds_db_resolve_service_element};

    EXPECT_NE(service_writer, nullptr);
    EXPECT_NE(registration_writer, nullptr);
    EXPECT_NE(walkers[0], walkers[1]);
}

TEST(LayoutTest, setting_and_clearing_a_presence_bit_touches_that_bit_only) {
    ds_dump_selem_info record;
    VIDL_CLEAR(&record);

    VIDL_SET(&record, relay_updates_sent, DS_DSEL_BIT_RELAY_UPDATES_SENT, 5u);
    VIDL_SET_ARRAY(&record, reg_entries, DS_DSEL_BIT_REG_ENTRIES, nullptr, 0u);

    EXPECT_EQ(record.presence[0], 1u << DS_DSEL_BIT_REG_ENTRIES);
    EXPECT_EQ(record.presence[1], 0);
    EXPECT_EQ(record.presence[2], 1u << (DS_DSEL_BIT_RELAY_UPDATES_SENT - 16));
    VIDL_CLR_BIT(&record, DS_DSEL_BIT_RELAY_UPDATES_SENT);
    EXPECT_EQ(record.presence[2], 0);
    EXPECT_TRUE(VIDL_PRESENT(&record, DS_DSEL_BIT_REG_ENTRIES));
    EXPECT_EQ(record.relay_updates_sent, 5u);
}
