#include "host/config_keys.h"

#include <cstdio>

namespace ds::host {

namespace {

constexpr std::uint64_t path_bytes_max = 4'000;
constexpr std::uint64_t socket_path_bytes_max = 107; // what a socket's address has room for
constexpr std::uint64_t sessions_max = 1'000'000;    // descriptors that a process can have
constexpr std::uint64_t count_max = 1'000'000'000;
constexpr std::uint64_t queued_bytes_min = 65'536;
constexpr std::uint64_t queued_bytes_max = 1ull << 40;

std::string check_on_outage(const std::string &value, const UserDatabase &) {
    if (value == "expire" || value == "hold") return {};
    return "'" + value + "' is neither \"expire\" nor \"hold\"";
}

std::string check_node_address(const std::string &value, const UserDatabase &) {
    if (value.empty() || parse_node_address(value)) return {};
    return "'" + value + "' is no Ethernet address; write it as aa:bb:cc:dd:ee:ff";
}

std::string check_group(const std::string &value, const UserDatabase &users) {
    if (value.empty() || parse_user_number(value) || users.group(value)) return {};
    return "there is no group '" + value + "'; a group's name or number is allowed";
}

#define DS_TARGET(member)                                                                          \
    [](Config & c) -> auto & {                                                                     \
        return c.member;                                                                           \
    }
#define DS_LIMIT(resource) DS_TARGET(limits.everybody[Resource::resource])

const Key keys[] = {
    // clang-format off
    {"daemon", "runtime_dir", DS_TARGET(runtime_dir), 0, path_bytes_max, false,
     "Directory of the socket, the lock and the traces; made if missing. "
     "Empty: $RUNTIME_DIRECTORY, else /run/ds for root, else the directory ds in "
     "$XDG_RUNTIME_DIR."},
    {"daemon", "socket", DS_TARGET(socket), 0, socket_path_bytes_max, false,
     "Socket for clients. Empty: ds.sock in the runtime directory."},
    {"daemon", "socket_mode", DS_TARGET(socket_mode), 0, 0777, false,
     "Permissions of the socket: who may write it may connect.", Notation::octal},
    {"daemon", "socket_group", DS_TARGET(socket_group), 0, 255, false,
     "Group of the socket, a name or a number. Empty: the daemon's own.",
     Notation::plain, check_group},
    {"daemon", "trace_dir", DS_TARGET(trace_dir), 0, path_bytes_max, false,
     "Directory of the trace rings. Empty: $LOGS_DIRECTORY, else trace in the runtime directory."},
    {"daemon", "node_address", DS_TARGET(node_address), 0, 17, false,
     "Ethernet address that identifies this node. Empty: that of the first interface.",
     Notation::plain, check_node_address},
    {"daemon", "console", DS_TARGET(console), 0, 0, false,
     "Write every trace point to stderr as well."},

    {"restart", "window_ms", DS_TARGET(restart_window_ms), 0, 300'000, false,
     "After a restart, how long clients may take to come back before what they published counts "
     "as gone. 0: they get no time."},

    {"relay", "endpoints", DS_TARGET(relay.endpoints), 0, 4000, false,
     "Members of the etcd cluster that carries services to other nodes, as \"http://HOST:PORT\" or "
     "\"https://HOST:PORT\", separated by blanks. Empty: services stay on this node."},
    {"relay", "cluster", DS_TARGET(relay.cluster), 1, 64, false,
     "Nodes with the same cluster name see each other."},
    {"relay", "rack", DS_TARGET(relay.rack), 1, 64, false,
     "Services of scope rack reach the nodes with the same rack."},
    {"relay", "ca_file", DS_TARGET(relay.ca_file), 0, path_bytes_max, false,
     "Certificates of the authority of the etcd members (PEM). Empty: those that the system "
     "trusts."},
    {"relay", "cert_file", DS_TARGET(relay.cert_file), 0, path_bytes_max, false,
     "Certificate of this node for etcd (PEM)."},
    {"relay", "key_file", DS_TARGET(relay.key_file), 0, path_bytes_max, false,
     "Key of that certificate (PEM)."},
    {"relay", "ttl_ms", DS_TARGET(relay.ttl_ms), 2'000, 3'600'000, false,
     "Without a sign of life for this long, other nodes take this one for dead."},
    {"relay", "on_outage", DS_TARGET(relay.on_outage), 0, 6, false,
     "What becomes of other nodes' services when etcd cannot be reached: \"expire\" (they go after "
     "30 s) or \"hold\" (they stay).", Notation::plain, check_on_outage},
    {"relay", "keep_published", DS_TARGET(relay.keep_published), 0, 0, false,
     "Leave this node's services to the next daemon when this one is stopped, for as long as the "
     "TTL, instead of withdrawing them."},

    {"limits", "sessions_total", DS_TARGET(limits.sessions_total), 1, sessions_max, true,
     "Sessions of all users together."},
    {"limits", "sessions", DS_LIMIT(sessions), 0, sessions_max, true,
     "Sessions of one user; further connections are refused."},
    {"limits", "publications", DS_LIMIT(publications), 0, count_max, true,
     "Publications of one user in all of its sessions."},
    {"limits", "registrations", DS_LIMIT(registrations), 0, count_max, true,
     "Registrations of one user in all of its sessions."},
    {"limits", "queued_bytes", DS_LIMIT(queued_bytes), queued_bytes_min, queued_bytes_max, true,
     "Unsent bytes for one user in all of its sessions; above it, sessions that do not take "
     "their data are not read from until they do."},
    // clang-format on
};

#undef DS_LIMIT
#undef DS_TARGET

} // namespace

std::span<const Key> config_keys() {
    return keys;
}

const Key *find_key(std::string_view section, std::string_view name) {
    for (const Key &key : keys)
        if (key.section == section && key.name == name) return &key;
    return nullptr;
}

std::string full_name(const Key &key) {
    return std::string(key.section) + "." + key.name;
}

std::string number_text(const Key &key, std::uint64_t value) {
    if (key.notation == Notation::plain) return std::to_string(value);
    char text[32];
    std::snprintf(text, sizeof text, "0o%lo", static_cast<unsigned long>(value));
    return text;
}

std::string allowed_values(const Key &key) {
    if (std::holds_alternative<Key::Flag>(key.target)) return "true or false";
    const std::string range = number_text(key, key.min) + " to " + number_text(key, key.max);
    return std::holds_alternative<Key::Text>(key.target) ? range + " bytes" : range;
}

// Targets hand out references that can be written to; what is const here is only read.

bool has_same_value(const Key &key, const Config &one, const Config &other) {
    auto &first = const_cast<Config &>(one);
    auto &second = const_cast<Config &>(other);
    return std::visit([&](auto target) { return target(first) == target(second); }, key.target);
}

void copy_value(const Key &key, const Config &from, Config &to) {
    auto &source = const_cast<Config &>(from);
    std::visit([&](auto target) { target(to) = target(source); }, key.target);
}

} // namespace ds::host
