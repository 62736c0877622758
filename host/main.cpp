// dsd: the directory service daemon.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include <systemd/sd-daemon.h>

#include "host/config.h"
#include "host/loop.h"
#include "host/reload.h"
#include "host/runtime_directory.h"
#include "host/server.h"
#include "host/users.h"
#include "platform_default/platform_default.h"
#include "relay/none.h"

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

void tell_manager_of_reload(const host::Loop &loop) {
    constexpr std::uint64_t ns_per_us = 1'000;
    const std::string us = std::to_string(loop.now_ns() / ns_per_us);
    sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + us).c_str());
}

void run(host::Config config) {
    const host::RuntimeDirectory runtime_directory(config.runtime_dir);
    host::make_directory(config.trace_dir);
    if (rtrace_set_directory(config.trace_dir.c_str()) != 0)
        throw host::StartError("the trace directory's path is too long");

    host::Loop loop;
    relay::NoEngine engine;
    host::UniqueFd socket = host::listen_at(config.socket, access_of(config));
    host::PublicationSum sum(config.runtime_dir + "/published");
    host::Server server(loop, config, engine, sum, std::move(socket));
    loop.watch_signals({SIGTERM, SIGINT, SIGHUP}, [&](int signal) {
        if (signal == SIGHUP) {
            tell_manager_of_reload(loop);
            if (host::reload_policy(config)) server.set_policy(config.rules, config.limits);
            sd_notify(0, "READY=1");
        } else {
            sd_notify(0, "STOPPING=1");
            server.stop();
        }
    });

    sd_notify(0, "READY=1");
    std::printf("dsd: ready on %s\n", config.socket.c_str());
    std::fflush(stdout);
    loop.run();
    unlink(config.socket.c_str());
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
        std::fprintf(stderr, "dsd: %s\n", error.what());
        return host::exit_failure;
    }
    return host::exit_ok;
}
