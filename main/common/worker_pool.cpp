#include "main/common/worker_pool.h"

#include <exception>
#include <utility>

#include "main/common/log.h"
#include "main/common/threads.h"

namespace ProcMgr {

bool WorkerPool::Post(Job job) {
    const LockGuard lock(mutex_);
    if (isStopping_) {
        return false;
    }
    try {
        jobs_.push_back(std::move(job));
    } catch (const std::exception&) {
        return false;
    }
    try {
        if (threads_ < THREADS_MAX) {
            StartThread(name_, [this] { Run(); }).detach();
            ++threads_;
        }
    } catch (const std::exception&) {
        // Without another thread the job waits for one that runs.
        if (threads_ == 0) {
            jobs_.pop_back();
            return false;
        }
    }
    return true;
}

void WorkerPool::Run() {
    for (;;) {
        Job job;
        {
            const LockGuard lock(mutex_);
            if (jobs_.empty()) {
                --threads_;
                ended_.NotifyAll();
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        try {
            job();
        } catch (const std::exception& error) {
            ProcMgrLog(LOG_ERR, "PROCMGR : a job of thread %s failed, %s", name_, error.what());
        }
    }
}

bool WorkerPool::Stop(SteadyTime end) {
    UniqueLock lock(mutex_);
    isStopping_ = true;
    jobs_.clear();
    return ended_.WaitUntil(lock, end, [this]() PROCMGR_REQUIRES(mutex_) { return threads_ == 0; });
}

}  // namespace ProcMgr
