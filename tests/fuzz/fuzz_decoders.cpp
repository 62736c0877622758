// The decoders of what other nodes and clients send, and the reader of trace rings: no byte
// sequence may be read beyond its end, and what decodes must come back from its encoding.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

#include "input.h"
#include "platform/ds_common.h"
#include "platform_default/platform_default.h"
#include "platform_default/ring_format.h"
#include "platform_default/ring_reader.h"

namespace ds::fuzz {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t ring_head_offset = offsetof(ring::file_header, head);
constexpr std::size_t changing_words = 4;
constexpr std::uint8_t service_endpoint_tag = 3; // as docs/formats.md has it

template <typename T> std::unique_ptr<T, decltype(&std::free)> owned(T *memory) {
    return {memory, std::free};
}

void check_attributes(const Bytes &bytes) {
    ds_service_attrs_t attrs;
    const std::int32_t used =
        vidl_ds_service_attrs_decode_ext(&attrs, bytes.data(), bytes.size(), std::malloc, 0, 0);
    const auto memory = owned(attrs.attrs);
    if (used < 0) {
        require(attrs.attrs == nullptr && attrs.attrs_count == 0, "attributes after a failure");
        return;
    }
    require(static_cast<std::size_t>(used) <= bytes.size(), "more attribute bytes than there are");
    Bytes encoded(attrs.attrs_count * std::size_t{536});
    const std::int32_t written = vidl_ds_service_attrs_encode_ext(
        &attrs, encoded.data(), static_cast<std::uint32_t>(encoded.size()), 0, 0, 0);
    require(static_cast<std::size_t>(written) == bytes.size() && written == used &&
                std::equal(bytes.begin(), bytes.end(), encoded.begin()),
            "attributes are encoded otherwise than they came");
    for (std::int32_t room = 0; room < written; room += 5) {
        Bytes small(static_cast<std::size_t>(room));
        require(vidl_ds_service_attrs_encode_ext(&attrs, small.data(),
                                                 static_cast<std::uint32_t>(room), 0, 0, 0) == -1,
                "attributes are encoded into too little room");
    }
}

void check_endpoint(const Bytes &bytes) {
    vidl_vipc_endpoint_t endpoint;
    const std::int32_t used =
        vidl_vipc_endpoint_decode_ext(&endpoint, bytes.data(), bytes.size(), std::malloc, 0, 0);
    std::uint32_t address = 0;
    std::uint32_t port = 0;
    const int result = ds_decode_endpoint(bytes.data(), bytes.size(), &address, &port);
    require((result == 0) == (used >= 0), "the two endpoint decoders disagree");
    if (result != 0) return;
    require(endpoint.port == port && endpoint.address[0] == address >> 24 &&
                endpoint.address[3] == (address & 255),
            "the two endpoint decoders read different values");
    Bytes encoded(bytes.size());
    const auto capacity = static_cast<std::uint32_t>(encoded.size());
    const char *rest = reinterpret_cast<const char *>(bytes.data()) + DS_ENDPOINT_IP_BYTES;
    const std::int32_t written =
        bytes[0] == service_endpoint_tag
            ? ds_encode_service_endpoint(address, port, bytes[1], rest,
                                         bytes.size() - DS_ENDPOINT_IP_BYTES, encoded.data(),
                                         capacity)
            : ds_encode_endpoint(address, port, encoded.data(), capacity);
    require(written == used && encoded == bytes, "an endpoint is encoded otherwise than it came");
}

void check_path(const Bytes &bytes) {
    vidl_ds_ep_path_t path;
    const std::int32_t used =
        vidl_ds_ep_path_decode_ext(&path, bytes.data(), bytes.size(), std::malloc, 0, 0);
    const auto memory = owned(path.path);
    require((used >= 0) == (path.path != nullptr), "a path after a failure, or none");
    if (used < 0) return;
    Bytes encoded(DS_ENDPOINT_PATH_BYTES_MAX);
    const std::int32_t written = ds_encode_path(path.path, std::strlen(path.path), encoded.data(),
                                                static_cast<std::uint32_t>(encoded.size()));
    encoded.resize(written < 0 ? 0 : static_cast<std::size_t>(written));
    require(encoded == bytes, "a path is encoded otherwise than it came");
}

void read_records(ring::Reader &reader) {
    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const std::vector<ring::Record> records = reader.read(position, lost);
    for (const ring::Record &record : records) {
        ring::text(record, "%s %d %08x %lu %p %% %u %ld");
        reader.wall_of(record.stamp_ns);
    }
    const std::uint64_t reached = position;
    require(reader.read(position, lost).empty() && position == reached,
            "a ring at rest has news at every reading");
}

// The writer's process writes what it likes while the file is mapped here, and may cut it off.
void spoil_and_read(int fd, std::size_t file_bytes, ring::Reader &reader, Input &input) {
    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    while (!input.is_at_end()) {
        const std::size_t word = input.byte(); // one that the header changes, or of the data
        const std::size_t offset = word < changing_words
                                       ? ring_head_offset + word * 8
                                       : ring::header_page_bytes + (word - changing_words) * 8;
        const Bytes bytes = input.bytes(8);
        const auto count = static_cast<ssize_t>(bytes.size());
        require(pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)) == count,
                "no write");
        require(ftruncate(fd, static_cast<off_t>(file_bytes)) == 0, "no change of the size");
        const std::uint64_t before = position;
        reader.read(position, lost);
        require(position >= before, "a position goes back");
    }
    require(ftruncate(fd, 0) == 0, "no change of the size");
    require(reader.read(position, lost).empty(), "a file without content gives records");
}

