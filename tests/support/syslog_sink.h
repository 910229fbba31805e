// Collects what the test program and the processes that it starts write to syslog(3): it takes the
// place of the system's logger at /dev/log, in the program's private mount namespace.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// One line as a logger receives it.
struct SyslogMessage {
    int level = -1;     // LOG_ERR, LOG_WARNING, ...; -1 when the line has no valid priority
    int facility = -1;  // LOG_USER, ... as in <syslog.h>
    std::string ident;
    pid_t pid = 0;  // 0 when the line has none
    std::string text;
};

// Construct it before other threads, and before the processes that are to log to it. Its functions
// may be called from any thread; one sink at a time.
class SyslogSink {
public:
    // Enters a private mount namespace and listens on /dev/log there. Of /dev, the devices that
    // programs need stay in place.
    SyslogSink();
    ~SyslogSink();
    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

    // False where the kernel allows no private /dev: skip the test with Error() as the reason.
    bool IsReady() const { return fd_ >= 0; }
    const std::string& Error() const { return error_; }

    // From now on one line is taken each `pause`, and the queue is full at once; 0: all lines
    // again. The functions below still take all that is there.
    void SetPause(std::chrono::milliseconds pause);

    // Everything that was sent before the call, in order. Lines() has the texts only.
    std::vector<SyslogMessage> Messages();
    std::vector<std::string> Lines() { return LinesAt(ANY_LEVEL); }
    // Texts of one level.
    std::vector<std::string> LinesAt(int level);
    // Messages whose text holds `part`.
    size_t Count(std::string_view part);
    // Waits until the text of some message holds `part`; false after `timeout`.
    bool WaitFor(std::string_view part,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Forgets what came so far.
    void Clear();

private:
    static constexpr int ANY_LEVEL = -2;

    bool Listen();
    void Collect();
    void DrainLocked(size_t most = SIZE_MAX);

    int fd_ = -1;
    std::string error_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;  // guards messages_, pause_ and the reading of fd_
    std::chrono::milliseconds pause_{0};
    std::condition_variable arrived_;
    std::vector<SyslogMessage> messages_;
    std::thread thread_;
};
