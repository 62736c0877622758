#include "host/directory.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "host/message.h"
#include "host/names.h"
#include "host/runtime_directory.h"
#include "host/snapshot.h"

namespace ds::host {

namespace {

// The library reads its block until the process ends, and the callbacks carry no context.
ds_globals_t block;
Directory *directory = nullptr;

template <typename Function> std::uint64_t slot_value(Function *function) {
    return reinterpret_cast<std::uint64_t>(function);
}

// The tree link is the first field of an element.
ds_service_elem_t *element_of(const avl_node_t *node) {
    return reinterpret_cast<ds_service_elem_t *>(const_cast<avl_node_t *>(node));
}

// Finds its place in the tree and remembers the nearest element behind it: the last node of the
// descent that comes after the name, whatever other nodes it was compared with before.
struct Position {
    std::string_view name;
    mutable const avl_node_t *behind = nullptr;

    static int compare(const void *key, const avl_node_t *node) {
        const auto *position = static_cast<const Position *>(key);
        const ds_service_elem_t *element = element_of(node);
        const std::string_view other(element->name, element->name_len);
        const int order = position->name.size() != other.size()
                              ? (position->name.size() < other.size() ? -1 : 1)
                              : position->name.compare(other);
        if (order > 0) return AVL_GREATER;
        if (order == 0) return AVL_EQUAL;
        position->behind = node;
        return AVL_LESS;
    }
};

// Whether the publication would replace this one. `instance` as the directory knows it.
bool is_same(const ds_service_t *service, const ds_client_t *client, const std::string &instance,
             const v1::Publish &publish) {
    return service->proc_id == client->client_idx && service->instance == instance &&
           service->scope == static_cast<std::uint32_t>(publish.scope());
}

} // namespace

// ---- start and callbacks ----

Directory::Directory(Loop &loop, DirectoryClients &clients, relay::Engine &engine,
                     PublicationSum &sum, const Config &config)
    : Records(sum, config.node), clients_(clients), engine_(engine), timers_(loop, on_expired) {
    directory = this;
    if (ds_server_lib_init(nullptr) != 0)
        throw StartError("the trace channels cannot be opened in " + config.trace_dir + ": " +
                         std::strerror(errno));
    fill_block(config.console ? console_stream() : nullptr);
    ds_globals_set(&block);
    if (ds_db_init() != 0) throw StartError("the database cannot be made: out of memory");
    block.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = platform_get_nodeid_from_ethaddr(node().data());
    dsr_set_sender(on_relay_send, &engine_);
}

Directory::~Directory() {
    dsr_set_sender(nullptr, nullptr);
    block.slot[DS_GLOBAL_SLOT_TIMER_PARENT] = 0;
    directory = nullptr;
}

void Directory::fill_block(std::FILE *console) {
    block.slot[DS_GLOBAL_SLOT_TIMER_PARENT] = reinterpret_cast<std::uint64_t>(timers_.parent());
    block.slot[DS_GLOBAL_SLOT_CONSOLE] = reinterpret_cast<std::uint64_t>(console);
    block.slot[DS_GLOBAL_SLOT_NOTIFY_HOOK] = slot_value(on_notify);
    block.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = slot_value(on_send);
    block.slot[DS_GLOBAL_SLOT_CLIENT_DELETE] = slot_value(on_delete);
    block.slot[DS_GLOBAL_SLOT_CLIENT_PID] = slot_value(on_process_id);
    block.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = slot_value(on_process_name);
}

int Directory::on_notify(ds_service_elem_t *element, ds_service_publish_info *info) {
    directory->notified(element);
    if (info->entries_count >= instances_always_fit)
        directory->large_.insert(element);
    else if (!directory->large_.empty())
        directory->large_.erase(element);
    return 0;
}

int Directory::on_send(std::uint64_t, ds_notif_msg *message) {
    directory->clients_.on_registration_changed(message->reg_cookie);
    return 0;
}

// A deletion is told as a snapshot without instances, and on_send follows for it.
int Directory::on_delete(std::uint64_t, ds_notif_msg *) {
    return 0;
}

long Directory::on_process_id(std::uint64_t client) {
    return directory->clients_.process_id(client);
}

const char *Directory::on_process_name(std::uint64_t client) {
    return directory->clients_.process_name(client);
}

int Directory::on_relay_send(void *engine, const dsr_update_t *update) {
    return static_cast<relay::Engine *>(engine)->send(*update);
}

void Directory::on_expired(mgd_timer_t *timer) {
    directory->changed();
    if (directory->timer_handler_) directory->timer_handler_(timer);
}

// ---- publications ----

bool Directory::has_published(const ds_client_t *client, const v1::Publish &publish) const {
    ds_service_elem_t *element = find(publish.name());
    if (element == nullptr) return false;
    const std::string instance = to_directory_instance(publish.instance());
    for (ds_service_t *service = ds_service_get_service_list_head(element); service != nullptr;
         service = ds_service_get_next_in_service_list(service))
        if (is_same(service, client, instance, publish)) return true;
    return false;
}

bool Directory::has_room_for(const ds_client_t *client, const v1::Publish &publish) const {
    if (large_.empty()) return true;
    ds_service_elem_t *element = find(publish.name());
    if (element == nullptr || !large_.contains(element)) return true;

    static std::string encoded;
    const std::string instance = to_directory_instance(publish.instance());
    constexpr std::size_t frame_parts_bytes = 8; // tag and length of each instance
    std::size_t bytes = publish.name().size() + instance_bytes_bound(publish) + frame_parts_bytes;
    for (ds_service_t *service = ds_service_get_service_list_head(element); service != nullptr;
         service = ds_service_get_next_in_service_list(service)) {
        if (is_same(service, client, instance, publish)) continue; // it will be replaced
        encoded.clear();
        encode_instance(service, encoded);
        bytes += encoded.size() + frame_parts_bytes;
        if (bytes > snapshot_bytes_max) return false;
    }
    return true;
}

// ---- reading ----

ds_service_elem_t *Directory::first_behind(std::string_view name) const {
    const Position position = {name};
    avl_node_t *same = avl_search(&database()->selem_tree, &position, Position::compare);
    return element_of(same != nullptr ? avl_get_next(same) : position.behind);
}

Directory::Totals Directory::totals() const {
    const auto in_use = [](const chunk_pool_t *pool) {
        chunk_usage_t usage;
        chunk_get_usage(pool, &usage);
        return static_cast<std::uint32_t>(usage.records_in_use);
    };
    const ds_db_t *db = database();
    return {in_use(db->selem_pool), in_use(db->service_pool), in_use(db->client_reg_pool)};
}

const ds_node_t *Directory::find_node(const std::string &address) const {
    return static_cast<const ds_node_t *>(
        vanto_protected_hashtable_get(&database()->node_table, address.data()));
}

void Directory::for_each_node(const std::function<void(const ds_node_t &)> &function) const {
    vanto_hashtable_visit(
        &database()->node_table,
        [](void *node, void *context) {
            const auto &visit =
                *static_cast<const std::function<void(const ds_node_t &)> *>(context);
            visit(*static_cast<const ds_node_t *>(node));
        },
        const_cast<std::function<void(const ds_node_t &)> *>(&function));
}

} // namespace ds::host
