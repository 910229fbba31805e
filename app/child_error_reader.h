// Reads what children say over the child error pipe about steps of their set-up that failed, and
// logs it. One thread of the daemon runs it.
#pragma once

#include <atomic>
#include <chrono>

namespace ProcMgr {

class ChildErrorReader {
public:
    // `running` ends Run() when it is false and Stop() was called.
    explicit ChildErrorReader(const std::atomic<bool>& running);
    ~ChildErrorReader();
    ChildErrorReader(const ChildErrorReader&) = delete;
    ChildErrorReader& operator=(const ChildErrorReader&) = delete;

    // Thread body.
    void Run();

    // Wakes Run() from whatever it waits for. Any thread.
    void Stop();

    // One read from the pipe: waits until a child has written.
    static void ReadChildErrInfo();

private:
    // Waits until the pipe is readable. False when something else ended the wait.
    bool WaitForMessage() const;
    // Waits for the time, or for Stop().
    void Pause(std::chrono::milliseconds duration) const;

    const std::atomic<bool>& running_;
    const int stopFd_;  // readable after Stop(); -1 when the system has none left
};

}  // namespace ProcMgr
