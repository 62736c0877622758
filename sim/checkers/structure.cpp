#include <cstring>
#include <string>

#include "platform_default/platform_default.h"
#include "sim/checkers/checkers.h"

namespace ds::sim {

namespace {

const char *text_of_list(const dbly_head_t &head, std::uint64_t most) {
    if (head.prev != nullptr) return "a list's head has a predecessor";
    const dbly_linkage_t *before = &head;
    for (const dbly_linkage_t *at = head.next; at != nullptr; at = at->next) {
        if (at->prev != before) return "a link back is wrong";
        if (most-- == 0) return "a list has no end";
        before = at;
    }
    return nullptr;
}

std::uint64_t in_use(const chunk_pool_t *pool) {
    chunk_usage_t usage;
    chunk_get_usage(pool, &usage);
    return usage.records_in_use;
}

template <typename Record> const Record *record_of(const dbly_linkage_t *at, std::size_t offset) {
    return reinterpret_cast<const Record *>(reinterpret_cast<const char *>(at) - offset);
}

class Walk {
  public:
    explicit Walk(const ds_db_t *db)
        : db_(db), services_max_(in_use(db->service_pool)),
          registrations_max_(in_use(db->client_reg_pool)) {}

    const char *run() {
        walk_elements();
        if (problem_ == nullptr) walk_clients();
        if (problem_ == nullptr) compare_counts();
        return problem_;
    }

  private:
    void require(bool holds, const char *problem) {
        if (!holds && problem_ == nullptr) problem_ = problem;
    }
    void check_list(const dbly_head_t &head, std::uint64_t most) {
        if (const char *problem = text_of_list(head, most)) require(false, problem);
    }

    void walk_elements() {
        auto *tree = const_cast<avl_root_t *>(&db_->selem_tree);
        const ds_service_elem_t *before = nullptr;
        for (avl_node_t *node = avl_get_first(tree); node != nullptr && problem_ == nullptr;
             node = avl_get_next(node)) {
            const auto *element = reinterpret_cast<const ds_service_elem_t *>(node);
            elements_++;
            if (before != nullptr) check_order(*before, *element);
            check_element(*element);
            before = element;
        }
    }

    void check_order(const ds_service_elem_t &a, const ds_service_elem_t &b) {
        require(a.name_len < b.name_len ||
                    (a.name_len == b.name_len && std::memcmp(a.name, b.name, a.name_len) < 0),
                "the tree is out of order");
    }

    void check_element(const ds_service_elem_t &element) {
        check_list(element.service_list, services_max_);
        check_list(element.reg_list, registrations_max_);
        if (problem_ != nullptr) return;
        for (const dbly_linkage_t *at = element.service_list.next; at != nullptr; at = at->next) {
            const auto &service = *record_of<ds_service_t>(at, offsetof(ds_service_t, selem_link));
            services_++;
            require(service.selem == &element, "a service names another element");
            require(service.name_hash == element.name_hash, "a service's hash is wrong");
            require(service.publish_info != nullptr && service.publish_info->held == 1,
                    "a service does not hold a publish info");
        }
        for (const dbly_linkage_t *at = element.reg_list.next; at != nullptr; at = at->next) {
            const auto &registration =
                *record_of<ds_client_reg_t>(at, offsetof(ds_client_reg_t, selem_link));
            registrations_++;
            require(registration.selem == &element, "a registration names another element");
            require(registration.client_link.prev != nullptr,
                    "a registration is in no client's list");
            require(registration.creg_ver <= element.selem_version,
                    "a registration has seen more than there is");
        }
    }

    void walk_clients() {
        check_list(db_->client_list, in_use(db_->client_pool));
        for (const dbly_linkage_t *at = db_->client_list.next; at != nullptr && problem_ == nullptr;
             at = at->next)
            check_client(*record_of<ds_client_t>(at, offsetof(ds_client_t, client_link)));
    }

    void check_client(const ds_client_t &client) {
        clients_++;
        check_list(client.service_list, services_max_);
        check_list(client.reg_list, registrations_max_);
        if (problem_ != nullptr) return;
        require(client.client_idx <= db_->client_idx_counter, "a client's index was not given");
        for (const dbly_linkage_t *at = client.service_list.next; at != nullptr; at = at->next)
            require(record_of<ds_service_t>(at, offsetof(ds_service_t, client_link))->proc_id ==
                        client.client_idx,
                    "a client's service has another publisher");
        for (const dbly_linkage_t *at = client.reg_list.next; at != nullptr; at = at->next) {
            client_registrations_++;
            require(
                record_of<ds_client_reg_t>(at, offsetof(ds_client_reg_t, client_link))->client ==
                    &client,
                "a registration names another client");
        }
    }

    void compare_counts() {
        require(db_->selem_tree.count == elements_, "the tree's count is wrong");
        require(in_use(db_->selem_pool) == elements_, "there are elements outside the tree");
        require(services_max_ == services_, "there are services on no element");
        require(registrations_max_ == registrations_, "there are registrations on no element");
        require(client_registrations_ == registrations_, "there are registrations of no client");
        require(in_use(db_->client_pool) == clients_, "there are clients outside the list");
    }

    const ds_db_t *db_;
    const std::uint64_t services_max_;
    const std::uint64_t registrations_max_;
    std::uint64_t elements_ = 0;
    std::uint64_t services_ = 0;
    std::uint64_t registrations_ = 0;
    std::uint64_t clients_ = 0;
    std::uint64_t client_registrations_ = 0;
    const char *problem_ = nullptr;
};

} // namespace

std::string find_broken_structure(const ds_db_t *db) {
    const char *problem = Walk(db).run();
    return problem != nullptr ? problem : "";
}

} // namespace ds::sim
