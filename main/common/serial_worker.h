// One thread that runs jobs in the order in which they were posted: for calls of a library that may
// take long, so that the posting threads do not wait for them. The thread stays until Stop(),
// because its jobs come throughout the daemon's life; see WorkerPool for short-lived threads.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <thread>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

class SerialWorker {
public:
    using Job = std::function<void()>;

    // `name`: of the thread, at most 15 characters; must outlive this object.
    explicit SerialWorker(const char* name) : name_(name) {}
    ~SerialWorker() { Stop(SteadyTime::max()); }
    SerialWorker(const SerialWorker&) = delete;
    SerialWorker& operator=(const SerialWorker&) = delete;

    // Adds a job; any lock may be held. The first job starts the thread. A job that follows another
    // one within a millisecond may begin so much later. False, and the job is
    // dropped, when too many jobs wait or the thread cannot be started. Does not throw.
    bool Post(Job job) PROCMGR_EXCLUDES(mutex_);

    // Waits until every posted job is done. False when one is not at `end`.
    bool Drain(SteadyTime end) PROCMGR_EXCLUDES(mutex_);

    // Runs the jobs that wait and ends the thread. False when the thread still runs at `end`: this
    // object must then live until the process ends.
    bool Stop(SteadyTime end) PROCMGR_EXCLUDES(mutex_);

private:
    static constexpr size_t JOBS_MAX = 4096;

    bool Add(Job job) PROCMGR_REQUIRES(mutex_);
    void Run() PROCMGR_EXCLUDES(mutex_);
    // Waits for a job; false when the thread is to end. `lock` holds mutex_.
    bool WaitForJob(UniqueLock& lock) PROCMGR_REQUIRES(mutex_);

    const char* const name_;
    Mutex mutex_;
    Condition changed_;  // any of the fields below has changed
    std::deque<Job> jobs_ PROCMGR_GUARDED_BY(mutex_);
    bool isBusy_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isIdle_ PROCMGR_GUARDED_BY(mutex_) = false;  // the thread waits to be woken
    size_t drains_ PROCMGR_GUARDED_BY(mutex_) = 0;    // threads in Drain()
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isRunning_ PROCMGR_GUARDED_BY(mutex_) = false;
    // Set under mutex_; joined by Stop(), when isRunning_ has become false.
    std::thread thread_;
};

}  // namespace ProcMgr
