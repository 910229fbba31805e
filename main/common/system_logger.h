// The connection to the system logger at /dev/log: a datagram socket or, as in libc, a stream when
// the logger has one. Only WaitForRoom() waits.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace ProcMgr {

// Without a lock: used by the log's thread, and by a signal handler when the process is about to
// end.
class SystemLogger {
public:
    enum class Sent { YES, NO_ROOM, NO_LOGGER };

    // Whether the path of the logger's socket exists.
    static bool IsPresent();

    bool IsConnected() const { return fd_ >= 0; }
    // Whether the path did not exist when Send() last tried to connect.
    bool IsMissing() const { return isMissing_; }

    // Sends one line in the format of syslog(). The text must be followed by a NUL.
    Sent Send(std::string_view line);

    // Waits until the logger's socket has room, for at most `timeout`.
    void WaitForRoom(std::chrono::milliseconds timeout) const;

    // One attempt to send a line, async-signal-safe.
    void SendInSignal(std::string_view line);

    void Close();

private:
    bool Connect();
    // Connects a socket of this type. False, with errno, when the logger's socket has another type
    // or there is none.
    bool ConnectAs(int type);
    Sent SendOn(std::string_view line);

    int fd_ = -1;
    bool isStream_ = false;
    bool isMissing_ = false;
    // The bytes of the present line that a stream has accepted.
    size_t taken_ = 0;
};

}  // namespace ProcMgr
