#include "main/common/serial_worker.h"

#include <chrono>
#include <exception>
#include <utility>

#include "main/common/log.h"
#include "main/common/threads.h"

namespace ProcMgr {
namespace {

// The thread looks for further jobs after this pause: in a burst of jobs it does not have to be
// woken for each.
constexpr std::chrono::milliseconds BURST_PAUSE{1};

}  // namespace

bool SerialWorker::Post(Job job) {
    bool isWoken = false;
    {
        const LockGuard lock(mutex_);
        if (!Add(std::move(job))) {
            return false;
        }
        isWoken = std::exchange(isIdle_, false);
    }
    // Without the lock, because the thread that wakes up takes it.
    if (isWoken) {
        changed_.NotifyAll();
    }
    return true;
}

bool SerialWorker::Add(Job job) {
    if (jobs_.size() >= JOBS_MAX || isStopping_) {
        return false;
    }
    try {
        if (!isRunning_) {
            thread_ = StartThread(name_, [this] { Run(); });
            isRunning_ = true;
        }
        jobs_.push_back(std::move(job));
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

bool SerialWorker::WaitForJob(UniqueLock& lock) {
    isBusy_ = false;
    if (drains_ > 0) {
        changed_.NotifyAll();
    }
    const SteadyTime end = std::chrono::steady_clock::now() + BURST_PAUSE;
    if (jobs_.empty()) {
        changed_.WaitUntil(
            lock, end, [this]() PROCMGR_REQUIRES(mutex_) { return isStopping_ || drains_ > 0; });
    }
    isIdle_ = jobs_.empty();
    changed_.Wait(lock,
                  [this]() PROCMGR_REQUIRES(mutex_) { return !jobs_.empty() || isStopping_; });
    isIdle_ = false;
    return !jobs_.empty();
}

void SerialWorker::Run() {
    for (;;) {
        Job job;
        {
            UniqueLock lock(mutex_);
            if (!WaitForJob(lock)) {
                isRunning_ = false;
                changed_.NotifyAll();
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
            isBusy_ = true;
        }
        MayWait("a job's library");
        try {
            job();
        } catch (const std::exception& error) {
            ProcMgrLog(LOG_ERR, "PROCMGR : a job of thread %s failed, %s", name_, error.what());
        }
    }
}

bool SerialWorker::Drain(SteadyTime end) {
    UniqueLock lock(mutex_);
    ++drains_;
    changed_.NotifyAll();
    const bool isDone = changed_.WaitUntil(
        lock, end, [this]() PROCMGR_REQUIRES(mutex_) { return jobs_.empty() && !isBusy_; });
    --drains_;
    return isDone;
}

bool SerialWorker::Stop(SteadyTime end) {
    {
        UniqueLock lock(mutex_);
        isStopping_ = true;
        changed_.NotifyAll();
        if (!changed_.WaitUntil(lock, end,
                                [this]() PROCMGR_REQUIRES(mutex_) { return !isRunning_; })) {
            return false;
        }
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    return true;
}

}  // namespace ProcMgr
