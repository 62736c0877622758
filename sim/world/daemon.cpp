#include "sim/world/daemon.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "sim/world/client.h"
#include "sim/world/names.h"
#include "sim/world/world.h"

namespace ds::sim {

namespace {

// Whose block is installed: the library's callbacks carry no context.
Daemon *current = nullptr;

template <typename Function> std::uint64_t slot_value(Function *function) {
    return reinterpret_cast<std::uint64_t>(function);
}

char *copy_of(const std::string &text) {
    auto *copy = static_cast<char *>(std::malloc(text.size() + 1));
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

host::PublishInfo make_info(const Request &request) {
    const SparedAllocations spared;
    host::PublishInfo info(
        static_cast<ds_service_publish_info *>(std::calloc(1, sizeof(ds_service_publish_info))));
    auto *entry = static_cast<ds_service_info_t *>(std::calloc(1, sizeof(ds_service_info_t)));
    VIDL_SET(info.get(), service_name, DS_PINFO_BIT_NAME, copy_of(name_text(request.name)));
    VIDL_SET_ARRAY(info.get(), entries, DS_PINFO_BIT_ENTRIES, entry, 1);
    VIDL_SET(entry, ep_type, DS_SINFO_BIT_EP_TYPE, DS_EP_TYPE_IP);
    const std::string instance = instance_text(request.instance);
    const auto endpoint_bytes = static_cast<std::uint32_t>(DS_ENDPOINT_IP_BYTES + instance.size());
    auto *endpoint = static_cast<std::uint8_t *>(std::malloc(endpoint_bytes));
    ds_encode_service_endpoint(request.endpoint, 8080, request.scope, instance.data(),
                               instance.size(), endpoint, endpoint_bytes);
    VIDL_SET_BYTES(entry, ep_addr, DS_SINFO_BIT_EP_ADDR, endpoint, endpoint_bytes);
    VIDL_SET(entry, scope, DS_SINFO_BIT_SCOPE, request.scope);
    VIDL_SET(entry, instance, DS_SINFO_BIT_INSTANCE, copy_of(instance_text(request.instance)));
    if (request.ha_role != 0) {
        auto *role = static_cast<ds_service_attr_t *>(std::calloc(1, sizeof(ds_service_attr_t)));
        VIDL_SET(role, type, DS_ATTR_BIT_TYPE, DS_ATTR_HA_ROLE);
        VIDL_SET(role, value, DS_ATTR_BIT_VALUE, request.ha_role);
        VIDL_SET_ARRAY(entry, attrs, DS_SINFO_BIT_ATTRS, role, 1);
    }
    return info;
}

Instance instance_of(const Request &request, int node, std::uint32_t pid) {
    Instance instance;
    instance.node = node;
    instance.pid = pid;
    instance.instance = request.instance;
    instance.scope = request.scope;
    instance.endpoint = request.endpoint;
    instance.ha_role = request.ha_role;
    return instance;
}

} // namespace

// ---- life ----

Daemon::Daemon(World &world, const Life &life, host::PublicationSum::Record &record)
    : world_(world), life_(life), started_(world.clock().now),
      flaws_(world.random().fork(life.boot * 3 + 1)),
      sum_(host::PublicationSum::RecordOwner(&record, [](host::PublicationSum::Record *) {})),
      records_(sum_, address_of(life.node)),
      engine_(world.engine_parts(), {life.node, life.rack, life.boot, life.predecessor}, *this,
              world.random().fork(life.boot * 3 + 2)) {
    platform_.now = &world.clock().now;
    platform_.engine = &engine_;
    platform_.trace = &world.trace();
    platform_.chance = world.random().fork(life.boot * 3);
    enter();
    fill_block();
    if (ds_db_init() != 0) std::abort();
    database()->next_service_id = life.pid << 16;
    block_.slot[DS_GLOBAL_SLOT_LOCAL_NODE] =
        platform_get_nodeid_from_ethaddr(records_.node().data());
    restart_.emplace(records_, engine_, sum_,
                     std::chrono::milliseconds(world.settings().window / ms),
                     [this] { mark_reconciled(); });
    restart_->start();
    leave();
}

Daemon::~Daemon() {
    *is_alive_ = false;
    enter();
    restart_.reset();
    platform_.engine = nullptr;
    platform_.trace = nullptr;
    platform_.failing_one_in = 0;
    for (const int slot : {DS_GLOBAL_SLOT_NOTIFY_HOOK, DS_GLOBAL_SLOT_CLIENT_SEND,
                           DS_GLOBAL_SLOT_CLIENT_DELETE, DS_GLOBAL_SLOT_RELAY_CONNECTED})
        block_.slot[slot] = 0;
    free_database();
    mgd_timer_release(timer_parent_);
    leave();
}

void Daemon::fill_block() {
    mgd_timer_loop_t loop = {};
    loop.loop = this;
    loop.now_ns = [](void *self) { return static_cast<Daemon *>(self)->world_.clock().now; };
    loop.arm = [](void *self, mgd_timer_t *timer, std::uint64_t deadline_ns) {
        static_cast<Daemon *>(self)->arm(timer, deadline_ns);
    };
    loop.disarm = [](void *self, mgd_timer_t *timer) {
        static_cast<Daemon *>(self)->armed_.erase(timer);
    };
    loop.on_expire = [](void *self, mgd_timer_t *timer, std::uint64_t) {
        auto *daemon = static_cast<Daemon *>(self);
        daemon->records_.changed();
        daemon->restart_->on_timer(timer);
    };
    timer_parent_ = mgd_timer_parent_new(&loop);
    block_.slot[DS_GLOBAL_SLOT_TIMER_PARENT] = reinterpret_cast<std::uint64_t>(timer_parent_);
    block_.slot[DS_GLOBAL_SLOT_NOTIFY_HOOK] = slot_value(on_notify);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = slot_value(on_send);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_PID] = slot_value(on_process_id);
    block_.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = slot_value(on_process_name);
}

ds_db_t *Daemon::database() const {
    return reinterpret_cast<ds_db_t *>(block_.slot[DS_GLOBAL_SLOT_DB]);
}

// The library has no end of its own: the process used to be it.
void Daemon::free_database() {
    ds_db_t *db = database();
    while (ds_client_t *client = ds_client_get_client_list_head())
        ds_db_delete_client(client);
    ds_db_services_iter(
        [](ds_service_t *service, void *) -> void * {
            ds_db_handle_service_down(service, nullptr);
            return nullptr;
        },
        nullptr);
    while (ds_service_elem_t *element = records_.first())
        ds_db_delete_service_element(element);
    vanto_hashtable_visit(
        &db->node_table,
        [](void *node, void *) {
            std::free(static_cast<ds_node_t *>(node)->addr);
            std::free(node);
        },
        nullptr);
    vanto_protected_hashtable_release(&db->node_table);
    for (chunk_pool_t *pool :
         {db->client_pool, db->client_reg_pool, db->service_pool, db->selem_pool})
        chunk_destroy(pool);
    pthread_mutex_destroy(&db->mutex);
    std::free(db);
}

void Daemon::enter() {
    ds_globals_set(&block_);
    platform_host = &platform_;
    current = this;
}

void Daemon::leave() {
    platform_host = nullptr;
    current = nullptr;
    ds_globals_set(nullptr);
}

void Daemon::look(const std::function<void()> &function) {
    enter();
    function();
    leave();
}

bool Daemon::is_any_period_open() {
    bool is_open = false;
    look([&] { is_open = host::is_restart_period_open(); });
    return is_open;
}

bool Daemon::is_own_period_open() const {
    return restart_->is_own_period_open();
}

bool Daemon::has_flaw(Flaw flaw, std::uint32_t per_mille) {
    return world_.settings().flaw == flaw && flaws_.chance(per_mille);
}

// ---- turns and timers ----

void Daemon::turn(const std::function<void()> &function) {
    enter();
    turns_++;
    function();
    flush();
    restart_->end_if_complete(); // what was just served may be the last that was missing
    flush();
    if (world_.settings().flaw == Flaw::none)
        world_.checkers().after_turn(*this);
    else
        end_flawed_turn();
    leave();
}

// What is broken on purpose is mended before anything else stumbles over it.
void Daemon::end_flawed_turn() {
    ds_client_t *client = ds_client_get_client_list_head();
    const bool cuts_link = client != nullptr && has_flaw(Flaw::library_loses_link, 20);
    if (cuts_link) client->client_link.prev = nullptr;
    world_.checkers().after_turn(*this);
    if (cuts_link) client->client_link.prev = &database()->client_list;
    if (has_flaw(Flaw::host_crashes, 20)) std::abort();
    if (has_flaw(Flaw::host_stands_still, 20)) stand_still();
    while (has_flaw(Flaw::host_loops, 1000))
        continue;
}

void Daemon::stand_still() {
    world_.clock().after(0, life_.node, [this, alive = is_alive_] {
        if (*alive) stand_still();
    });
}

void Daemon::arm(mgd_timer_t *timer, std::uint64_t deadline_ns) {
    const std::uint64_t serial = next_armed_++;
    armed_[timer] = serial;
    world_.clock().at(deadline_ns, life_.node, [this, alive = is_alive_, timer, serial] {
        if (!*alive) return;
        const auto found = armed_.find(timer);
        if (found == armed_.end() || found->second != serial) return;
        armed_.erase(found);
        if (world_.settings().flaw == Flaw::host_never_ends_period) return;
        const bool settles = world_.settings().flaw != Flaw::host_forgets_to_settle;
        turn([&] { settles ? mgd_timer_expire(timer) : mgd_timer_leaf_stop(timer); });
    });
}

// ---- callbacks ----

int Daemon::on_notify(ds_service_elem_t *element, ds_service_publish_info *) {
    current->records_.notified(element);
    return 0;
}

int Daemon::on_send(std::uint64_t, ds_notif_msg *message) {
    current->mark(*reinterpret_cast<Registration *>(message->reg_cookie));
    return 0;
}

long Daemon::on_process_id(std::uint64_t client) {
    const auto session = current->sessions_.find(client);
    return session != current->sessions_.end() ? static_cast<long>(session->second.pid) : 0;
}

const char *Daemon::on_process_name(std::uint64_t) {
    return "client";
}

// ---- sessions ----

std::uint64_t Daemon::accept(Client &client) {
    const std::uint64_t id = next_session_++;
    bool is_accepted = false;
    turn([&] {
        Session &session = sessions_[id];
        session.id = id;
        session.client = &client;
        session.pid = client.pid();
        session.record = records_.add_client(id, "");
        is_accepted = session.record != nullptr;
        if (!is_accepted) sessions_.erase(id);
    });
    return is_accepted ? id : 0;
}

void Daemon::handle(std::uint64_t id, const std::vector<Request> &requests) {
    const auto found = sessions_.find(id);
    if (found == sessions_.end()) return;
    turn([&] {
        for (const Request &request : requests) {
            switch (request.kind) {
            case Request::publish:
                handle_publish(found->second, request);
                break;
            case Request::withdraw:
                handle_withdraw(found->second, request);
                break;
            case Request::watch:
                handle_watch(found->second, request);
                break;
            case Request::unwatch:
                handle_unwatch(found->second, request.name);
                break;
            }
        }
    });
}

void Daemon::handle_publish(Session &session, const Request &request) {
    host::PublishInfo info = make_info(request);
    if (has_flaw(Flaw::host_leaks, 20)) make_info(request).release();
    const ds_service_t *service = records_.publish(session.record, std::move(info));
    if (service != nullptr) {
        restart_->published(*service);
        const Instance published = instance_of(request, life_.node, session.pid);
        auto &of_name = published_[request.name];
        const auto same = std::find_if(of_name.begin(), of_name.end(), [&](const Published &p) {
            return p.session == session.id && p.instance.identity() == published.identity();
        });
        if (same != of_name.end())
            same->instance = published;
        else
            of_name.push_back({session.id, published});
    }
    session.client->answer_later(session.id, request, service != nullptr);
}

void Daemon::handle_withdraw(Session &session, const Request &request) {
    const bool is_done = records_.withdraw(session.record, name_text(request.name),
                                           instance_text(request.instance), request.scope);
    const Instance gone = instance_of(request, life_.node, session.pid);
    if (is_done)
        std::erase_if(published_[request.name], [&](const Published &p) {
            return p.session == session.id && p.instance.identity() == gone.identity();
        });
    session.client->answer_later(session.id, request, is_done);
}

void Daemon::handle_watch(Session &session, const Request &request) {
    const auto [found, is_new] = session.registrations.try_emplace(request.name);
    Registration &registration = found->second;
    if (is_new) {
        registration.session = &session;
        registration.cookie = request.cookie;
        registration.record =
            records_.add_registration(session.record, name_text(request.name),
                                      reinterpret_cast<std::uint64_t>(&registration));
    }
    const bool is_done = registration.record != nullptr;
    session.client->answer_later(session.id, request, is_done);
    if (is_done)
        mark(registration); // the directory is silent about a name without services
    else
        session.registrations.erase(found);
}

void Daemon::handle_unwatch(Session &session, std::uint32_t name) {
    const auto found = session.registrations.find(name);
    if (found == session.registrations.end()) return;
    ds_client_reg_t *record = found->second.record;
    unmark(found->second);
    session.registrations.erase(found);
    records_.remove_registration(record);
}

void Daemon::session_ended(std::uint64_t id) {
    const auto found = sessions_.find(id);
    if (found == sessions_.end()) return;
    if (has_flaw(Flaw::host_keeps_departed, 50)) return;
    turn([&] { drop(found->second); });
}

// Registrations first, so that the client is not told of its own publications going.
void Daemon::drop(Session &session) {
    while (!session.registrations.empty())
        handle_unwatch(session, session.registrations.begin()->first);
    while (records_.take_down_one(session.record))
        continue;
    records_.remove_client(session.record);
    for (auto &[name, published] : published_)
        std::erase_if(published, [&](const Published &p) { return p.session == session.id; });
    std::erase_if(published_, [](const auto &item) { return item.second.empty(); });
    sessions_.erase(session.id);
}

// ---- telling ----

void Daemon::mark(Registration &registration) {
    if (registration.is_pending) return;
    registration.is_pending = true;
    pending_.push_back(&registration);
}

void Daemon::unmark(Registration &registration) {
    if (registration.is_pending) std::erase(pending_, &registration);
    registration.is_pending = false;
}

void Daemon::mark_reconciled() {
    for (auto &[id, session] : sessions_)
        for (auto &[name, registration] : session.registrations)
            if (registration.was_reconciling) mark(registration);
}

void Daemon::flush() {
    for (Registration *registration : std::exchange(pending_, {})) {
        registration->is_pending = false;
        if (has_flaw(Flaw::host_loses_notification, 20)) continue;
        tell(*registration);
    }
}

SnapshotPtr Daemon::snapshot_for(Registration &registration) {
    if (changes_encoded_ != records_.changes()) snapshots_.clear();
    changes_encoded_ = records_.changes();
    SnapshotPtr &snapshot = snapshots_[registration.record->selem];
    if (!snapshot) {
        snapshot = flawed(snapshot_of(registration.record->selem));
        world_.checkers().on_snapshot(*this, *snapshot);
    }
    return snapshot;
}

// As it is, or broken on purpose.
SnapshotPtr Daemon::flawed(SnapshotPtr snapshot) {
    const bool drops = !snapshot->instances.empty() && has_flaw(Flaw::host_drops_service, 20);
    const bool settles = has_flaw(Flaw::host_settles_early, 1000);
    if (!drops && !settles) return snapshot;
    auto broken = std::make_shared<Snapshot>(*snapshot);
    if (drops) broken->instances.pop_back();
    if (settles) broken->is_reconciling = false;
    return broken;
}

void Daemon::tell(Registration &registration) {
    SnapshotPtr snapshot = snapshot_for(registration);
    registration.told_before = std::exchange(registration.told, snapshot);
    if (registration.told_before && has_flaw(Flaw::host_shows_old_snapshot, 20))
        world_.clock().after(ms, life_.node,
                             [client = registration.session->client, id = registration.session->id,
                              cookie = registration.cookie, old = registration.told_before] {
                                 client->tell_later(id, cookie, old);
                             });
    registration.was_reconciling = host::is_restart_period_open();
    Session &session = *registration.session;
    session.client->tell_later(session.id, registration.cookie, snapshot);
}

} // namespace ds::sim
