#include "cli/wait.h"

#include <iterator>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace ds::cli {
StopSignals::StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction now {};
        if (::sigaction(number, nullptr, &now) == 0 && now.sa_handler == SIG_IGN) continue;
        sigaddset(&signals, number);
    }
    ::sigprocmask(SIG_BLOCK, &signals, &before_);
    fd_ = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

StopSignals::~StopSignals() {
    // What is still pending was taken as the wish to stop; delivering it now would spoil the exit
    // code.
    signalfd_siginfo taken{};
    while (fd_ >= 0 && ::read(fd_, &taken, sizeof taken) > 0)
        continue;
    if (fd_ >= 0) ::close(fd_);
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

Wake wait_for(const Daemon &daemon, const StopSignals &stop, int input_fd,
              client::Deadline deadline) {
    pollfd items[] = {{daemon.fd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}, {input_fd, POLLIN, 0}};
    const int ready = ::poll(items, std::size(items), client::left_ms(deadline));
    Wake wake;
    wake.timeout = ready == 0;
    if (ready <= 0) return wake;
    wake.daemon = items[0].revents != 0;
    wake.stop = items[1].revents != 0;
    wake.input = items[2].revents != 0;
    return wake;
}

} // namespace ds::cli
