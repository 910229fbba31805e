// The SHA-256 digest of a file, taken by an external sha256sum. Its process is bounded in time and
// can be given up at any moment, whatever the file does to whoever reads it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr::App {

// Thread-safe: several digests may be taken at the same time.
class DigestRunner {
public:
    DigestRunner();
    ~DigestRunner();
    DigestRunner(const DigestRunner&) = delete;
    DigestRunner& operator=(const DigestRunner&) = delete;

    enum class Outcome { TAKEN, NOTHING, NOT_STARTED, TOO_LONG, CANCELLED };
    struct Result {
        Outcome outcome = Outcome::NOTHING;
        std::string digest;  // the command's first line, 64 characters at most
        int error = 0;       // errno of NOT_STARTED
    };

    // Runs the command for the file and waits for its first line, for `end` at most; its processes
    // are killed then. Not with a lock held.
    Result Run(const std::string& path, SteadyTime end);

    // Ends every digest that is being taken, and every later one at once.
    void Cancel();

    // The reaper's: true when the pid is a command's. Called before the pid is freed.
    bool TakeExit(int32_t pid);

private:
    // Forks the command; its output comes from `output`. Below 0, with errno, on failure.
    pid_t Start(const std::string& command, int& output);
    Result ReadLine(int output, SteadyTime end) const;
    void KillGroup(pid_t pid);

    const int cancelFd_;  // readable after Cancel()
    Mutex mutex_;
    std::set<pid_t> commands_;  // that have not been reaped; guarded by mutex_
};

}  // namespace ProcMgr::App
