#include "harness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "input.h"
#include "structure.h"

namespace ds::fuzz {

namespace {

constexpr std::uint32_t endless_s = 1'000'000; // timers expire when an input says so

std::uint64_t now_ns(void *) {
    return 0;
}

void ignore_arm(void *, mgd_timer_t *, std::uint64_t) {}

void ignore_disarm(void *, mgd_timer_t *) {}

void settle(void *, mgd_timer_t *, std::uint64_t) {
    ds_db_finalize_restart();
}

// Two clients a process: such stand together in the client list. Never 1.
long process_of(std::uint64_t client) {
    return static_cast<long>(100 + client / 2);
}

const char *name_of(std::uint64_t client) {
    return client % 2 == 0 ? "/usr/bin/even" : "odd";
}

template <typename Function> std::uint64_t slot_value(Function *function) {
    return reinterpret_cast<std::uint64_t>(function);
}

mgd_timer_t *timer_in(std::uint64_t slot) {
    return reinterpret_cast<mgd_timer_t *>(slot);
}

char *text_copy(const char *text) {
    return static_cast<char *>(memdup(text, std::strlen(text) + 1));
}

} // namespace

std::string entry_text(const ds_service_info_t &entry) {
    std::string text = std::to_string(entry.scope) + '/';
    if (VIDL_PRESENT(&entry, DS_SINFO_BIT_INSTANCE)) text += std::string("'") + entry.instance;
    text += '/';
    for (std::uint64_t i = 0; i < entry.ep_addr_len; i++) {
        std::array<char, 4> hex;
        std::snprintf(hex.data(), hex.size(), "%02x", entry.ep_addr[i]);
        text += hex.data();
    }
    return text;
}

Harness &Harness::instance() {
    static Harness harness;
    return harness;
}

Harness::Harness() {
    require(ds_server_lib_init(nullptr) == 0, "the trace channels cannot be opened");
    const mgd_timer_loop_t loop = {nullptr, now_ns, ignore_arm, ignore_disarm, settle};
    block_.slot[DS_GLOBAL_SLOT_TIMER_PARENT] = slot_value(mgd_timer_parent_new(&loop));
    block_.slot[DS_GLOBAL_SLOT_CONSOLE] = slot_value(std::fopen("/dev/null", "we"));
    block_.slot[DS_GLOBAL_SLOT_NOTIFY_HOOK] = slot_value(on_hook);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = slot_value(on_send);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_DELETE] = slot_value(on_delete);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_PID] = slot_value(process_of);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = slot_value(name_of);
    ds_globals_set(&block_);
    require(ds_db_init() == 0, "the database cannot be made");
    local_node_ =
        reinterpret_cast<ds_node_t *>(platform_get_nodeid_from_ethaddr(local_address.data()));
    block_.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = slot_value(local_node_);
    dsr_set_sender(on_relay_send, this);
}

ds_db_t *Harness::database() const {
    return reinterpret_cast<ds_db_t *>(block_.slot[DS_GLOBAL_SLOT_DB]);
}

