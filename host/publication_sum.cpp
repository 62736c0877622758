#include "host/publication_sum.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "ds_server_lib.h"
#include "host/runtime_directory.h"

namespace ds::host {

struct PublicationSum::Record {
    char magic[8];
    char boot_id[40]; // of the machine's boot, as the kernel writes it
    std::uint64_t sum;
    std::uint64_t is_inexact; // 1: there were publications while the sum was not settled
};

namespace {

constexpr char magic[8] = {'d', 's', 'p', 'u', 'b', 's', '0', '2'};

std::string machine_boot_id() {
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

// The hash of a whole identity; the bytes between the texts can be in neither.
std::uint64_t hash_of(std::string_view name, std::string_view instance, std::uint32_t scope) {
    std::string identity(name);
    identity += '\0';
    identity += instance;
    identity += '\0';
    identity += static_cast<char>('0' + scope);
    // The low bits of djb2 are alike for texts that are; multiplying spreads them before they are
    // added up.
    constexpr std::uint64_t spread = 0x9e3779b97f4a7c15;
    const std::uint64_t hash = ds_hash_string(identity.data(), identity.size()) * spread;
    return hash ^ hash >> 32;
}

} // namespace

PublicationSum::PublicationSum(const std::string &path) {
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
    record_ = static_cast<Record *>(memory);
    const std::string boot_id = machine_boot_id();
    const bool is_ours = std::memcmp(record_->magic, magic, sizeof magic) == 0 &&
                         boot_id.compare(0, sizeof record_->boot_id - 1, record_->boot_id,
                                         strnlen(record_->boot_id, sizeof record_->boot_id)) == 0;
    if (!is_ours) {
        std::memset(record_, 0, sizeof *record_);
        boot_id.copy(record_->boot_id, sizeof record_->boot_id - 1);
        std::memcpy(record_->magic, magic, sizeof magic);
    }
    expected_ = record_->sum;
    is_exact_ = record_->is_inexact == 0;
}

PublicationSum::~PublicationSum() {
    if (record_ != nullptr) munmap(record_, sizeof *record_);
}

void PublicationSum::add(std::string_view name, std::string_view instance, std::uint32_t scope) {
    if (!is_settled_ && record_ != nullptr) record_->is_inexact = 1;
    count_++;
    change(hash_of(name, instance, scope));
}

void PublicationSum::remove(std::string_view name, std::string_view instance, std::uint32_t scope) {
    count_--;
    change(-hash_of(name, instance, scope));
}

void PublicationSum::change(std::uint64_t by) {
    sum_ += by;
    if (is_settled_ && record_ != nullptr) record_->sum = sum_;
}

void PublicationSum::settle() {
    is_settled_ = true;
    if (record_ == nullptr) return;
    record_->sum = sum_;
    record_->is_inexact = 0;
}

} // namespace ds::host
