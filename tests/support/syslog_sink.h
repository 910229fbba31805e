// Collects the lines that processes which the test starts write to syslog(3). The sink replaces the
// system logger at /dev/log in the program's private mount namespace.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/wait.h"
#include "wire/unique_fd.h"

// One line as the logger receives it.
struct SyslogMessage {
    int level = -1;     // LOG_ERR, LOG_WARNING, ...
    int facility = -1;  // LOG_USER, ... as in <syslog.h>
    std::string ident = {};
    pid_t pid = 0;
    std::string text = {};
};

// Construct it before other threads and before the processes that log to it. Its functions may be
// called from any thread; one sink at a time.
class SyslogSink {
public:
    // Mounts a private /dev with the usual devices (null, zero, full, urandom, tty) and listens on
    // /dev/log there. Needs a private mount namespace. Throws std::runtime_error on failure.
    SyslogSink();
    ~SyslogSink();
    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

    // Stops reading and fills the queue of the socket, so that the next line that is sent waits.
    // Release() reads again. The functions below still take all lines that have been sent.
    void Hold();
    void Release();

    // All lines that were sent before the call, in order. Lines() returns the texts only.
    std::vector<SyslogMessage> Messages();
    std::vector<std::string> Lines();
    // The number of lines whose text contains `part`.
    size_t Count(std::string_view part);
    // Waits until the text of a line contains `part`; false after `timeout`.
    bool WaitFor(std::string_view part,
                 std::chrono::milliseconds timeout = ProcMgr::Tests::PATIENCE);
    // Forgets all lines that were sent before the call.
    void Clear();

private:
    void Collect();
    void DrainLocked();  // the caller holds mutex_

    Wire::UniqueFd fd_;
    std::mutex mutex_;  // guards what follows and the reading of fd_
    std::condition_variable changed_;
    bool isHeld_ = false;
    bool isStopping_ = false;
    std::vector<SyslogMessage> messages_;
    std::thread thread_;
};
