#include "harness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "input.h"
#include "structure.h"

namespace ds::fuzz {

namespace {

constexpr std::uint32_t endless_s = 1'000'000; // timers expire when an input says so
constexpr std::uint32_t first_client_index = 11;
constexpr std::uint32_t first_service_id = 0x10000;

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

Address address_of(std::size_t node) {
    return {2, 0, 0, 0, 0, static_cast<std::uint8_t>(node)};
}

Harness &Harness::instance() {
    static Harness harness;
    return harness;
}

Harness::Harness() {
    require(ds_server_lib_init(nullptr) == 0, "the trace channels cannot be opened");
    std::copy(std::begin(ds_lib_rtrace), std::end(ds_lib_rtrace), channels_.begin());
    const mgd_timer_loop_t loop = {nullptr, now_ns, ignore_arm, ignore_disarm, settle};
    block_.slot[DS_GLOBAL_SLOT_TIMER_PARENT] = slot_value(mgd_timer_parent_new(&loop));
    console_ = std::fopen("/dev/null", "we");
    block_.slot[DS_GLOBAL_SLOT_NOTIFY_HOOK] = slot_value(on_hook);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = slot_value(on_send);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_DELETE] = slot_value(on_delete);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_PID] = slot_value(process_of);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = slot_value(name_of);
    ds_globals_set(&block_);
    require(ds_db_init() == 0, "the database cannot be made");
    for (std::size_t i = 0; i < node_count; i++)
        nodes_.push_back(
            reinterpret_cast<ds_node_t *>(platform_get_nodeid_from_ethaddr(address_of(i).data())));
    block_.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = slot_value(local_node());
    dsr_set_sender(on_relay_send, this);
    reset();
}

ds_db_t *Harness::database() const {
    return reinterpret_cast<ds_db_t *>(block_.slot[DS_GLOBAL_SLOT_DB]);
}

void Harness::set_logging(bool is_on) {
    block_.slot[DS_GLOBAL_SLOT_CONSOLE] = is_on ? slot_value(console_) : 0;
    for (std::size_t i = 0; i < channels_.size(); i++)
        ds_lib_rtrace[i] = is_on ? channels_[i] : nullptr;
}

void Harness::reset() {
    set_logging(false);
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
    check_that_pools_are_empty();
    forget_counts();
    events.clear();
    last_client_ = 0;
}

void Harness::check_that_pools_are_empty() const {
    const ds_db_t *db = database();
    for (const chunk_pool_t *pool :
         {db->client_pool, db->client_reg_pool, db->service_pool, db->selem_pool}) {
        chunk_usage_t usage;
        chunk_get_usage(pool, &usage);
        require(usage.records_in_use == 0, "a record outlives the directory's content");
    }
}

// As if the process had just begun.
void Harness::forget_counts() {
    ds_db_t *db = database();
    db->client_idx_counter = first_client_index - 1;
    db->next_service_id = first_service_id;
    for (std::uint32_t *count :
         {&db->clients_added, &db->clients_deleted, &db->local_services_added,
          &db->remote_services_added, &db->local_services_deleted, &db->remote_services_deleted,
          &db->local_services_updated, &db->remote_services_updated, &db->registrations_added,
          &db->registrations_deleted, &db->nnotifs, &db->relay_updates_sent, &db->relay_adds_sent,
          &db->relay_deletes_sent, &db->relay_modifies_sent, &db->relay_updates_received})
        *count = 0;
    for (ds_node_t *node : nodes_)
        node->services_added = node->services_deleted = node->services_updated = node->down_count =
            0;
}

void Harness::check_structure() const {
    fuzz::check_structure(database());
}

ds_client_t *Harness::add_client() {
    ds_client_t *client = nullptr;
    require(ds_db_init_client(&client) == 0, "no client record");
    client->client_hdl = ++last_client_;
    require(ds_db_add_client(client) == 0, "a client was refused");
    require(ds_db_add_client(client) == -1, "a client was listed twice");
    return client;
}

void Harness::delete_client(ds_client_t *client) {
    const std::uint64_t handle = client->client_hdl;
    const std::uint32_t index = client->client_idx;
    require(ds_db_delete_client(client) == 0, "a client could not be deleted");
    require(ds_db_find_client_by_client_hdl(handle) == nullptr &&
                ds_db_find_client_by_client_idx(index) == nullptr,
            "a deleted client is found");
}

