#include "structure.h"

#include <cstring>
#include <set>
#include <string>

#include "input.h"

namespace ds::fuzz {

namespace {

class Structure {
  public:
    explicit Structure(ds_db_t *db) : db_(db) {}

    void check() {
        check_elements();
        check_list(db_->client_list);
        for (ds_client_t *client = ds_client_get_client_list_head(); client != nullptr;
             client = ds_client_get_next_in_client_list(client))
            check_client(*client);
        require(owned_ <= services_.size(), "clients own more services than there are");
        require(listed_ == registrations_.size(), "a registration is in no client's list");
    }

  private:
    void check_elements() {
        std::size_t count = 0;
        const ds_service_elem_t *before = nullptr;
        for (avl_node_t *node = avl_get_first(&db_->selem_tree); node != nullptr;
             node = avl_get_next(node)) {
            auto *selem = reinterpret_cast<ds_service_elem_t *>(node);
            if (before != nullptr)
                require(before->name_len < selem->name_len ||
                            (before->name_len == selem->name_len &&
                             std::strcmp(before->name, selem->name) < 0),
                        "the tree is out of order");
            check_element(*selem);
            before = selem;
            count++;
        }
        require(count == db_->selem_tree.count, "the tree's count is wrong");
    }

    // A list that bites its tail has a member whose link back is wrong.
    static void check_list(const dbly_head_t &head) {
        require(head.prev == nullptr, "a list's head has a predecessor");
        const dbly_linkage_t *before = &head;
        for (const dbly_linkage_t *at = head.next; at != nullptr; at = at->next) {
            require(at->prev == before, "a link back is wrong");
            before = at;
        }
    }

    void check_element(ds_service_elem_t &selem) {
        require(selem.name_len == std::strlen(selem.name), "a name has another length");
        require(selem.name_hash == ds_hash_string(selem.name, selem.name_len), "a wrong hash");
        ds_service_elem_t *found = nullptr;
        require(ds_db_find_service_element(selem.name, &found) == 0 && found == &selem,
                "an element is not found under its name");
        check_list(selem.service_list);
        check_list(selem.reg_list);
        for (ds_service_t *service = ds_service_get_service_list_head(&selem); service != nullptr;
             service = ds_service_get_next_in_service_list(service))
            check_service(*service, selem);
        for (ds_client_reg_t *reg = ds_service_get_client_reg_list_head(&selem); reg != nullptr;
             reg = ds_service_get_next_in_client_reg_list(reg)) {
            registrations_.insert(reg);
            require(reg->selem == &selem && reg->name_hash == selem.name_hash,
                    "a registration names another element");
            require(reg->creg_ver <= selem.selem_version, "a version was told that never was");
        }
    }

    void check_service(const ds_service_t &service, const ds_service_elem_t &selem) {
        services_.insert(&service);
        require(service.selem == &selem && service.name_hash == selem.name_hash,
                "a service names another element");
        const ds_service_publish_info *info = service.publish_info;
        require(info != nullptr && info->held == 1 && info->borrowed == 0,
                "a service does not hold its info");
        require(std::strcmp(info->service_name, selem.name) == 0, "an info has another name");
    }

    void check_client(ds_client_t &client) {
        require(indexes_.insert(client.client_idx).second, "a client index is used twice");
        require(client.client_idx <= db_->client_idx_counter, "an index that was not given out");
        check_list(client.service_list);
        check_list(client.reg_list);
        for (ds_service_t *service = ds_client_get_service_list_head(&client); service != nullptr;
             service = ds_client_get_next_in_service_list(service)) {
            require(services_.count(service) == 1, "a client's service that no element holds");
            require(service->proc_id == client.client_idx, "a client's service of another");
            owned_++;
        }
        std::set<std::uint32_t> handles;
        for (ds_client_reg_t *reg = ds_client_get_client_reg_list_head(&client); reg != nullptr;
             reg = ds_client_get_next_in_client_reg_list(reg)) {
            require(registrations_.count(reg) == 1, "a registration on no element");
            require(reg->client == &client, "a registration names another client");
            require(handles.insert(reg->handle).second, "a handle is used twice");
            require(reg->handle <= client.reg_handle_counter, "a handle that was not given out");
            listed_++;
        }
    }

    ds_db_t *db_;
    std::set<const ds_service_t *> services_;
    std::set<const ds_client_reg_t *> registrations_;
    std::set<std::uint32_t> indexes_;
    std::size_t owned_ = 0;
    std::size_t listed_ = 0;
};

} // namespace

void check_structure(ds_db_t *db) {
    Structure(db).check();
}

} // namespace ds::fuzz
