// Random histories of a directory: every input is a sequence of calls, and after each call the
// library must show what the model shows. While a restart period is open, and until it is settled,
// only the structure is checked; the model then goes on from what is there.
#include <algorithm>
#include <array>

#include "directory_model.h"
#include "input.h"

namespace ds::fuzz {
namespace {

constexpr std::size_t steps_max = 200;
constexpr std::size_t clients_max = 4;
constexpr std::array<const char *, 6> names = {"a", "ab", "b", "ba", "abc", ""};
constexpr std::array<const char *, 6> instances = {nullptr, "", "x", "xy", "y", "xyz"};

struct Registration {
    std::string name;
    std::uint64_t client;
    std::uint32_t handle;
};

class History {
  public:
    explicit History(Input &input) : in_(input) {
        harness_.reset();
        model_.adopt({}, {}, harness_.database()->next_service_id);
        add_client();
    }
    ~History() { harness_.reset(); }
    History(const History &) = delete;
    History &operator=(const History &) = delete;

    void run() {
        for (std::size_t i = 0; i < steps_max && !in_.is_at_end(); i++) {
            step();
            compare();
        }
    }

  private:
    void step() {
        switch (in_.below(24)) {
        case 0:
        case 1:
        case 2:
        case 3:
            publish_local();
            break;
        case 4:
        case 5:
            withdraw_local();
            break;
        case 6:
        case 7:
            add_registration();
            break;
        case 8:
            delete_registration();
            break;
        case 9:
            notify_client();
            break;
        case 10:
            add_client();
            break;
        case 11:
            delete_client();
            break;
        case 12:
            require(dsr_connect_cb() == 0, "connecting failed");
            break;
        case 13:
            disconnect();
            break;
        case 14:
        case 15:
        case 16:
            receive(DSR_ADD + static_cast<std::uint32_t>(in_.below(2)));
            break;
        case 17:
            receive(DSR_DELETE);
            break;
        case 18:
            peer_down();
            break;
        case 19:
            open_own_period();
            break;
        case 20:
            harness_.expire_own_period();
            break;
        case 21:
            harness_.expire_relay_period();
            break;
        case 22:
            dump();
            break;
        default:
            walk();
            break;
        }
    }

    // ---- comparison ----

    void compare() {
        harness_.check_structure();
        ds_db_t *db = harness_.database();
        if (harness_.is_period_open()) {
            is_exact_ = false;
            return;
        }
        const Elements seen = read_directory(db);
        if (!is_exact_) {
            check_settled(seen);
            model_.adopt(seen, harness_.told, db->next_service_id);
            is_exact_ = true;
            return;
        }
        if (seen != model_.elements)
            fail("the directory differs\nlibrary:\n" + text_of(seen) + "model:\n" +
                 text_of(model_.elements));
        if (harness_.told != model_.told) fail("a registration was told otherwise\n" + told_text());
    }

    // Nothing that waits for a replay, or came with one, may be left behind.
    void check_settled(const Elements &elements) {
        for (const auto &[name, element] : elements)
            for (const ServiceState &service : element.services)
                require(!service.is_placeholder() || service.pid == DS_PROC_ID_FROM_DSR ||
                            (service.node == harness_.local_node() && !is_replicated(service)),
                        "a placeholder outlives the restart period");
    }

    static bool is_replicated(const ServiceState &service) {
        return service.entry[0] == '0' + DS_SCOPE_RACK || service.entry[0] == '0' + DS_SCOPE_SYSTEM;
    }

    std::string told_text() const {
        return "library:\n" + text_of(harness_.told) + "model:\n" + text_of(model_.told);
    }

    // ---- publishing ----

    ds_client_t *some_client() {
        return clients_.empty() ? nullptr : clients_[in_.below(clients_.size())];
    }

    Target target_of(std::uint32_t proc_id, const ds_node_t *node) {
        Target target;
        target.name = names[in_.below(names.size())];
        if (const char *instance = instances[in_.below(instances.size())])
            target.instance = instance;
        target.scope = static_cast<std::uint32_t>(in_.below(4));
        target.proc_id = proc_id;
        target.node = node;
        return target;
    }

