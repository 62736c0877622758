#include "database.h"

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

#include "batch.h"
#include "platform_default/platform_default.h"

namespace ds::bench {

namespace {

constexpr std::size_t services_per_client = 1000;
constexpr std::uint32_t endpoint_address = 0x0a000001;

// The handle of a client carries its process, so that the callback needs no table.
constexpr unsigned process_shift = 32;
std::uint64_t next_handle = 1;

int ignore_notification(ds_service_elem_t *, ds_service_publish_info *) {
    return 0;
}
int ignore_message(std::uint64_t, ds_notif_msg *) {
    return 0;
}
long process_of(std::uint64_t handle) {
    return static_cast<long>(handle >> process_shift);
}
const char *name_of(std::uint64_t) {
    return "bench";
}
int drop_update(void *, const dsr_update_t *) {
    return 0;
}

template <typename Function> std::uint64_t slot_value(Function *function) {
    return reinterpret_cast<std::uint64_t>(function);
}

void open_library() {
    static const bool is_open = [] {
        dsr_set_sender(drop_update, nullptr);
        return ds_server_lib_init(nullptr) == 0;
    }();
    if (!is_open) fail("the trace channels cannot be opened");
}

template <typename T> T *allocate(std::size_t count) {
    auto *memory = static_cast<T *>(std::calloc(count, sizeof(T)));
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

char *copy_text(const char *text, std::size_t length) {
    char *copy = allocate<char>(length + 1);
    std::memcpy(copy, text, length);
    return copy;
}

std::size_t heap_bytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

} // namespace

void fail(const char *what) {
    std::fprintf(stderr, "bench_library: %s\n", what);
    std::exit(1);
}

std::string service_name(std::size_t index) {
    // An odd factor modulo a power of two visits every number once, in a scattered order.
    constexpr std::size_t numbers = std::size_t{1} << 24;
    constexpr std::size_t factor = 0x9e3779;
    char text[32];
    std::snprintf(text, sizeof text, "bench/service/%08zu", index * factor % numbers);
    return text;
}

void InfoDeleter::operator()(ds_service_publish_info *info) const {
    vidl_ds_service_publish_info_free_ext(info, std::free, 0);
    std::free(info);
}

Info make_info(const std::string &name, std::uint32_t port) {
    Info info(allocate<ds_service_publish_info>(1));
    VIDL_SET(info.get(), service_name, DS_PINFO_BIT_NAME, copy_text(name.data(), name.size()));
    VIDL_SET_ARRAY(info.get(), entries, DS_PINFO_BIT_ENTRIES, allocate<ds_service_info_t>(1), 1);
    ds_service_info_t &entry = info->entries[0];
    const std::uint32_t type = DS_EP_TYPE_IP;
    VIDL_SET(&entry, ep_type, DS_SINFO_BIT_EP_TYPE, type);
    entry.ep_addr = allocate<std::uint8_t>(DS_ENDPOINT_IP_BYTES);
    const std::int32_t written =
        ds_encode_endpoint(endpoint_address, port, entry.ep_addr, DS_ENDPOINT_IP_BYTES);
    if (written < 0) fail("an endpoint cannot be encoded");
    entry.ep_addr_len = static_cast<std::uint64_t>(written);
    VIDL_SET_BIT(&entry, DS_SINFO_BIT_EP_ADDR);
    const std::uint32_t scope = DS_SCOPE_SYSTEM;
    VIDL_SET(&entry, scope, DS_SINFO_BIT_SCOPE, scope);
    VIDL_SET(&entry, instance, DS_SINFO_BIT_INSTANCE,
             copy_text(instance_text, sizeof instance_text - 1));
    return info;
}

ds_service_key_t make_key(std::string &name, std::string &instance) {
    ds_service_key_t key = {};
    const std::uint32_t scope = DS_SCOPE_SYSTEM;
    VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, name.data());
    VIDL_SET(&key, scope, DS_KEY_BIT_SCOPE, scope);
    VIDL_SET(&key, instance, DS_KEY_BIT_INSTANCE, instance.data());
    return key;
}

Database &Database::of_size(std::int64_t services) {
    // Never destroyed: the library reads its block until the process ends.
    static auto &databases = *new std::map<std::int64_t, std::unique_ptr<Database>>;
    auto &database = databases[services];
    if (database == nullptr) database.reset(new Database(static_cast<std::size_t>(services)));
    database->use();
    return *database;
}

Database::Database(std::size_t services) : size_(services) {
    open_library();
    block_.slot[DS_GLOBAL_SLOT_NOTIFY_HOOK] = slot_value(ignore_notification);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = slot_value(ignore_message);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_DELETE] = slot_value(ignore_message);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_PID] = slot_value(process_of);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = slot_value(name_of);
    use();
    if (ds_db_init() != 0) fail("the database cannot be made");
    node_ = reinterpret_cast<ds_node_t *>(platform_get_nodeid_from_ethaddr(node_address));
    block_.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = reinterpret_cast<std::uint64_t>(node_);
    *reinterpret_cast<unsigned char *>(&block_.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED]) = 1;
    fill();
}

