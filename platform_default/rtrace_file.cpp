// Ring files: where they lie, how they come to be.
#include "platform/fts.h"
#include "platform_default/platform_default.h"
#include "ring_file.h"
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ds::ring::file_header;
using ds::ring::ring_description;

constexpr mode_t file_mode = 0640;

char ring_directory[PATH_MAX]; // empty = no files

struct ring_paths {
    char current[PATH_MAX + 80];
    char earlier[PATH_MAX + 80];
    char fresh[PATH_MAX + 80]; // while the file is being made
};

void make_paths(const char *channel, ring_paths &paths) {
    const struct {
        char *path;
        const char *suffix;
    } parts[] = {{paths.current, ""}, {paths.earlier, ".old"}, {paths.fresh, ".new"}};
    for (const auto &part : parts)
        std::snprintf(part.path, sizeof paths.current, "%s/%s.ring%s", ring_directory, channel,
                      part.suffix);
}

// The space is reserved now: a disk that is full is found here, and not by a signal at a record.
bool reserve(int fd, std::uint64_t bytes) {
    int failure = 0;
    do {
        failure = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    } while (failure == EINTR);
    if (failure != 0) errno = failure;
    return failure == 0;
}

void *map(int fd, std::uint64_t bytes) {
    const int flags = fd < 0 ? MAP_SHARED | MAP_ANONYMOUS : MAP_SHARED;
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, flags, fd, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

std::uint64_t wall_clock_ns() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

template <std::size_t N> void store_text(char (&field)[N], const char *text) {
    std::snprintf(field, N, "%s", text == nullptr ? "" : text);
}

file_header *fill_header(void *memory, const ring_description &ring) {
    auto *header = new (memory) file_header{};
    std::memcpy(header->magic, ds::ring::file_magic, sizeof header->magic);
    header->version = ds::ring::file_version;
    header->header_bytes = ds::ring::header_page_bytes;
    header->data_bytes = ring.data_bytes;
    header->wall_ns = wall_clock_ns();
    header->stamp_ns = fts_get_stamp_fast();
    header->option = ring.option;
    header->point_count = ring.point_count;
    header->pid = static_cast<std::uint32_t>(getpid());
    store_text(header->channel, ring.channel);
    store_text(header->format_id, ring.format_id);
    store_text(header->source_path, ring.source_path);
    return header;
}

void *map_new_file(const char *path, std::uint64_t bytes) {
    unlink(path);
    const int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, file_mode);
    if (fd < 0) return nullptr;
    void *memory = reserve(fd, bytes) ? map(fd, bytes) : nullptr;
    close(fd);
    if (memory == nullptr) unlink(path);
    return memory;
}

// Gives the finished file its name; the one that an earlier run left is kept beside it.
bool publish_file(const ring_paths &paths) {
    if (rename(paths.current, paths.earlier) != 0 && errno != ENOENT) return false;
    return rename(paths.fresh, paths.current) == 0;
}

bool is_channel_name(const char *channel) {
    const std::size_t length = std::strlen(channel);
    return length != 0 && length < sizeof(file_header::channel) && channel[0] != '.' &&
           std::strchr(channel, '/') == nullptr;
}

} // namespace

namespace ds::ring {

file_header *create_mapping(const ring_description &ring) {
    if (!is_channel_name(ring.channel)) return nullptr;
    const std::uint64_t bytes = header_page_bytes + ring.data_bytes;
    if (ring_directory[0] == '\0') {
        void *memory = map(-1, bytes);
        return memory == nullptr ? nullptr : fill_header(memory, ring);
    }
    ring_paths paths;
    make_paths(ring.channel, paths);
    void *memory = map_new_file(paths.fresh, bytes);
    if (memory == nullptr) return nullptr;
    file_header *header = fill_header(memory, ring);
    if (publish_file(paths)) return header;
    unlink(paths.fresh);
    destroy_mapping(header);
    return nullptr;
}

void destroy_mapping(file_header *header) {
    if (header != nullptr) munmap(header, header_page_bytes + header->data_bytes);
}

} // namespace ds::ring

int rtrace_set_directory(const char *path) {
    const std::size_t length = path == nullptr ? 0 : std::strlen(path);
    if (length >= sizeof ring_directory) return -1;
    std::memcpy(ring_directory, path == nullptr ? "" : path, length);
    ring_directory[length] = '\0';
    return 0;
}
