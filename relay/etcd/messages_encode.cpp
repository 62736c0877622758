#include <openssl/evp.h>

#include "relay/etcd/messages.h"

namespace ds::relay::etcd {

namespace {

// Writes an object. Every text that goes in is base64 or a constant, so nothing needs escaping.
class Object {
  public:
    explicit Object(std::string &out) : out_(out) { out_ += '{'; }
    ~Object() { out_ += '}'; }
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    void constant(std::string_view name, std::string_view text) {
        start(name);
        quoted(text);
    }
    void bytes(std::string_view name, std::string_view value) {
        if (!value.empty()) constant(name, to_base64(value));
    }
    // The gateway writes 64-bit numbers as texts, and takes them as such.
    void number(std::string_view name, std::int64_t value) {
        constant(name, std::to_string(value));
    }
    void flag(std::string_view name) {
        start(name);
        out_ += "true";
    }
    std::string &start(std::string_view name) {
        if (!is_first_) out_ += ',';
        is_first_ = false;
        quoted(name);
        out_ += ':';
        return out_;
    }

  private:
    void quoted(std::string_view text) { out_.append(1, '"').append(text).append(1, '"'); }

    std::string &out_;
    bool is_first_ = true;
};

template <typename Item, typename Write>
void write_array(std::string &out, const std::vector<Item> &items, Write write) {
    out += '[';
    bool is_first = true;
    for (const Item &item : items) {
        if (!is_first) out += ',';
        is_first = false;
        write(out, item);
    }
    out += ']';
}

void write_range(std::string &out, const RangeRequest &request) {
    Object object(out);
    object.bytes("key", request.keys.begin);
    object.bytes("range_end", request.keys.end);
    if (request.revision != 0) object.number("revision", request.revision);
    if (request.limit != 0) object.number("limit", request.limit);
    if (request.keys_only) object.flag("keys_only");
}

void write_compare(std::string &out, const Compare &compare) {
    Object object(out);
    object.bytes("key", compare.key);
    object.constant("result", "EQUAL");
    switch (compare.target) {
    case Compare::Target::create_revision:
        object.constant("target", "CREATE");
        object.number("create_revision", compare.revision);
        break;
    case Compare::Target::mod_revision:
        object.constant("target", "MOD");
        object.number("mod_revision", compare.revision);
        break;
    case Compare::Target::value:
        object.constant("target", "VALUE");
        object.bytes("value", compare.value);
        break;
    }
}

void write_put(std::string &out, const Operation &operation) {
    Object object(out);
    object.bytes("key", operation.keys.begin);
    object.bytes("value", operation.value);
    if (operation.lease != 0) object.number("lease", operation.lease);
}

void write_operation(std::string &out, const Operation &operation) {
    Object object(out);
    switch (operation.kind) {
    case Operation::Kind::put:
        write_put(object.start("request_put"), operation);
        break;
    case Operation::Kind::remove:
        write_range(object.start("request_delete_range"), {.keys = operation.keys});
        break;
    case Operation::Kind::range:
        write_range(object.start("request_range"), {.keys = operation.keys});
        break;
    }
}

} // namespace

std::string encode_range(const RangeRequest &request) {
    std::string out;
    write_range(out, request);
    return out;
}

std::string encode_transaction(const Transaction &transaction) {
    std::string out;
    {
        Object object(out);
        write_array(object.start("compare"), transaction.compares, write_compare);
        write_array(object.start("success"), transaction.on_success, write_operation);
        write_array(object.start("failure"), transaction.on_failure, write_operation);
    }
    return out;
}

std::string encode_lease_grant(std::int64_t ttl_s) {
    std::string out;
    { Object(out).number("TTL", ttl_s); }
    return out;
}

std::string encode_lease(std::int64_t lease) {
    std::string out;
    { Object(out).number("ID", lease); }
    return out;
}

std::string encode_watch(const KeyRange &range, std::int64_t start_revision) {
    std::string out;
    {
        Object request(out);
        Object create(request.start("create_request"));
        create.bytes("key", range.begin);
        create.bytes("range_end", range.end);
        create.number("start_revision", start_revision);
    }
    return out;
}

std::string to_base64(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0'); // the encoder writes a NUL behind it
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                       reinterpret_cast<const unsigned char *>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

} // namespace ds::relay::etcd