// ---- callbacks ----

int Harness::on_hook(ds_service_elem_t *selem, ds_service_publish_info *info) {
    require(std::strcmp(selem->name, info->service_name) == 0, "the hook's info has another name");
    Event event;
    event.name = info->service_name;
    event.endpoints = read_endpoints(*info);
    instance().events.push_back(std::move(event));
    return 0;
}

int Harness::on_send(std::uint64_t client, ds_notif_msg *message) {
    instance().events.push_back(read_message(Event::message, client, *message));
    return 0;
}

int Harness::on_delete(std::uint64_t client, ds_notif_msg *message) {
    instance().events.push_back(read_message(Event::deletion, client, *message));
    return 0;
}

int Harness::on_relay_send(void *context, const dsr_update_t *update) {
    static_cast<Harness *>(context)->events.push_back(read_update(*update));
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

bool Harness::is_own_period_open() const {
    return mgd_timer_leaf_running(timer_in(block_.slot[DS_GLOBAL_SLOT_OWN_RESTART_TIMER])) != 0;
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

namespace {

void fill_entry(ds_service_info_t &entry, const Endpoint &endpoint) {
    VIDL_SET(&entry, ep_type, DS_SINFO_BIT_EP_TYPE, endpoint.type);
    VIDL_SET(&entry, scope, DS_SINFO_BIT_SCOPE, endpoint.scope);
    auto *address = static_cast<std::uint8_t *>(
        endpoint.address.empty() ? nullptr
                                 : memdup(endpoint.address.data(), endpoint.address.size()));
    VIDL_SET_BYTES(&entry, ep_addr, DS_SINFO_BIT_EP_ADDR, address, endpoint.address.size());
    if (endpoint.instance)
        VIDL_SET(&entry, instance, DS_SINFO_BIT_INSTANCE, text_copy(endpoint.instance->c_str()));
    const std::size_t count = endpoint.attributes.size();
    if (count == 0) return;
    auto *attributes = static_cast<ds_service_attr_t *>(std::calloc(count, sizeof *entry.attrs));
    for (std::size_t i = 0; i < count; i++) {
        VIDL_SET(&attributes[i], type, DS_ATTR_BIT_TYPE, endpoint.attributes[i].type);
        VIDL_SET(&attributes[i], value, DS_ATTR_BIT_VALUE, endpoint.attributes[i].value);
    }
    VIDL_SET_ARRAY(&entry, attrs, DS_SINFO_BIT_ATTRS, attributes,
                   static_cast<std::uint32_t>(count));
}

} // namespace

PublishInfo::PublishInfo(const std::string &name, const Endpoints &endpoints, bool is_borrowed)
    : is_borrowed_(is_borrowed) {
    info_ =
        is_borrowed ? &own_ : static_cast<ds_service_publish_info *>(std::calloc(1, sizeof *info_));
    VIDL_SET(info_, service_name, DS_PINFO_BIT_NAME, text_copy(name.c_str()));
    info_->borrowed = is_borrowed ? 1 : 0;
    if (endpoints.empty()) return;
    auto *entries =
        static_cast<ds_service_info_t *>(std::calloc(endpoints.size(), sizeof *info_->entries));
    for (std::size_t i = 0; i < endpoints.size(); i++)
        fill_entry(entries[i], endpoints[i]);
    VIDL_SET_ARRAY(info_, entries, DS_PINFO_BIT_ENTRIES, entries,
                   static_cast<std::uint32_t>(endpoints.size()));
}

PublishInfo::~PublishInfo() {
    if (is_taken_) return;
    vidl_ds_service_publish_info_free_ext(info_, std::free, 0);
    if (!is_borrowed_) std::free(info_);
}

bool PublishInfo::settle() {
    is_taken_ = info_->held != 0;
    return is_taken_;
}

Endpoint ip_endpoint(std::uint32_t port, std::uint32_t scope,
                     const std::optional<std::string> &instance) {
    std::array<char, DS_ENDPOINT_IP_BYTES> bytes;
    ds_encode_endpoint(0x0a000001, port, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    Endpoint endpoint;
    endpoint.address.assign(bytes.data(), bytes.size());
    endpoint.scope = scope;
    endpoint.instance = instance;
    return endpoint;
}

} // namespace ds::fuzz