void read_ring(const Bytes &file, Input &input) {
    const int fd = memfd_create("ring", MFD_CLOEXEC);
    require(fd >= 0, "no memory file");
    require(write(fd, file.data(), file.size()) == static_cast<ssize_t>(file.size()), "no write");
    std::string error;
    const auto reader = ring::Reader::open("/proc/self/fd/" + std::to_string(fd), error);
    require((reader == nullptr) == !error.empty(), "no ring and no reason, or both");
    if (reader != nullptr) {
        read_records(*reader);
        spoil_and_read(fd, file.size(), *reader, input);
    }
    close(fd);
}

// A sound header in front of arbitrary records, else hardly an input would get past the checks.
void check_ring_data(Input &input) {
    const std::uint64_t data_bytes = (input.byte() + 1) * std::uint64_t{8};
    const std::uint64_t tail = (input.number() % 4096) * std::uint64_t{8};
    const std::uint64_t length = input.below(data_bytes / 8 + 1) * 8;
    ring::file_header header = {};
    std::memcpy(header.magic, ring::file_magic, sizeof header.magic);
    header.version = ring::file_version;
    header.header_bytes = ring::header_page_bytes;
    header.data_bytes = data_bytes;
    header.records_written = input.byte();
    header.tail = tail;
    header.head = tail + length;
    Bytes file(ring::header_page_bytes + data_bytes);
    std::memcpy(file.data(), &header, sizeof header);
    const Bytes data = input.bytes(data_bytes);
    if (!data.empty()) std::memcpy(file.data() + ring::header_page_bytes, data.data(), data.size());
    read_ring(file, input);
}

} // namespace
} // namespace ds::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ds::fuzz;
    Input input(data, size);
    switch (input.below(5)) {
    case 0:
        check_attributes(input.bytes(size));
        break;
    case 1:
        check_endpoint(input.bytes(size));
        break;
    case 2:
        check_path(input.bytes(size));
        break;
    case 3:
        check_ring_data(input);
        break;
    default: {
        const Bytes file = input.bytes(size);
        read_ring(file, input);
        break;
    }
    }
    return 0;
}
