// pm-console: a base service that passes the requests of pmctl on to the daemon and tells each
// client what becomes of its request. An owner of applications on behalf of the people at the
// command line.
#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "console/console_server.h"
#include "wire/group_socket.h"

namespace {

constexpr const char* SOCKET = "/run/process-manager/console.sock";
constexpr int EXIT_USAGE = 2;
constexpr const char* HELP =
    "Usage: pm-console [--group NAME] [--socket PATH]\n"
    "Base service of process-manager for pmctl start, stop, restart, query, load and reload.\n"
    "  --group NAME   members of this group may use it as well as root\n"
    "  --socket PATH  where it listens, /run/process-manager/console.sock unless given\n";

struct Options {
    std::string group;
    std::string socket = SOCKET;
};

// Nothing, with the exit code in `exitCode`, when the process is to end.
std::optional<Options> ParseOptions(int argc, char** argv, int& exitCode) {
    const option longOptions[] = {{"group", required_argument, nullptr, 'g'},
                                  {"socket", required_argument, nullptr, 's'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {}};
    Options options;
    for (int found = 0; (found = getopt_long(argc, argv, "", longOptions, nullptr)) != -1;) {
        if (found == 'g') {
            options.group = optarg;
        } else if (found == 's') {
            options.socket = optarg;
        } else {
            exitCode = found == 'h' ? 0 : EXIT_USAGE;
            std::fputs(HELP, found == 'h' ? stdout : stderr);
            return std::nullopt;
        }
    }
    if (optind < argc) {
        exitCode = EXIT_USAGE;
        std::fputs(HELP, stderr);
        return std::nullopt;
    }
    return options;
}

// Nothing, with a log line, for a name that the group database does not have.
std::optional<gid_t> GroupOf(const std::string& name) {
    const auto group = Wire::FindGroup(name);
    if (!group && !name.empty()) {
        syslog(LOG_WARNING, "there is no group %s: only root may use the console", name.c_str());
    }
    return group;
}

// Readable when a signal asks for the end.
Wire::UniqueFd TakeStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return Wire::UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

int main(int argc, char** argv) {
    // Before anything that takes time: the daemon may end meanwhile.
    const pid_t parent = getppid();
    int exitCode = 0;
    const std::optional<Options> options = ParseOptions(argc, argv, exitCode);
    if (!options) {
        return exitCode;
    }
    openlog("pm-console", LOG_PID, LOG_DAEMON);
    try {
        const Wire::UniqueFd stop = TakeStopSignals();
        Wire::GroupSocket socket;
        if (const char* failed = socket.Open(options->socket, GroupOf(options->group))) {
            syslog(LOG_ERR, "ends: the socket %s cannot be made: %s: %s", options->socket.c_str(),
                   failed, strerror(errno));
            return 1;
        }
        ProcMgr::Console::ConsoleServer(socket, parent).Run(stop.Get());
        return 0;
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "ends: %s", error.what());
        return 1;
    }
}
