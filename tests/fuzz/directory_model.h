// A plain directory: what publishing, registering and the rest do to names, written without the
// library's lists, trees and records. Exact while no restart period is open.
#pragma once
#include <map>
#include <optional>
#include <string>

#include "directory_state.h"

namespace ds::fuzz {

struct ModelClient {
    std::uint32_t index = 0;
    std::uint32_t process = 0;
};

// What a publication or withdrawal names. The relay's has an id and no client.
struct Target {
    std::string name;
    std::optional<std::string> instance;
    std::uint32_t scope = 0;
    std::uint32_t proc_id = 0;
    const ds_node_t *node = nullptr;
    std::uint32_t id = 0; // 0 for any
};

class DirectoryModel {
  public:
    // Takes over what is there: after a restart period, which the model does not follow.
    void adopt(Elements elements, std::map<RegistrationKey, Told> told, std::uint32_t next_id);

    // client: the publisher's handle, null for the relay. entry: the endpoint entry as text.
    void publish(const Target &target, const std::uint64_t *client, const std::string &entry);
    void leave_empty_element(const std::string &name) { elements[name]; }
    bool withdraw(const Target &target); // false: there is no such service
    void register_name(const std::string &name, RegistrationKey key, std::uint64_t cookie);
    void unregister(const std::string &name, RegistrationKey key);
    void tell_one(const std::string &name, RegistrationKey key);
    void delete_client(std::uint64_t client);
    void node_down(const ds_node_t *node);

    std::uint32_t published_names() const; // with a service that is no placeholder
    std::uint32_t registered_names() const;

    Elements elements;
    std::map<RegistrationKey, Told> told;
    std::map<std::uint64_t, ModelClient> clients; // by handle

  private:
    ServiceState *find(const Target &target);
    void tell_all(const std::string &name, ElementState &element);
    void tell(const std::string &name, const ElementState &element, RegistrationKey key);
    void remove_at(const std::string &name, std::size_t index);

    std::uint32_t next_id_ = 0;
};

} // namespace ds::fuzz
