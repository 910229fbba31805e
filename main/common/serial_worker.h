// One thread that does jobs in the order in which they were given: for calls of a library that may
// take long, so that nobody else waits for it.
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

    // `name`, of at most 15 characters, is the thread's; the string must live on.
    explicit SerialWorker(const char* name) : name_(name) {}
    ~SerialWorker() { Stop(SteadyTime::max()); }
    SerialWorker(const SerialWorker&) = delete;
    SerialWorker& operator=(const SerialWorker&) = delete;

    // Adds a job; any lock may be held. The thread is started with the first. False, and the job is
    // dropped, when too many wait or there is no thread for it. Does not throw.
    bool Post(Job job);

    // Waits until every job that has been given is done, or for `end`: false then.
    bool Drain(SteadyTime end);

    // Does the jobs that wait and ends the thread. False when it still runs at `end`: it is then
    // left to the end of the process, and the object must not be destroyed.
    bool Stop(SteadyTime end);

private:
    static constexpr size_t JOBS_MAX = 4096;

    void Run();

    const char* const name_;
    Mutex mutex_;
    Condition changed_;
    // All guarded by mutex_.
    std::deque<Job> jobs_;
    bool isBusy_ = false;
    bool isStopping_ = false;
    bool isRunning_ = false;
    std::thread thread_;
};

}  // namespace ProcMgr
