#include "host/listing.h"

#include "host/fields.h"
#include "host/snapshot.h"

namespace ds::host {

using v1::ListReply;

void encode_page(const Directory &directory, const v1::List &list, const IsAllowed &is_allowed,
                 std::string &out) {
    Fields fields(out);
    std::string snapshot;
    std::string_view last_name;
    std::size_t bytes = 0;
    std::uint32_t count = 0;
    ds_service_elem_t *element =
        list.after().empty() ? directory.first() : directory.first_behind(list.after());
    for (; element != nullptr; element = Directory::next(element)) {
        if (!has_live_services(element) || !is_allowed({element->name, element->name_len}))
            continue;
        snapshot.clear();
        encode_snapshot(element, snapshot);
        bytes += snapshot.size();
        const bool is_full =
            count > 0 && (bytes > page_bytes_max || (list.limit() != 0 && count == list.limit()));
        if (is_full) {
            fields.text(ListReply::kNextFieldNumber, last_name);
            return;
        }
        fields.message(ListReply::kNamesFieldNumber, snapshot);
        last_name = {element->name, element->name_len};
        count++;
    }
}

bool encode_name(const Directory &directory, const std::string &name, std::string &out) {
    ds_service_elem_t *element = directory.find(name);
    if (element == nullptr || !has_live_services(element)) return false;
    std::string snapshot;
    encode_snapshot(element, snapshot);
    Fields(out).message(ListReply::kNamesFieldNumber, snapshot);
    return true;
}

} // namespace ds::host
