// Takes the SHA-256 digest of a file with an external sha256sum command. The caller waits for a
// limited time only, even when reading the file blocks. IntegrityTable is the only caller.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "wire/unique_fd.h"

namespace ProcMgr::App {

// All functions are callable from any thread; several digests may be taken at the same time.
class DigestRunner {
public:
    DigestRunner();

    enum class Outcome {
        TAKEN,
        NOTHING,      // the command ended without output
        NOT_STARTED,  // the command could not be started
        TOO_LONG,     // the time was over before the command had an answer
        CANCELLED,    // Cancel() was called
    };
    struct Result {
        Outcome outcome = Outcome::NOTHING;
        std::string digest;  // the command's first line, 64 characters at most
        int error = 0;       // errno of NOT_STARTED
    };

    // Runs the command for the file and waits for its first line, but not longer than `end`. The
    // processes of a command that has not answered are killed. Not with a lock held.
    Result Run(const std::string& path, SteadyTime end) PROCMGR_EXCLUDES(mutex_);

    // Ends every running Run(), and every later one at its begin, with CANCELLED.
    void Cancel();

    // Called by the reaper before it frees the pid: true when the pid is that of a command.
    bool TakeExit(int32_t pid) PROCMGR_EXCLUDES(mutex_);

private:
    // Starts the command as the leader of a process group. `output` becomes the end of a pipe from
    // which its output is read. Returns the pid; below 0, with errno, on failure.
    pid_t Start(const std::string& command, Wire::UniqueFd& output) PROCMGR_EXCLUDES(mutex_);
    Result ReadLine(int output, SteadyTime end) const;
    void KillGroup(pid_t pid) PROCMGR_EXCLUDES(mutex_);

    const Wire::UniqueFd cancelFd_;  // readable after Cancel()
    Mutex mutex_;
    std::set<pid_t> commands_ PROCMGR_GUARDED_BY(mutex_);  // the commands that are not reaped yet
};

}  // namespace ProcMgr::App
