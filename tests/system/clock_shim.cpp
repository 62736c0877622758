// Loaded into a program before the C library: shifts the time of day by as many seconds as the file
// that DS_TEST_CLOCK names holds at the moment. Clocks that only run are left alone.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

using Shift = const volatile std::int64_t;

Shift *map_shift() {
    const char *path = std::getenv("DS_TEST_CLOCK");
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    void *memory = mmap(nullptr, sizeof(Shift), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) std::abort();
    return static_cast<Shift *>(memory);
}

std::int64_t shift_s() {
    static Shift *const shift = map_shift();
    return *shift;
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec *now) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += shift_s();
    return result;
}

int gettimeofday(timeval *now, void *) noexcept {
    timespec precise = {};
    if (clock_gettime(CLOCK_REALTIME, &precise) != 0) return -1;
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

std::time_t time(std::time_t *out) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

} // extern "C"
