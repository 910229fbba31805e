// Threads for jobs that may take long and must not hold each other up. A thread is started when a
// job comes and ends when none is left. The number of jobs that wait is the callers' to bound; the
// daemon posts one for each record at most.
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

    // `name`, of at most 15 characters, is the threads'; the string must live on.
    explicit WorkerPool(const char* name) : name_(name) {}
    ~WorkerPool() { Stop(SteadyTime::max()); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Runs the job on a thread of the pool; beyond 16 at a time jobs wait. Any lock may be held.
    // False, and the job is dropped, when there is no thread for it. Does not throw.
    bool Post(Job job);

    // Waits for the jobs that run; jobs that wait are dropped. False when some still run at `end`:
    // what they use must then live until the process ends.
    bool Stop(SteadyTime end);

private:
    static constexpr size_t THREADS_MAX = 16;

    void Run();

    const char* const name_;
    Mutex mutex_;
    Condition ended_;
    // All guarded by mutex_.
    std::deque<Job> jobs_;
    size_t threads_ = 0;
    bool isStopping_ = false;
};

}  // namespace ProcMgr
