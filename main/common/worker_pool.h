// A pool of threads for jobs that may take long and must not wait for each other. Post() starts a
// thread for the job, up to 16; a thread ends when no job waits. The callers bound the number of
// jobs that wait: the daemon posts at most one for each record.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

class WorkerPool {
public:
    using Job = std::function<void()>;

    // `name`: the name of the threads, at most 15 characters; must outlive this object.
    explicit WorkerPool(const char* name) : name_(name) {}
    ~WorkerPool() { Stop(SteadyTime::max()); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Runs the job on a thread of the pool, or later when 16 jobs are running. The caller may hold
    // any lock. Returns false and drops the job after Stop() and when no thread can be started.
    // Does not throw.
    bool Post(Job job) PROCMGR_EXCLUDES(mutex_);

    // Drops the jobs that wait and waits for those that run. False when some still run at `end`:
    // everything that they use must then live until the process ends.
    bool Stop(SteadyTime end) PROCMGR_EXCLUDES(mutex_);

private:
    static constexpr size_t THREADS_MAX = 16;

    void Run() PROCMGR_EXCLUDES(mutex_);

    const char* const name_;
    Mutex mutex_;
    Condition ended_;  // a thread has ended
    std::deque<Job> jobs_ PROCMGR_GUARDED_BY(mutex_);
    size_t threads_ PROCMGR_GUARDED_BY(mutex_) = 0;
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr
