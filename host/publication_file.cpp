// The record of the publication sum in a mapped file.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "host/publication_sum.h"
#include "host/runtime_directory.h"
#include "host/unique_fd.h"

namespace ds::host {

namespace {

using Record = PublicationSum::Record;

constexpr char magic[8] = {'d', 's', 'p', 'u', 'b', 's', '0', '2'};

std::string machine_boot_id() {
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

bool is_of_boot(const Record &record, const std::string &boot_id) {
    return std::memcmp(record.magic, magic, sizeof magic) == 0 &&
           boot_id.compare(0, sizeof record.boot_id - 1, record.boot_id,
                           strnlen(record.boot_id, sizeof record.boot_id)) == 0;
}

Record *map_record(const std::string &path) {
    const auto fail = [&path](const char *what) {
        throw StartError(std::string(what) + ' ' + path + ": " + std::strerror(errno));
    };
    const UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) fail("cannot open");
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) fail("cannot look at");
    if (!S_ISREG(status.st_mode)) throw StartError(path + " is not a regular file");
    errno = posix_fallocate(file.get(), 0, sizeof(Record));
    if (errno != 0 || ftruncate(file.get(), sizeof(Record)) != 0) fail("cannot make room in");
    void *memory = mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) fail("cannot map");
    auto *record = static_cast<Record *>(memory);
    const std::string boot_id = machine_boot_id();
    if (!is_of_boot(*record, boot_id)) {
        std::memset(record, 0, sizeof *record);
        boot_id.copy(record->boot_id, sizeof record->boot_id - 1);
        std::memcpy(record->magic, magic, sizeof magic);
    }
    return record;
}

void unmap_record(Record *record) {
    munmap(record, sizeof *record);
}

} // namespace

PublicationSum::PublicationSum(const std::string &path)
    : PublicationSum(RecordOwner(map_record(path), unmap_record)) {}

} // namespace ds::host
