#include "main/common/system_logger.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {
namespace {

constexpr char LOG_SOCKET[] = "/dev/log";
// The pause after the socket has reported room: other senders may be quicker to use it.
constexpr std::chrono::milliseconds ROOM_PAUSE{1};
constexpr int SEND_FLAGS = MSG_DONTWAIT | MSG_NOSIGNAL;

sockaddr_un LogAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof(LOG_SOCKET) <= sizeof(address.sun_path));
    std::memcpy(address.sun_path, LOG_SOCKET, sizeof(LOG_SOCKET));
    return address;
}

}  // namespace

bool SystemLogger::IsPresent() {
    struct stat status {};
    return stat(LOG_SOCKET, &status) == 0;
}

void SystemLogger::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    taken_ = 0;
}

bool SystemLogger::ConnectAs(int type) {
    fd_ = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) {
        return false;
    }
    const sockaddr_un address = LogAddress();
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        isStream_ = type == SOCK_STREAM;
        return true;
    }
    const int error = errno;
    Close();
    errno = error;
    return false;
}

// The look at the path costs less than a socket for each attempt.
bool SystemLogger::Connect() {
    isMissing_ = !IsPresent();
    if (isMissing_) {
        return false;
    }
    return ConnectAs(SOCK_DGRAM) || (errno == EPROTOTYPE && ConnectAs(SOCK_STREAM));
}

SystemLogger::Sent SystemLogger::Send(std::string_view line) {
    MayWait("the system logger");
    // The second attempt serves for a logger that has been restarted.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (fd_ < 0 && !Connect()) {
            return Sent::NO_LOGGER;
        }
        const Sent sent = SendOn(line);
        if (sent != Sent::NO_LOGGER) {
            return sent;
        }
        Close();
    }
    return Sent::NO_LOGGER;
}

// On a stream lines are separated by a NUL, and a line may be accepted in parts.
SystemLogger::Sent SystemLogger::SendOn(std::string_view line) {
    const size_t size = line.size() + (isStream_ ? 1 : 0);
    while (taken_ < size) {
        const ssize_t sent = send(fd_, line.data() + taken_, size - taken_, SEND_FLAGS);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0) {
            return errno == EAGAIN || errno == ENOBUFS ? Sent::NO_ROOM : Sent::NO_LOGGER;
        }
        taken_ += static_cast<size_t>(sent);
    }
    taken_ = 0;
    return Sent::YES;
}

void SystemLogger::WaitForRoom(std::chrono::milliseconds timeout) const {
    pollfd room{fd_, POLLOUT, 0};
    if (poll(&room, 1, static_cast<int>(timeout.count())) > 0) {
        SleepFor(ROOM_PAUSE);
    }
}

void SystemLogger::SendInSignal(std::string_view line) {
    if (fd_ < 0 && !Connect()) {
        return;
    }
    const size_t taken = std::exchange(taken_, 0);
    const size_t size = line.size() + (isStream_ ? 1 : 0);
    if (taken < size) {
        send(fd_, line.data() + taken, size - taken, SEND_FLAGS);
    }
}

}  // namespace ProcMgr
