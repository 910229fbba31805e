#include "pmctl/console_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "console/console_protocol.h"
#include "pmctl/context.h"
#include "pmctl/who_may_connect.h"

namespace ProcMgr::Pmctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The last line of an answer names every application at most once.
constexpr size_t LINE_MAX_BYTES = 65536;

[[noreturn]] void ThrowConnectError(const std::string& path, int error) {
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
            throw CommandError(EXIT_NO_ANSWER,
                               "pm-console does not run: start it as a base service, see "
                               "docs/pmctl.md");
        case EACCES:
        case EPERM:
            throw CommandError(EXIT_NO_PERMISSION,
                               "no permission for " + path + ": " + WhoMayConnect(path));
        case EAGAIN:
            throw CommandError(EXIT_NO_ANSWER, "pm-console is busy: try again");
        default:
            throw CommandError(EXIT_NO_ANSWER, path + ": " + strerror(error));
    }
}

// False at the time `until`.
bool WaitFor(int fd, short events, steady_clock::time_point until) {
    pollfd waited{fd, events, 0};
    const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now()).count();
    return poll(&waited, 1, static_cast<int>(std::max<milliseconds::rep>(left, 0))) > 0;
}

}  // namespace

ConsoleClient::ConsoleClient(const std::string& path)
    : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw CommandError(EXIT_USAGE, path + ": too long for a socket");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    if (connect(fd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ThrowConnectError(path, errno);
    }
}

void ConsoleClient::Send(const std::string& request, Time deadline) {
    if (request.size() > Console::REQUEST_MAX) {
        throw CommandError(EXIT_USAGE, "the names and arguments are too long together");
    }
    std::string_view rest = request;
    while (!rest.empty() && WaitFor(fd_.Get(), POLLOUT, deadline)) {
        const ssize_t count = send(fd_.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            return;  // the console has refused the request: its answer says why
        }
        rest.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
}

bool ConsoleClient::TakeLine(std::string& line) {
    const size_t end = input_.find('\n');
    if (end == std::string::npos) {
        return false;
    }
    line = input_.substr(0, end);
    input_.erase(0, end + 1);
    return true;
}

ConsoleClient::Result ConsoleClient::Receive(Time until, std::string& line) {
    std::array<char, 4096> bytes{};
    while (!TakeLine(line)) {
        if (input_.size() > LINE_MAX_BYTES) {
            throw CommandError(EXIT_BAD_ANSWER, "pm-console has sent an overlong line");
        }
        if (!WaitFor(fd_.Get(), POLLIN, until)) {
            return Result::WAITING;
        }
        const ssize_t count = recv(fd_.Get(), bytes.data(), bytes.size(), 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (count <= 0) {
            return Result::ENDED;
        }
        input_.append(bytes.data(), static_cast<size_t>(count));
    }
    return Result::LINE;
}

}  // namespace ProcMgr::Pmctl