void Database::use() {
    ds_globals_set(&block_);
}

void Database::fill() {
    constexpr std::uint64_t first_process = 1000;
    owners_.reserve(size_ / services_per_client + 1);
    const std::size_t heap_before = heap_bytes();
    const std::uint64_t pools_before = pool_bytes();
    const double start = thread_seconds();
    for (std::size_t i = 0; i < size_; i++) {
        if (i % services_per_client == 0)
            owners_.push_back(add_client(first_process + owners_.size())->client_idx);
        if (!publish(owners_.back(), make_info(service_name(i), 1)))
            fail("a service cannot be published");
    }
    const double seconds = thread_seconds() - start;
    const auto count = static_cast<double>(size_);
    footprint_ = {seconds, static_cast<double>(heap_bytes() - heap_before) / count,
                  static_cast<double>(pool_bytes() - pools_before) / count};
    publisher_ = add_client(first_process + owners_.size());
}

std::uint32_t Database::owner_idx(std::size_t index) const {
    return owners_[index / services_per_client];
}

std::uint64_t Database::pool_bytes() const {
    const auto *db = reinterpret_cast<const ds_db_t *>(block_.slot[DS_GLOBAL_SLOT_DB]);
    std::uint64_t bytes = 0;
    for (const chunk_pool_t *pool :
         {db->client_pool, db->client_reg_pool, db->service_pool, db->selem_pool}) {
        chunk_usage_t usage;
        chunk_get_usage(pool, &usage);
        bytes += usage.bytes_reserved;
    }
    return bytes;
}

void Database::delete_empty_names() {
    const auto *db = reinterpret_cast<const ds_db_t *>(block_.slot[DS_GLOBAL_SLOT_DB]);
    while (avl_node_t *first = avl_get_first(const_cast<avl_root_t *>(&db->selem_tree)))
        ds_db_delete_service_element(reinterpret_cast<ds_service_elem_t *>(first));
}

ds_client_t *Database::add_client(std::uint64_t process) {
    ds_client_t *client = nullptr;
    if (ds_db_init_client(&client) != 0) fail("a client cannot be made");
    client->client_hdl = process << process_shift | next_handle++;
    if (ds_db_add_client(client) != 0) fail("a client cannot be added");
    return client;
}

bool Database::publish(std::uint32_t client_idx, Info info) {
    ds_service_publish_info *published = info.release();
    ds_db_publish_service(client_idx, node_, published, nullptr);
    const bool is_held = published->held != 0;
    if (!is_held) info.reset(published);
    return is_held;
}

bool Database::withdraw(std::uint32_t client_idx, std::string &name) {
    std::string instance = instance_text;
    const ds_service_key_t key = make_key(name, instance);
    return ds_db_unpublish_service(client_idx, node_, &key, nullptr) == 0;
}

} // namespace ds::bench
