// The way to the system logger at /dev/log. libc's syslog() waits without end for a logger that
// lives and does not read; here a line waits a moment and is then dropped, for no log is worth a
// daemon that stands still.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

namespace ProcMgr {

// No lock of its own: its only user, the log, holds the log's.
class SystemLogger {
public:
    // Sends one line as syslog() would, under the daemon's identity and pid, in the user facility.
    // `level` is LOG_ERR, LOG_WARNING, LOG_INFO or LOG_DEBUG.
    void Write(int level, std::string_view text);

    void Close();

private:
    enum class Sent { YES, QUEUE_FULL, NO_LOGGER };

    bool Connect();
    Sent Send(std::string_view line);
    Sent SendPatiently(std::string_view line);
    void ReportDropped();

    // "<PRI>Mmm dd hh:mm:ss IDENT[PID]: ", as syslog() has it. Returns its length.
    size_t WriteHeader(int level, char* header, size_t size);

    int fd_ = -1;
    time_t second_ = -1;  // that stamp_ stands for
    std::array<char, 20> stamp_{};
    bool isStuck_ = false;  // a line has waited in vain since the last that went through
    uint64_t dropped_ = 0;  // lines, since then
};

}  // namespace ProcMgr
