// dsd: the directory service daemon.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "host/config.h"
#include "host/loop.h"
#include "host/message.h"
#include "host/reload.h"
#include "host/replication.h"
#include "host/runtime_directory.h"
#include "host/server.h"
#include "host/service_manager.h"
#include "host/users.h"
#include "platform_default/platform_default.h"

namespace {

using namespace ds;

// Every client takes a descriptor; the usual soft limit of 1,024 is for programs that use select().
void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

host::SocketAccess access_of(const host::Config &config) {
    host::SocketAccess access;
    access.mode = static_cast<mode_t>(config.socket_mode);
    if (config.socket_group.empty()) return access;
    const auto number = host::parse_user_number(config.socket_group);
    const auto group = number ? number : host::system_users().group(config.socket_group);
    if (!group) throw host::StartError("there is no group '" + config.socket_group + "'");
    access.group = *group;
    return access;
}

std::string description_of(host::Server &server) {
    const host::Directory::Totals totals = server.directory().totals();
    return std::to_string(server.sessions().count()) + " sessions, " +
           std::to_string(totals.services) + " services, " + std::to_string(totals.registrations) +
           " registrations";
}

// The file of a socket that was passed is its maker's: it stays when the daemon ends.
class ListeningSocket {
  public:
    // A socket that is passed is above the configured one.
    explicit ListeningSocket(host::Config &config) {
        host::PassedSocket passed = host::take_passed_socket();
        if (!passed.fd) {
            fd_ = host::listen_at(config.socket, access_of(config));
            own_path_ = config.socket;
            return;
        }
        if (passed.path != config.socket)
            host::tell(host::Severity::notice, "listening on " + passed.path +
                                                   " as the service manager wants it, not on " +
                                                   config.socket);
        fd_ = std::move(passed.fd);
        config.socket = passed.path;
        config.given.socket = passed.path;
    }
    void remove_file() const {
        if (!own_path_.empty()) unlink(own_path_.c_str());
    }
    host::UniqueFd take() { return std::move(fd_); }

  private:
    host::UniqueFd fd_;
    std::string own_path_;
};

void run(host::Config config) {
    const host::RuntimeDirectory runtime_directory(config.runtime_dir);
    host::make_directory(config.trace_dir);
    if (rtrace_set_directory(config.trace_dir.c_str()) != 0)
        throw host::StartError("the trace directory's path is too long");

    host::Loop loop;
    host::Replication replication(loop, config);
    ListeningSocket socket(config);
    host::PublicationSum sum(config.runtime_dir + "/published");
    host::Server server(loop, config, replication.engine(), sum, socket.take());
    replication.replay_while([&server] { return server.restart().is_own_period_open(); });
    host::ServiceManager manager(loop, [&server] { return description_of(server); });
    loop.watch_signals({SIGTERM, SIGINT, SIGHUP}, [&](int signal) {
        if (signal == SIGHUP) {
            manager.reloading();
            if (host::reload_policy(config)) server.set_policy(config.rules, config.limits);
            manager.ready();
        } else {
            manager.stopping();
            server.stop();
        }
    });

    manager.ready();
    std::printf("dsd: ready on %s\n", config.socket.c_str());
    std::fflush(stdout);
    replication.run();
    replication.end(config.relay.keep_published);
    socket.remove_file();
}

} // namespace

int main(int argc, char **argv) {
    host::Config config;
    if (const auto code = host::parse_command_line(argc, argv, config)) return *code;
    umask(022);
    signal(SIGPIPE, SIG_IGN); // a closed stdout or stderr is no reason to end
    raise_descriptor_limit();
    try {
        run(config);
    } catch (const std::exception &error) {
        host::tell(host::Severity::error, error.what());
        return host::exit_failure;
    }
    return host::exit_ok;
}