    static const char *instance_text(const Target &target) {
        return target.instance ? target.instance->c_str() : nullptr;
    }

    void publish_local() {
        ds_client_t *client = some_client();
        const std::uint32_t index = client != nullptr ? client->client_idx : 5;
        const Target target = target_of(index, harness_.local_node());
        const std::uint8_t port = in_.byte();
        const bool borrowed = port % 2 != 0;
        ds_service_publish_info local;
        auto *heap = static_cast<ds_service_publish_info *>(std::malloc(sizeof local));
        ds_service_publish_info *info = borrowed ? &local : heap;
        fill_info(*info, target.name.c_str(), instance_text(target), target.scope, port);
        info->borrowed = borrowed ? 1 : 0;
        const std::string entry = entry_text(info->entries[0]);

        const int result = ds_db_publish_service(index, harness_.local_node(), info, nullptr);

        const bool held = info->held != 0;
        if (!held) discard_info(*info);
        if (!held || borrowed) std::free(heap);
        require(result == (client != nullptr ? 0 : -1), "publishing gave another result");
        require(held == (client != nullptr), "an info of a failed call is held, or the other way");
        if (client == nullptr)
            model_.leave_empty_element(target.name);
        else if (is_exact_)
            model_.publish(target, &client->client_hdl, entry);
    }

    void withdraw_local() {
        ds_client_t *client = some_client();
        const std::uint32_t index = client != nullptr ? client->client_idx : 5;
        const Target target = target_of(index, harness_.local_node());
        const int result = withdraw(target, nullptr);
        if (!is_exact_) return;
        const bool found = client != nullptr && model_.withdraw(target);
        require(result == (found ? 0 : -1), "withdrawing gave another result");
    }

    static int withdraw(const Target &target, const ds_dsr_service_ref_t *ref) {
        ds_service_key_t key;
        VIDL_CLEAR(&key);
        std::string name = target.name;
        std::string instance = target.instance.value_or("");
        VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, name.data());
        VIDL_SET(&key, scope, DS_KEY_BIT_SCOPE, target.scope);
        if (target.instance) VIDL_SET(&key, instance, DS_KEY_BIT_INSTANCE, instance.data());
        auto *node = const_cast<ds_node_t *>(target.node);
        return ds_db_unpublish_service(target.proc_id, node, &key, ref);
    }

    // ---- registrations and clients ----

    void add_registration() {
        ds_client_t *client = some_client();
        if (client == nullptr) return;
        const std::string name = names[in_.below(names.size())];
        const std::uint64_t cookie = ++last_cookie_ << 32 | client->client_hdl;
        ds_client_reg_t *registration = nullptr;
        require(ds_db_add_new_registration(name.c_str(), client, cookie, &registration) == 0,
                "registering failed");
        const RegistrationKey key = {client->client_hdl, registration->handle};
        require(registration->handle == client->reg_handle_counter, "another handle than the last");
        registrations_.push_back({name, key.first, key.second});
        if (is_exact_) model_.register_name(name, key, cookie);
    }

    void delete_registration() {
        ds_client_t *client = some_client();
        if (registrations_.empty() || client == nullptr) return;
        const std::size_t index = in_.below(registrations_.size());
        const Registration chosen = registrations_[index];
        const bool is_own = chosen.client == client->client_hdl;
        const int result = ds_db_delete_registration(chosen.name.c_str(), client, chosen.handle);
        const bool has_twin = std::any_of(
            registrations_.begin(), registrations_.end(), [&](const Registration &other) {
                return other.client == client->client_hdl && other.handle == chosen.handle &&
                       other.name == chosen.name;
            });
        require(result == (has_twin ? 0 : -1), "unregistering gave another result");
        if (!has_twin) return;
        const RegistrationKey key = {client->client_hdl, chosen.handle};
        harness_.told.erase(key);
        model_.unregister(chosen.name, key);
        std::erase_if(registrations_, [&](const Registration &other) {
            return other.client == key.first && other.handle == key.second;
        });
        require(!is_own || result == 0, "an own registration was not found");
    }

