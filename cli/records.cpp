#include "cli/records.h"

namespace ds::cli {
namespace {

// As it stands within an array that json_document() has written.
std::string array_item(const Json &object) {
    std::string text = json_document(object);
    text.pop_back();
    for (std::size_t at = 0; (at = text.find('\n', at)) != text.npos; at += 3)
        text.insert(at + 1, "  ");
    return "  " + text;
}

} // namespace

void Records::add(const Json &object) {
    if (context_.format == Format::jsonl) {
        page_ += json_line(object);
        return;
    }
    page_ += is_open_ ? ",\n" : "[\n";
    page_ += array_item(object);
    is_open_ = true;
}

void Records::end_page() {
    if (!context_.is_json()) page_ = table_.take_page(context_.color());
    print(page_);
    page_.clear();
}

void Records::finish() {
    end_page();
    if (context_.format == Format::json) print(is_open_ ? "\n]\n" : "[]\n");
}

void print_object(const Context &context, const Json &object) {
    print(context.format == Format::json ? json_document(object) : json_line(object));
}

} // namespace ds::cli
