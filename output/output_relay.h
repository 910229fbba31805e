// Where the output of the services goes: makes the pipe into which a process writes, and relays its
// lines to the system logger or to a file. The daemon has one relay. Its thread and that of the
// files are started by the first service that needs them.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "main/common/threads.h"
#include "output/file_writer.h"
#include "output/output_pipe.h"
#include "output/output_records.h"
#include "output/pipe_loop.h"
#include "platform/manifest_output.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Output {

class OutputRelay {
public:
    OutputRelay();
    ~OutputRelay() { Stop(SteadyTime::max()); }
    OutputRelay(const OutputRelay&) = delete;
    OutputRelay& operator=(const OutputRelay&) = delete;

    // Makes what the next process of `service` writes to; its user may also open it by a path such
    // as /dev/stdout. Without a pipe, for example because there are too many, what the process
    // writes is lost, which the log says. Called with no lock held; waits for nothing.
    OutputTarget Prepare(const std::string& service, const OutputConfig& config, uid_t user)
        PROCMGR_EXCLUDES(mutex_);

    // Reads from now on what the process `pid`, which has been made with `target`, writes. The
    // caller may hold the lock of a container. Neither waits nor throws.
    void Adopt(OutputTarget target, pid_t pid) PROCMGR_EXCLUDES(mutex_);

    // Hands on what is in the pipes, for a short time, and closes them; ends the threads. Called
    // when no thread starts services any more. False when a thread still runs at `end`: this object
    // must then live until the process ends.
    bool Stop(SteadyTime end) PROCMGR_EXCLUDES(mutex_);

    // For those who look at the state of a service, from any thread and with any lock held: where
    // the output of its last process goes, "inherit", "null", "syslog" or "file:PATH"; and the last
    // lines of its output, oldest first.
    std::string GetOutput(const std::string& service) const { return records_.GetOutput(service); }
    std::vector<std::string> LastLines(const std::string& service) const {
        return records_.LastLines(service);
    }
    // The lines of all services that were not handed on.
    uint64_t GetDroppedLines() const { return dropped_; }

private:
    OutputTarget MakePipe(const std::string& service, const OutputConfig& config)
        PROCMGR_EXCLUDES(mutex_);
    // A target that loses what is written.
    static OutputTarget Discard(const std::string& service);
    // Starts the thread unless it runs. False, with errno, when there can be none.
    bool Start() PROCMGR_EXCLUDES(mutex_);
    void Wake() const;
    void Run();
    // Moves the adopted pipes to the thread. True when the thread is to end.
    bool TakeAdopted(OutputPipes& adopted) PROCMGR_EXCLUDES(mutex_);
    // What the thread does at its end.
    void Drain();

    const size_t pipesMax_;
    std::atomic<size_t> pipes_{0};  // open or prepared
    std::atomic<uint64_t> dropped_{0};
    OutputRecords records_;
    FileWriter files_{dropped_};

    Mutex mutex_;
    OutputPipes adopted_ PROCMGR_GUARDED_BY(mutex_);
    bool isWoken_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isStarted_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;

    // Made by Start() under the lock and then constant.
    Wire::UniqueFd wakeFd_;
    std::unique_ptr<PipeLoop> loop_;  // used by the thread only
    NamedThread thread_{"output"};
};

}  // namespace ProcMgr::Output