    void notify_client() {
        if (registrations_.empty()) return;
        const Registration &chosen = registrations_[in_.below(registrations_.size())];
        ds_service_elem_t *selem = nullptr;
        require(ds_db_find_service_element(chosen.name.c_str(), &selem) == 0, "a name is lost");
        ds_client_reg_t *registration = ds_service_get_client_reg_list_head(selem);
        while (registration != nullptr && (registration->client->client_hdl != chosen.client ||
                                           registration->handle != chosen.handle))
            registration = ds_service_get_next_in_client_reg_list(registration);
        require(registration != nullptr, "a registration is lost");
        require(ds_notify_client(registration, selem) == 0, "telling one failed");
        if (is_exact_) model_.tell_one(chosen.name, {chosen.client, chosen.handle});
    }

    void add_client() {
        if (clients_.size() == clients_max) return;
        ds_client_t *client = harness_.add_client();
        clients_.push_back(client);
        model_.clients[client->client_hdl] = {client->client_idx,
                                              static_cast<std::uint32_t>(ds_client_pid(client))};
    }

    void delete_client() {
        if (clients_.empty()) return;
        const std::size_t index = in_.below(clients_.size());
        const std::uint64_t handle = clients_[index]->client_hdl;
        harness_.delete_client(clients_[index]);
        clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
        std::erase_if(registrations_, [&](const auto &other) { return other.client == handle; });
        model_.delete_client(handle);
    }

    // ---- relay and restart periods ----

    static Address address_of(std::size_t node) {
        Address address = local_address;
        address[5] = static_cast<std::uint8_t>(node);
        return address;
    }

    // In a period the model is left alone from the first step on.
    void disconnect() {
        harness_.disconnect_relay();
        is_exact_ = false;
    }

    void open_own_period() {
        harness_.open_own_period();
        is_exact_ = false;
    }

    void receive(std::uint32_t operation) {
        static constexpr std::array<std::uint32_t, 6> pids = {0, 1, 7, 100, 101, 11};
        const Address from = address_of(in_.below(4));
        const auto *node =
            reinterpret_cast<const ds_node_t *>(platform_get_nodeid_from_ethaddr(from.data()));
        Target target = target_of(pids[in_.below(pids.size())], node);
        target.id = static_cast<std::uint32_t>(in_.below(4));
        const std::uint32_t version = in_.byte();
        std::array<std::uint8_t, DS_ENDPOINT_IP_BYTES> bytes;
        ds_encode_endpoint(0x0a000001, version % 4, bytes.data(), DS_ENDPOINT_IP_BYTES);

        const int result = dsr_receive_cb(operation, from.data(), target.name.c_str(), target.id,
                                          instance_text(target), target.scope, target.proc_id,
                                          version, bytes.data(), bytes.size(), nullptr, 0);

        if (!is_exact_) return;
        bool is_done = true;
        if (node == harness_.local_node())
            require(harness_.sent.back().version == version + 1, "not turned back");
        else if (operation == DSR_DELETE)
            is_done = model_.withdraw(target);
        else
            model_.publish(target, nullptr, entry_of(target, bytes));
        require(result == (is_done ? 0 : -1), "an update gave another result");
    }

    template <std::size_t N>
    static std::string entry_of(const Target &target, std::array<std::uint8_t, N> &bytes) {
        ds_service_info_t entry;
        VIDL_CLEAR(&entry);
        std::string instance = target.instance.value_or("");
        VIDL_SET_BYTES(&entry, ep_addr, DS_SINFO_BIT_EP_ADDR, bytes.data(), bytes.size());
        VIDL_SET(&entry, scope, DS_SINFO_BIT_SCOPE, target.scope);
        if (target.instance) VIDL_SET(&entry, instance, DS_SINFO_BIT_INSTANCE, instance.data());
        return entry_text(entry);
    }

