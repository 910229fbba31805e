#include "main/system_logger.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "main/constants.h"
#include "main/system.h"

namespace ProcMgr {
namespace {

constexpr char LOG_SOCKET[] = "/dev/log";
// What a logger takes as one line is not more than this.
constexpr size_t LINE_MAX_LENGTH = 8192;
// For a logger that works this is long, even at the busiest moment of boot. One that does not costs
// it once: no line waits again before one has gone through.
constexpr std::chrono::milliseconds PATIENCE{500};
// Between two attempts, where room is said to be and is not.
constexpr std::chrono::milliseconds ROOM_PAUSE{1};

}  // namespace

void SystemLogger::Write(int level, std::string_view text) {
    std::array<char, LINE_MAX_LENGTH> line;  // NOLINT: all that is sent is written first
    const size_t headerLength = WriteHeader(level, line.data(), line.size());
    const size_t textLength = std::min(text.size(), line.size() - headerLength);
    std::memcpy(line.data() + headerLength, text.data(), textLength);
    if (SendPatiently({line.data(), headerLength + textLength}) != Sent::YES) {
        ++dropped_;
    } else if (dropped_ > 0) {
        ReportDropped();
    }
}

size_t SystemLogger::WriteHeader(int level, char* header, size_t size) {
    const time_t now = time(nullptr);
    if (now != second_) {
        tm local{};
        localtime_r(&now, &local);
        strftime(stamp_.data(), stamp_.size(), "%h %e %T", &local);
        second_ = now;
    }
    const int length = std::snprintf(header, size, "<%d>%s %s[%d]: ", LOG_USER | level,
                                     stamp_.data(), PROCMGR_NAME, getpid());
    return static_cast<size_t>(std::max(length, 0));
}

void SystemLogger::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

bool SystemLogger::Connect() {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof(LOG_SOCKET) <= sizeof(address.sun_path));
    std::memcpy(address.sun_path, LOG_SOCKET, sizeof(LOG_SOCKET));
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        Close();
        return false;
    }
    return true;
}

SystemLogger::Sent SystemLogger::Send(std::string_view line) {
    // The second attempt is for a logger that was started anew.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (fd_ < 0 && !Connect()) {
            return Sent::NO_LOGGER;
        }
        if (send(fd_, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return Sent::YES;
        }
        if (errno == EAGAIN || errno == ENOBUFS || errno == EINTR) {
            return Sent::QUEUE_FULL;
        }
        Close();
    }
    return Sent::NO_LOGGER;
}

SystemLogger::Sent SystemLogger::SendPatiently(std::string_view line) {
    const SteadyTime begin = std::chrono::steady_clock::now();
    Sent sent = Send(line);
    while (sent == Sent::QUEUE_FULL && !isStuck_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            begin + PATIENCE - std::chrono::steady_clock::now());
        pollfd room{fd_, POLLOUT, 0};
        // Room that others were quicker to take is waited for again.
        isStuck_ = left.count() <= 0 || poll(&room, 1, static_cast<int>(left.count())) == 0;
        sent = Send(line);
        if (sent == Sent::QUEUE_FULL) {
            SleepFor(ROOM_PAUSE);
        }
    }
    isStuck_ = sent == Sent::QUEUE_FULL;
    return sent;
}

void SystemLogger::ReportDropped() {
    const std::string text =
        "PROCMGR: the system logger did not take " + std::to_string(dropped_) + " lines";
    dropped_ = 0;
    Write(LOG_WARNING, text);
}

}  // namespace ProcMgr
