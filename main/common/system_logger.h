// The way to the system logger at /dev/log: a datagram socket or, as libc does it, a stream where
// the logger has one. Nothing here waits but WaitForRoom().
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace ProcMgr {

// No lock of its own: the log's thread is its only user, and at the very end a signal handler.
class SystemLogger {
public:
    enum class Sent { YES, NO_ROOM, NO_LOGGER };

    // Sends one line, as syslog() writes it. The text must be followed by a NUL.
    Sent Send(std::string_view line);

    // Waits until the logger has read, for at most `timeout`.
    void WaitForRoom(std::chrono::milliseconds timeout) const;

    // One attempt to send a line, async-signal-safe.
    void SendInSignal(std::string_view line);

    void Close();

private:
    bool Connect();
    // The socket's kind; nothing connects when it is not the logger's.
    bool ConnectAs(int type);
    Sent SendOn(std::string_view line);

    int fd_ = -1;
    bool isStream_ = false;
    // Bytes of the line that a stream has taken already.
    size_t taken_ = 0;
};

}  // namespace ProcMgr