    void peer_down() {
        const Address address = address_of(in_.below(4));
        const int result = dsr_peer_down_cb(address.data());
        const bool is_own = address == local_address;
        require(result == (is_own ? -1 : 0), "a peer's departure gave another result");
        const auto *node =
            reinterpret_cast<const ds_node_t *>(platform_get_nodeid_from_ethaddr(address.data()));
        if (!is_own && is_exact_) model_.node_down(node);
    }

    // ---- reading ----

    void dump() {
        ds_dump_resp_info response;
        VIDL_CLEAR(&response);
        VIDL_SET(&response, request_flags, DS_RESP_BIT_REQUEST_FLAGS,
                 static_cast<std::uint32_t>(in_.below(8)));
        const std::size_t filter = in_.below(names.size() + 4);
        const char *name = filter < names.size() ? names[filter] : nullptr;
        const Address node = address_of(in_.below(4));
        const bool any_node = in_.below(2) == 0;
        const std::uint32_t scope = static_cast<std::uint32_t>(in_.below(5));
        std::uint32_t selem_count = 0;
        std::uint32_t client_count = 0;
        const int result = ds_prepare_dump_resp_info(name, any_node ? nullptr : node.data(), scope,
                                                     &response, &selem_count, &client_count);
        require(result == 0 && (selem_count == 0 || client_count == 0), "a dump of two kinds");
        require(response.selem_infos_count <= selem_count &&
                    response.client_infos_count <= client_count,
                "a dump with more records than counted");
        if (is_exact_ && name == nullptr && any_node && scope == DS_SCOPE_ANY)
            check_counts(response.request_flags, selem_count, client_count);
        free_response(response);
    }

    void check_counts(std::uint32_t flags, std::uint32_t selem_count, std::uint32_t client_count) {
        if ((flags & DS_DUMP_REQ_SERVICES) != 0)
            require(selem_count == model_.published_names(), "a dump counts other names");
        else if ((flags & DS_DUMP_REQ_REGISTRATIONS) != 0)
            require(selem_count == model_.registered_names(), "a dump counts other registrations");
        else if ((flags & DS_DUMP_REQ_CLIENTS) != 0)
            require(client_count == clients_.size(), "a dump counts other clients");
    }

    static void free_response(ds_dump_resp_info &response) {
        for (std::uint32_t i = 0; i < response.selem_infos_count; i++) {
            std::free(response.selem_infos[i].service_infos);
            std::free(response.selem_infos[i].reg_entries);
        }
        for (std::uint32_t i = 0; i < response.client_infos_count; i++) {
            std::free(response.client_infos[i].service_infos);
            std::free(response.client_infos[i].reg_entries);
        }
        std::free(response.selem_infos);
        std::free(response.client_infos);
    }

    void walk() {
        ds_db_dump(0);
        ds_db_reg_dump(0);
        std::size_t services = 0;
        const auto count = [](ds_service_t *, void *counter) -> void * {
            ++*static_cast<std::size_t *>(counter);
            return nullptr;
        };
        require(ds_db_services_iter(count, &services) == 1, "the walk was not finished");
        require(ds_db_get_client_count(nullptr) == clients_.size(), "another number of clients");
        if (!is_exact_) return;
        std::size_t expected = 0;
        for (const auto &[name, element] : model_.elements)
            expected += element.services.size();
        require(services == expected, "the walk misses services");
        require(ds_db_get_registered_service_count(nullptr) == model_.registered_names() &&
                    ds_db_get_published_service_count(nullptr, DS_SCOPE_ANY) ==
                        model_.published_names(),
                "another number of names");
    }

    Input &in_;
    Harness &harness_ = Harness::instance();
    DirectoryModel model_;
    bool is_exact_ = true;
    std::vector<ds_client_t *> clients_;
    std::vector<Registration> registrations_;
    std::uint64_t last_cookie_ = 0;
};

} // namespace
} // namespace ds::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    ds::fuzz::Input input(data, size);
    ds::fuzz::History(input).run();
    return 0;
}
