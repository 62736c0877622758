// Writes protobuf fields by hand, for the messages that are encoded on every change.
//
// As the generated code does, a number that is 0 and a text that is empty are left out.
#pragma once
#include <google/protobuf/io/coded_stream.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ds::host {

class Fields {
  public:
    explicit Fields(std::string &out) : out_(out) {}

    void number(int field, std::uint64_t value) {
        if (value == 0) return;
        tag(field, wire_varint);
        varint(value);
    }
    void fixed32(int field, std::uint32_t value) {
        if (value == 0) return;
        tag(field, wire_fixed32);
        std::uint8_t bytes[sizeof value];
        google::protobuf::io::CodedOutputStream::WriteLittleEndian32ToArray(value, bytes);
        append(bytes, sizeof bytes);
    }
    void text(int field, std::string_view value) {
        if (!value.empty()) message(field, value);
    }
    // An encoded message; written even when it is empty, for then it is still present.
    void message(int field, std::string_view encoded) {
        message_header(field, encoded.size());
        out_.append(encoded);
    }
    // Announces a message of that many bytes; the bytes have to follow.
    void message_header(int field, std::size_t bytes) {
        tag(field, wire_bytes);
        varint(bytes);
    }

    static std::size_t number_bytes(std::uint64_t value) {
        return value == 0 ? 0 : tag_bytes + varint_bytes(value);
    }
    static std::size_t message_bytes(std::size_t bytes) {
        return tag_bytes + varint_bytes(bytes) + bytes;
    }

  private:
    enum Wire : std::uint32_t { wire_varint = 0, wire_bytes = 2, wire_fixed32 = 5 };
    static constexpr std::size_t tag_bytes = 1; // field numbers up to 15

    static std::size_t varint_bytes(std::uint64_t value) {
        return google::protobuf::io::CodedOutputStream::VarintSize64(value);
    }
    void tag(int field, Wire wire) { varint(static_cast<std::uint32_t>(field) << 3 | wire); }
    void varint(std::uint64_t value) {
        std::uint8_t bytes[10];
        const auto *end =
            google::protobuf::io::CodedOutputStream::WriteVarint64ToArray(value, bytes);
        append(bytes, static_cast<std::size_t>(end - bytes));
    }
    void append(const std::uint8_t *bytes, std::size_t count) {
        out_.append(reinterpret_cast<const char *>(bytes), count);
    }

    std::string &out_;
};

} // namespace ds::host
