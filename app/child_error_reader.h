// Reads and logs the messages that children write to the child error pipe when a step of their
// set-up fails. One thread of the daemon runs the reader.
#pragma once

#include <atomic>
#include <chrono>

#include "wire/unique_fd.h"

namespace ProcMgr {

class ChildErrorReader {
public:
    // Run() ends when `running` is false and Stop() was called. `running` must outlive this object.
    explicit ChildErrorReader(const std::atomic<bool>& running);

    // The body of the thread.
    void Run();

    // Ends every wait of Run(). Any thread.
    void Stop();

    // Reads once from the pipe and logs the text. Waits until a child has written, unless there is
    // no pipe.
    static void ReadChildErrInfo();

private:
    // Waits until the pipe is readable or Stop() is called. True only when the pipe is readable.
    bool WaitForMessage() const;
    // Waits until `duration` is over or Stop() is called.
    void Pause(std::chrono::milliseconds duration) const;

    const std::atomic<bool>& running_;
    const Wire::UniqueFd stopFd_;  // readable after Stop(); empty when the system has no more
};

}  // namespace ProcMgr
