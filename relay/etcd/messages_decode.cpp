#include <charconv>
#include <stdexcept>

#include <boost/json.hpp>
#include <openssl/evp.h>

#include "relay/etcd/messages.h"

namespace ds::relay::etcd {

namespace json = boost::json;

namespace {

// The gateway leaves out every field that is zero, false or empty.

std::int64_t number_of(const json::object &object, std::string_view name) {
    const json::value *value = object.if_contains(name);
    if (value == nullptr) return 0;
    if (value->is_int64()) return value->get_int64();
    const json::string &text = value->as_string();
    std::int64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size())
        throw std::runtime_error("the store's answer holds no number where one belongs");
    return number;
}

bool flag_of(const json::object &object, std::string_view name) {
    const json::value *value = object.if_contains(name);
    return value != nullptr && value->as_bool();
}

std::string text_of(const json::object &object, std::string_view name) {
    const json::value *value = object.if_contains(name);
    return value != nullptr ? std::string(value->as_string()) : std::string();
}

std::string bytes_of(const json::object &object, std::string_view name) {
    const json::value *value = object.if_contains(name);
    return value != nullptr ? from_base64(value->as_string()) : std::string();
}

const json::array &array_of(const json::object &object, std::string_view name) {
    static const json::array empty;
    const json::value *value = object.if_contains(name);
    return value != nullptr ? value->as_array() : empty;
}

std::int64_t revision_of(const json::object &object) {
    const json::value *header = object.if_contains("header");
    return header != nullptr ? number_of(header->as_object(), "revision") : 0;
}

KeyValue item_of(const json::object &object) {
    KeyValue item;
    item.key = bytes_of(object, "key");
    item.value = bytes_of(object, "value");
    item.create_revision = number_of(object, "create_revision");
    item.mod_revision = number_of(object, "mod_revision");
    item.lease = number_of(object, "lease");
    return item;
}

RangeReply range_of(const json::object &object) {
    RangeReply reply;
    reply.revision = revision_of(object);
    reply.more = flag_of(object, "more");
    for (const json::value &item : array_of(object, "kvs"))
        reply.items.push_back(item_of(item.as_object()));
    return reply;
}

LeaseReply lease_of(const json::object &object) {
    return {number_of(object, "ID"), number_of(object, "TTL"), number_of(object, "grantedTTL")};
}

// A line of a stream holds a result or an error.
const json::object &result_of(const json::object &line) {
    if (const json::value *error = line.if_contains("error"))
        throw std::runtime_error(text_of(error->as_object(), "message"));
    return line.at("result").as_object();
}

WatchEvent event_of(const json::object &object) {
    const std::string type = text_of(object, "type");
    if (!type.empty() && type != "PUT" && type != "DELETE")
        throw std::runtime_error("the store reports an event of unknown type " + type);
    return {type == "DELETE", item_of(object.at("kv").as_object())};
}

} // namespace

RangeReply decode_range(std::string_view text) {
    return range_of(json::parse(text).as_object());
}

TransactionReply decode_transaction(std::string_view text) {
    const json::value parsed = json::parse(text);
    const json::object &object = parsed.as_object();
    TransactionReply reply;
    reply.revision = revision_of(object);
    reply.succeeded = flag_of(object, "succeeded");
    for (const json::value &response : array_of(object, "responses"))
        if (const json::value *range = response.as_object().if_contains("response_range"))
            reply.ranges.push_back(range_of(range->as_object()));
    return reply;
}

LeaseReply decode_lease(std::string_view text) {
    return lease_of(json::parse(text).as_object());
}

LeaseReply decode_keep_alive(std::string_view text) {
    return lease_of(result_of(json::parse(text).as_object()));
}

MemberReply decode_member(std::string_view text) {
    const json::value parsed = json::parse(text);
    const json::object &object = parsed.as_object();
    return {text_of(object, "version"), text_of(object, "leader"), revision_of(object),
            number_of(object, "dbSize")};
}

WatchReply decode_watch(std::string_view text) {
    const json::value parsed = json::parse(text);
    const json::object &object = result_of(parsed.as_object());
    WatchReply reply;
    reply.revision = revision_of(object);
    reply.is_created = flag_of(object, "created");
    reply.is_cancelled = flag_of(object, "canceled");
    reply.compact_revision = number_of(object, "compact_revision");
    reply.cancel_reason = text_of(object, "cancel_reason");
    for (const json::value &event : array_of(object, "events"))
        reply.events.push_back(event_of(event.as_object()));
    return reply;
}

std::string decode_error(std::string_view text) {
    boost::system::error_code error;
    const json::value parsed = json::parse(text, error);
    if (!error && parsed.is_object()) {
        const json::value *value = parsed.get_object().if_contains("error");
        if (value != nullptr && value->is_string()) return std::string(value->get_string());
    }
    return std::string(text.substr(0, 200));
}

std::string from_base64(std::string_view text) {
    if (text.empty()) return {};
    std::string bytes(text.size() / 4 * 3 + 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                                       reinterpret_cast<const unsigned char *>(text.data()),
                                       static_cast<int>(text.size()));
    if (length < 0 || text.size() % 4 != 0)
        throw std::runtime_error("the store's answer holds no base64 where it belongs");
    // The decoder counts the padding as bytes.
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    bytes.resize(static_cast<std::size_t>(length) - padding);
    return bytes;
}

} // namespace ds::relay::etcd
