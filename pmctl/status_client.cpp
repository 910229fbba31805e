#include "pmctl/status_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "config/settings.h"
#include "pmctl/context.h"
#include "pmctl/who_may_connect.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Pmctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds PATIENCE{5};
constexpr std::chrono::milliseconds BACKLOG_PAUSE{10};
constexpr size_t REQUEST_MAX = 512;  // with the line end
constexpr size_t ANSWER_MAX = 16U << 20U;

// One connection to the daemon, until a deadline.
class Connection {
public:
    explicit Connection(const std::string& path);

    void Send(std::string_view line);
    // Everything up to the end of the connection.
    std::string ReadAll();

private:
    void Connect();
    // Waits until the socket is ready for `events`; throws at the deadline.
    void WaitFor(short events);
    [[noreturn]] void FailConnect(int error) const;
    [[noreturn]] void FailSilent() const;
    [[noreturn]] void FailCut(size_t size) const;

    const std::string path_;
    const Clock::time_point deadline_ = Clock::now() + PATIENCE;
    Wire::UniqueFd socket_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
};

Connection::Connection(const std::string& path) : path_(path) {
    if (!socket_.IsValid()) {
        throw CommandError(EXIT_NO_ANSWER, std::string("cannot make a socket: ") + strerror(errno));
    }
    if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path)) {
        throw CommandError(EXIT_USAGE, "not a usable socket path: '" + path + "'");
    }
    Connect();
}

// A full queue of connections is EAGAIN: the daemon takes them from it soon.
void Connection::Connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    const auto* any = reinterpret_cast<const sockaddr*>(&address);
    while (connect(socket_.Get(), any, sizeof(address)) != 0) {
        if (errno != EAGAIN && errno != EINTR) {
            FailConnect(errno);
        }
        if (Clock::now() >= deadline_) {
            FailSilent();
        }
        std::this_thread::sleep_for(BACKLOG_PAUSE);
    }
}

void Connection::FailConnect(int error) const {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            throw CommandError(EXIT_NO_ANSWER,
                               std::string("the status endpoint of process-manager is off or the "
                                           "daemon does not run: set status: {enable: true} in ") +
                                   SETTINGS_FILE + " and restart it");
        case EACCES:
        case EPERM:
            throw CommandError(EXIT_NO_PERMISSION,
                               "no permission for " + path_ + ": " + WhoMayConnect(path_));
        case ECONNREFUSED:
            throw CommandError(EXIT_NO_ANSWER,
                               "the daemon does not answer on " + path_ + ": is it running?");
        default:
            throw CommandError(EXIT_NO_ANSWER,
                               "cannot connect to " + path_ + ": " + strerror(error));
    }
}

void Connection::FailSilent() const {
    throw CommandError(EXIT_NO_ANSWER, "the daemon does not answer on " + path_ + " within " +
                                           std::to_string(PATIENCE.count()) + " s: try again");
}

// The daemon closes a connection at once when it serves as many clients as it can.
void Connection::FailCut(size_t size) const {
    if (size == 0) {
        throw CommandError(EXIT_NO_ANSWER,
                           "the daemon has closed the connection on " + path_ +
                               " without an answer: it is busy or stops; try again");
    }
    throw CommandError(EXIT_NO_ANSWER, "the answer of the daemon on " + path_ + " ends after " +
                                           std::to_string(size) + " bytes: try again");
}

void Connection::WaitFor(short events) {
    for (;;) {
        const auto rest =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
        if (rest.count() <= 0) {
            FailSilent();
        }
        pollfd waited{socket_.Get(), events, 0};
        if (poll(&waited, 1, static_cast<int>(rest.count())) == 1) {
            return;
        }
    }
}

// The daemon may have closed the connection already: then the read says so.
void Connection::Send(std::string_view line) {
    while (!line.empty()) {
        WaitFor(POLLOUT);
        const ssize_t sent = send(socket_.Get(), line.data(), line.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        }
        line.remove_prefix(sent > 0 ? static_cast<size_t>(sent) : 0);
    }
}

std::string Connection::ReadAll() {
    std::string answer;
    std::array<char, 65536> buffer;
    for (;;) {
        WaitFor(POLLIN);
        const ssize_t count = recv(socket_.Get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (count <= 0) {
            break;  // an error, such as a reset, ends the answer as well
        }
        answer.append(buffer.data(), static_cast<size_t>(count));
        if (answer.size() > ANSWER_MAX) {
            throw CommandError(EXIT_BAD_ANSWER,
                               "the answer on " + path_ + " is longer than 16 MiB");
        }
    }
    if (answer.empty() || answer.back() != '\n') {
        FailCut(answer.size());
    }
    answer.pop_back();
    return answer;
}

}  // namespace

std::string AskDaemon(const std::string& socketPath, std::string_view request) {
    if (request.size() >= REQUEST_MAX || request.find('\n') != std::string_view::npos) {
        throw CommandError(EXIT_USAGE, "a name has at most 500 bytes and no line end");
    }
    Connection connection(socketPath);
    connection.Send(std::string(request) + '\n');
    return connection.ReadAll();
}

std::string StatusRequest(std::string_view name) {
    return "status " + std::string(name);
}

}  // namespace ProcMgr::Pmctl