void Harness::reset() {
    release_timer(DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
    release_timer(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
    block_.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED] = 0;
    while (ds_client_t *client = ds_client_get_client_list_head())
        delete_client(client);
    const auto take_down = [](ds_service_t *service, void *) -> void * {
        ds_db_handle_service_down(service, nullptr);
        return nullptr;
    };
    ds_db_services_iter(take_down, nullptr);
    while (avl_node_t *node = avl_get_first(&database()->selem_tree))
        ds_db_delete_service_element(reinterpret_cast<ds_service_elem_t *>(node));
    check_structure();
    told.clear();
    sent.clear();
    last_client_ = 0;
}

void Harness::check_structure() const {
    require(!deletion_is_pending_, "a deletion was announced and never sent");
    fuzz::check_structure(database());
}

ds_client_t *Harness::add_client() {
    ds_client_t *client = nullptr;
    require(ds_db_init_client(&client) == 0, "no client record");
    client->client_hdl = ++last_client_;
    require(ds_db_add_client(client) == 0, "a client was refused");
    require(client->client_idx > last_index_, "a client index came again");
    last_index_ = client->client_idx;
    return client;
}

void Harness::delete_client(ds_client_t *client) {
    const std::uint64_t handle = client->client_hdl;
    require(ds_db_delete_client(client) == 0, "a client could not be deleted");
    require(ds_db_find_client_by_client_hdl(handle) == nullptr, "a deleted client is found");
    std::erase_if(told, [&](const auto &pair) { return pair.first.first == handle; });
}

// ---- callbacks ----

int Harness::on_hook(ds_service_elem_t *selem, ds_service_publish_info *info) {
    require(std::strcmp(selem->name, info->service_name) == 0, "the hook's info has another name");
    return 0;
}

int Harness::on_send(std::uint64_t client, ds_notif_msg *message) {
    Harness &self = instance();
    const ds_service_publish_info &info = message->publish_info;
    Told told;
    told.name = info.service_name;
    told.cookie = message->reg_cookie;
    for (std::uint32_t i = 0; i < info.entries_count; i++)
        told.entries.push_back(entry_text(info.entries[i]));
    require(told.entries.empty() == self.deletion_is_pending_,
            "an empty message without an announced deletion, or the other way round");
    self.deletion_is_pending_ = false;
    self.told[{client, message->reg_handle}] = std::move(told);
    return 0;
}

int Harness::on_delete(std::uint64_t, ds_notif_msg *) {
    require(!instance().deletion_is_pending_, "two deletions without a message");
    instance().deletion_is_pending_ = true;
    return 0;
}

int Harness::on_relay_send(void *context, const dsr_update_t *update) {
    auto *self = static_cast<Harness *>(context);
    self->sent.push_back({update->operation, update->service_name, update->version});
    return 0;
}

// ---- restart periods ----

void Harness::open_own_period() {
    release_timer(DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
    mgd_timer_t *timer =
        mgd_timer_leaf_new(timer_in(block_.slot[DS_GLOBAL_SLOT_TIMER_PARENT]), 0, 0, 0);
    mgd_timer_leaf_start(timer, {endless_s, 0});
    block_.slot[DS_GLOBAL_SLOT_OWN_RESTART_TIMER] = slot_value(timer);
}

void Harness::disconnect_relay() {
    release_timer(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
    require(dsr_disconn_cb() == 0, "the relay's departure failed");
}

void Harness::expire_own_period() {
    expire(DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
}

void Harness::expire_relay_period() {
    expire(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
}

bool Harness::is_period_open() const {
    for (const auto slot : {DS_GLOBAL_SLOT_OWN_RESTART_TIMER, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER})
        if (block_.slot[slot] != 0 && mgd_timer_leaf_running(timer_in(block_.slot[slot])) != 0)
            return true;
    return false;
}

void Harness::expire(std::uint32_t slot) {
    if (block_.slot[slot] == 0) return;
    mgd_timer_expire(timer_in(block_.slot[slot]));
    release_timer(slot);
}

void Harness::release_timer(std::uint32_t slot) {
    mgd_timer_release(timer_in(block_.slot[slot]));
    block_.slot[slot] = 0;
}

// ---- publish infos ----

void fill_info(ds_service_publish_info &info, const char *name, const char *instance,
               std::uint32_t scope, std::uint32_t port) {
    std::array<std::uint8_t, DS_ENDPOINT_IP_BYTES> bytes;
    ds_encode_endpoint(0x0a000001, port, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    auto *entry = static_cast<ds_service_info_t *>(std::calloc(1, sizeof(ds_service_info_t)));
    auto *copy = static_cast<std::uint8_t *>(memdup(bytes.data(), bytes.size()));
    VIDL_SET(entry, ep_type, DS_SINFO_BIT_EP_TYPE, DS_EP_TYPE_IP);
    VIDL_SET_BYTES(entry, ep_addr, DS_SINFO_BIT_EP_ADDR, copy, bytes.size());
    VIDL_SET(entry, scope, DS_SINFO_BIT_SCOPE, scope);
    if (instance != nullptr) VIDL_SET(entry, instance, DS_SINFO_BIT_INSTANCE, text_copy(instance));
    VIDL_CLEAR(&info);
    VIDL_SET(&info, service_name, DS_PINFO_BIT_NAME, text_copy(name));
    VIDL_SET_ARRAY(&info, entries, DS_PINFO_BIT_ENTRIES, entry, 1);
}

void discard_info(ds_service_publish_info &info) {
    vidl_ds_service_publish_info_free_ext(&info, std::free, 0);
}

} // namespace ds::fuzz
