// What names look like: to clients, and inside the directory.
//
// The directory matches an instance by its beginning, so "node1" would hit "node10". Every instance
// therefore ends with ';' inside the directory, ";" alone standing for no instance, and ';' is not
// allowed in the names that clients use. That makes every match exact, on this node and on every
// other.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace ds::host {

inline constexpr char instance_end = ';';

struct TextRule {
    const char *field; // how a refusal calls it
    std::size_t bytes_min;
    std::size_t bytes_max;
    bool semicolon_allowed;
};

extern const TextRule service_name_rule;
extern const TextRule instance_rule;
extern const TextRule path_rule;
extern const TextRule display_name_rule;

// Empty when the text is printable UTF-8 that obeys the rule, else one sentence that says what is
// wrong with it and what is allowed. Refused are malformed UTF-8 and control characters (U+0000 to
// U+001F, U+007F to U+009F).
std::string check_text(const TextRule &rule, std::string_view text);

// The instance as the directory knows it, and back. An instance that another node's software gave
// without the ending is shown as it is.
std::string to_directory_instance(std::string_view instance);
std::string_view to_client_instance(const char *directory_instance); // null: no instance

} // namespace ds::host
