#include "host/directory.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

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

ds_db_t *database() {
    return reinterpret_cast<ds_db_t *>(block.slot[DS_GLOBAL_SLOT_DB]);
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
    : clients_(clients), engine_(engine), sum_(sum), node_(config.node), timers_(loop, on_expired) {
    directory = this;
    if (ds_server_lib_init(nullptr) != 0)
        throw StartError("the trace channels cannot be opened in " + config.trace_dir + ": " +
                         std::strerror(errno));
    fill_block(config.console ? console_stream() : nullptr);
    ds_globals_set(&block);
    if (ds_db_init() != 0) throw StartError("the database cannot be made: out of memory");
    local_node_ = reinterpret_cast<ds_node_t *>(platform_get_nodeid_from_ethaddr(node_.data()));
    block.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = reinterpret_cast<std::uint64_t>(local_node_);
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
    directory->notified_ = element;
    directory->changes_++;
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
    directory->changes_++;
    if (directory->timer_handler_) directory->timer_handler_(timer);
}

// ---- clients ----

ds_client_t *Directory::add_client(std::uint64_t id, std::string_view name) {
    ds_client_t *client = nullptr;
    if (ds_db_init_client(&client) != 0) return nullptr;
    client->client_hdl = id;
    name.copy(client->name, sizeof client->name - 1);
    ds_db_add_client(client);
    return client;
}

void Directory::remove_client(ds_client_t *client) {
    changes_++;
    // The library leaves the elements that the client was only registered on.
    std::vector<std::string> names;
    for (ds_client_reg_t *registration = ds_client_get_client_reg_list_head(client);
         registration != nullptr;
         registration = ds_client_get_next_in_client_reg_list(registration))
        names.emplace_back(registration->selem->name);
    for (ds_service_t *service = ds_client_get_service_list_head(client); service != nullptr;
         service = ds_client_get_next_in_service_list(service))
        sum_.remove(service->selem->name, service->instance, service->scope);
    ds_db_delete_client(client);
    for (const std::string &name : names)
        drop_if_unused(name);
}

bool Directory::take_down_one(ds_client_t *client) {
    ds_service_t *service = ds_client_get_service_list_head(client);
    if (service == nullptr) return false;
    changes_++;
    sum_.remove(service->selem->name, service->instance, service->scope);
    ds_db_handle_service_down(service, client);
    return true;
}

void Directory::drop_if_unused(const std::string &name) {
    ds_service_elem_t *element = find(name);
    const bool is_used = element == nullptr ||
                         ds_service_get_service_list_head(element) != nullptr ||
                         ds_db_service_element_has_registrations(element) != 0;
    if (is_used) return;
    changes_++;
    ds_db_delete_service_element(element);
}

// ---- publications ----

const ds_service_t *Directory::publish(ds_client_t *client, PublishInfo info) {
    ds_service_publish_info *published = info.release();
    const ds_service_t *newest = ds_client_get_service_list_head(client);
    notified_ = nullptr;
    changes_++;
    ds_db_publish_service(client->client_idx, local_node_, published, nullptr);
    if (published->held == 0) {
        info.reset(published);
        drop_if_unused(published->service_name);
        return nullptr;
    }
    // What the client did not have before is the first in its list now.
    if (ds_client_get_service_list_head(client) != newest)
        sum_.add(published->service_name, published->entries[0].instance,
                 published->entries[0].scope);
    // Whatever was published was announced, newest record first.
    ds_service_t *service =
        notified_ != nullptr ? ds_service_get_service_list_head(notified_) : nullptr;
    while (service != nullptr && service->publish_info != published)
        service = ds_service_get_next_in_service_list(service);
    return service;
}

bool Directory::withdraw(ds_client_t *client, std::string_view name, std::string_view instance,
                         std::uint32_t scope) {
    std::string service_name(name);
    std::string directory_instance = to_directory_instance(instance);
    ds_service_key_t key = {};
    VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, service_name.data());
    VIDL_SET(&key, scope, DS_KEY_BIT_SCOPE, scope);
    VIDL_SET(&key, instance, DS_KEY_BIT_INSTANCE, directory_instance.data());
    changes_++;
    if (ds_db_unpublish_service(client->client_idx, local_node_, &key, nullptr) != 0) return false;
    sum_.remove(name, directory_instance, scope);
    return true;
}

void Directory::take_down(ds_service_t *service) {
    changes_++;
    sum_.remove(service->selem->name, service->instance, service->scope);
    ds_db_handle_service_down(service, publisher_of(service));
}

ds_client_t *Directory::publisher_of(const ds_service_t *service) const {
    return is_live(service) ? ds_db_find_client_by_client_idx(service->proc_id) : nullptr;
}

ds_service_t *Directory::find_local_service(const std::string &name,
                                            std::uint32_t service_id) const {
    for (ds_service_t *service = ds_service_get_service_list_head(find(name)); service != nullptr;
         service = ds_service_get_next_in_service_list(service))
        if (service->service_id == service_id && service->node == local_node_) return service;
    return nullptr;
}

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

// ---- registrations ----

ds_client_reg_t *Directory::add_registration(ds_client_t *client, const std::string &name,
                                             std::uint64_t argument) {
    ds_client_reg_t *registration = nullptr;
    ds_db_add_new_registration(name.c_str(), client, argument, &registration);
    if (registration == nullptr) {
        drop_if_unused(name);
        return nullptr;
    }
    ds_notify_client(registration, registration->selem);
    return registration;
}

void Directory::remove_registration(ds_client_reg_t *registration) {
    const std::string name = registration->selem->name;
    ds_db_delete_registration(name.c_str(), registration->client, registration->handle);
    drop_if_unused(name);
}

// ---- reading ----

ds_service_elem_t *Directory::find(const std::string &name) const {
    ds_service_elem_t *element = nullptr;
    ds_db_find_service_element(name.c_str(), &element);
    return element;
}

ds_service_elem_t *Directory::first_behind(std::string_view name) const {
    const Position position = {name};
    avl_node_t *same = avl_search(&database()->selem_tree, &position, Position::compare);
    return element_of(same != nullptr ? avl_get_next(same) : position.behind);
}

ds_service_elem_t *Directory::first() const {
    return element_of(avl_get_first(&database()->selem_tree));
}

ds_service_elem_t *Directory::next(ds_service_elem_t *element) {
    return element_of(avl_get_next(&element->tree_link));
}

void Directory::drop_empty_names() {
    ds_service_elem_t *following = nullptr;
    for (ds_service_elem_t *element = first(); element != nullptr; element = following) {
        following = next(element);
        const bool is_used = ds_service_get_service_list_head(element) != nullptr ||
                             ds_db_service_element_has_registrations(element) != 0;
        if (!is_used) ds_db_delete_service_element(element);
    }
    changes_++;
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
