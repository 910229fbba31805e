#include "main/common/serial_worker.h"

#include <exception>
#include <utility>

#include "main/common/log.h"
#include "main/common/threads.h"

namespace ProcMgr {

bool SerialWorker::Post(Job job) {
    const LockGuard lock(mutex_);
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
    changed_.NotifyAll();
    return true;
}

void SerialWorker::Run() {
    for (;;) {
        Job job;
        {
            UniqueLock lock(mutex_);
            isBusy_ = false;
            changed_.NotifyAll();
            changed_.Wait(
                lock, [this]() PROCMGR_REQUIRES(mutex_) { return !jobs_.empty() || isStopping_; });
            if (jobs_.empty()) {
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
    return changed_.WaitUntil(
        lock, end, [this]() PROCMGR_REQUIRES(mutex_) { return jobs_.empty() && !isBusy_; });
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
