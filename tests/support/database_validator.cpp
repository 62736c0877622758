#include "database_validator.h"

#include <cstring>
#include <functional>

#include "recording.h"

namespace {

// The walk uses the structures themselves and none of the platform's functions, so that it leaves
// no trace in the log of calls.

void collect(const avl_node_t *node, std::vector<ds_service_elem_t *> &elements) {
    if (node == nullptr) return;
    collect(node->left, elements);
    elements.push_back(reinterpret_cast<ds_service_elem_t *>(const_cast<avl_node_t *>(node)));
    collect(node->right, elements);
}

template <typename Record>
std::vector<Record *> members(const dbly_head_t &head, size_t linkage_offset) {
    std::vector<Record *> result;
    for (dbly_linkage_t *at = head.next; at != nullptr; at = at->next)
        result.push_back(reinterpret_cast<Record *>(reinterpret_cast<char *>(at) - linkage_offset));
    return result;
}

class Validator {
  public:
    explicit Validator(ds_db_t *db) : db_(db) { collect(db->selem_tree.header.left, elements_); }

    std::vector<std::string> run() {
        check_tree();
        check_list(db_->client_list, "client list");
        clients_ = members<ds_client_t>(db_->client_list, offsetof(ds_client_t, client_link));
        for (ds_service_elem_t *selem : elements_)
            check_element(*selem);
        for (ds_client_t *client : clients_)
            check_client(*client);
        return std::move(problems_);
    }

  private:
    void require(bool holds, const std::string &problem) {
        if (!holds) problems_.push_back(problem);
    }

    // Links both ways; a list that runs on without end is reported once.
    void check_list(const dbly_head_t &head, const std::string &text) {
        require(head.prev == nullptr, text + ": the head has a predecessor");
        const dbly_linkage_t *before = &head;
        std::set<const dbly_linkage_t *> seen;
        for (const dbly_linkage_t *at = head.next; at != nullptr; at = at->next) {
            require(at->prev == before, text + ": a link back is wrong");
            if (!seen.insert(at).second) {
                problems_.push_back(text + ": the list has no end");
                return;
            }
            before = at;
        }
    }

    void check_tree() {
        require(db_->selem_tree.count == elements_.size(), "the tree's count is wrong");
        for (size_t index = 1; index < elements_.size(); ++index) {
            const ds_service_elem_t &a = *elements_[index - 1];
            const ds_service_elem_t &b = *elements_[index];
            const bool in_order =
                a.name_len < b.name_len ||
                (a.name_len == b.name_len && memcmp(a.name, b.name, a.name_len) < 0);
            require(in_order, std::string("tree order: ") + a.name + " before " + b.name);
        }
    }

    void check_element(const ds_service_elem_t &selem) {
        const std::string text = std::string("element ") + selem.name;
        require(selem.name_len == strlen(selem.name), text + ": name length");
        require(selem.name_hash == ds_hash_string(selem.name, selem.name_len), text + ": hash");
        check_list(selem.service_list, text + " services");
        check_list(selem.reg_list, text + " registrations");
        for (ds_service_t *service :
             members<ds_service_t>(selem.service_list, offsetof(ds_service_t, selem_link)))
            check_service(*service, selem, text);
        for (ds_client_reg_t *reg :
             members<ds_client_reg_t>(selem.reg_list, offsetof(ds_client_reg_t, selem_link)))
            check_registration(*reg, selem, text);
    }

    void check_service(const ds_service_t &service, const ds_service_elem_t &selem,
                       const std::string &text) {
        services_.insert(&service);
        require(service.selem == &selem, text + ": a service names another element");
        require(service.name_hash == selem.name_hash, text + ": a service's hash");
        require(service.publish_info != nullptr, text + ": a service without publish info");
        if (service.publish_info == nullptr) return;
        require(service.publish_info->held == 1, text + ": an info is not marked held");
        require(service.publish_info->borrowed == 0, text + ": a borrowed info is held");
    }

    void check_registration(const ds_client_reg_t &reg, const ds_service_elem_t &selem,
                            const std::string &text) {
        registrations_.insert(&reg);
        require(reg.selem == &selem, text + ": a registration names another element");
        require(reg.client != nullptr, text + ": a registration without client");
        require(reg.name_hash == selem.name_hash, text + ": a registration's hash");
        require(reg.client_link.prev != nullptr, text + ": a registration in no client's list");
    }

    void check_client(const ds_client_t &client) {
        const std::string text = "client " + std::to_string(client.client_idx);
        require(indexes_.insert(client.client_idx).second, text + ": index used twice");
        require(client.client_idx <= db_->client_idx_counter, text + ": index not handed out yet");
        check_list(client.service_list, text + " services");
        check_list(client.reg_list, text + " registrations");
        for (ds_service_t *service :
             members<ds_service_t>(client.service_list, offsetof(ds_service_t, client_link)))
            require(services_.count(service) != 0, text + ": a service that no element holds");
        std::set<uint32_t> handles;
        for (ds_client_reg_t *reg :
             members<ds_client_reg_t>(client.reg_list, offsetof(ds_client_reg_t, client_link))) {
            require(registrations_.count(reg) != 0, text + ": a registration on no element");
            require(reg->client == &client, text + ": a registration names another client");
            require(handles.insert(reg->handle).second, text + ": a handle used twice");
            require(reg->handle <= client.reg_handle_counter, text + ": handle not handed out");
        }
    }

    ds_db_t *db_;
    std::vector<ds_service_elem_t *> elements_;
    std::vector<ds_client_t *> clients_;
    std::set<const ds_service_t *> services_;
    std::set<const ds_client_reg_t *> registrations_;
    std::set<uint32_t> indexes_;
    std::vector<std::string> problems_;
};

void add_info(const ds_service_publish_info *info, std::set<const void *> &memory) {
    if (info == nullptr) return;
    memory.insert({info, info->service_name, info->entries});
    for (uint32_t index = 0; index < info->entries_count; ++index) {
        const ds_service_info_t &entry = info->entries[index];
        memory.insert({entry.ep_addr, entry.attrs, entry.instance});
    }
}

} // namespace

std::vector<std::string> validate(ds_db_t *db) {
    return db == nullptr ? std::vector<std::string>{} : Validator(db).run();
}

std::set<const void *> reachable_memory(ds_db_t *db) {
    std::set<const void *> memory{db};
    std::vector<ds_service_elem_t *> elements;
    collect(db->selem_tree.header.left, elements);
    for (ds_service_elem_t *selem : elements) {
        memory.insert({selem, selem->name});
        for (ds_service_t *service :
             members<ds_service_t>(selem->service_list, offsetof(ds_service_t, selem_link))) {
            memory.insert({service, service->instance});
            add_info(service->publish_info, memory);
        }
        for (ds_client_reg_t *reg :
             members<ds_client_reg_t>(selem->reg_list, offsetof(ds_client_reg_t, selem_link)))
            memory.insert(reg);
    }
    for (ds_client_t *client :
         members<ds_client_t>(db->client_list, offsetof(ds_client_t, client_link)))
        memory.insert(client);
    for (void *value : recording::table_values(&db->node_table))
        memory.insert({value, static_cast<ds_node_t *>(value)->addr});
    return memory;
}
