#include "pmctl/control_checks.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "pmctl/snapshot.h"
#include "pmctl/status_client.h"

namespace ProcMgr::Pmctl {
namespace {

std::optional<Snapshot> AskQuietly(const Console::Request& request, const Context& context) {
    try {
        const bool isOne = request.names.size() == 1;
        return ParseSnapshot(AskDaemon(context.statusSocket,
                                       isOne ? StatusRequest(request.names.front()) : "status"));
    } catch (const CommandError&) {
        return std::nullopt;
    }
}

bool HasNamed(const std::vector<Service>& services, const std::string& name) {
    return std::any_of(services.begin(), services.end(),
                       [&name](const Service& service) { return service.name == name; });
}

}  // namespace

void RefuseBaseServices(const Console::Request& request, const Context& context) {
    const auto snapshot =
        Console::HasFile(request.command) ? std::nullopt : AskQuietly(request, context);
    if (!snapshot) {
        return;
    }
    for (const std::string& name : request.names) {
        if (HasNamed(snapshot->services, name) && !HasNamed(snapshot->applications, name)) {
            throw CommandError(EXIT_NO, name +
                                            " is a base service: only general applications can be "
                                            "started, stopped, restarted and queried");
        }
    }
}

void RefuseMissingFile(const Console::Request& request) {
    if (!Console::HasFile(request.command)) {
        return;
    }
    struct stat status {};
    if (stat(request.file.path.c_str(), &status) == 0) {
        if (!S_ISREG(status.st_mode)) {
            throw CommandError(EXIT_NO, request.file.path + ": not a regular file");
        }
    } else if (errno != EACCES && errno != EPERM) {
        throw CommandError(EXIT_NO, request.file.path + ": " + strerror(errno));
    }
}

}  // namespace ProcMgr::Pmctl
