#include "channel/owner_pipes.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "main/common/log.h"
#include "main/common/muxa_retry.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr {
namespace {

constexpr int CLOSE_ATTEMPTS = 20;
constexpr std::chrono::milliseconds CLOSE_PAUSE{100};
constexpr std::chrono::milliseconds END_PAUSE{5};

int CallClose(int fd) {
    MayWait("the messaging library");
    return MuxaClosePipe(fd);
}

void LogClosed(const std::string& owner, int fd) {
    ProcMgrLog(LOG_INFO, "PROCMGR : Master UnRegServiceCallBack success proName: %s fd: %d",
               owner.c_str(), fd);
}

void LogNotClosed(int result) {
    ProcMgrLog(LOG_ERR,
               "PROCMGR : Master UnRegServiceCallBack failed: MuxaClosePipe failed err code: %d",
               result);
}

}  // namespace

OwnerPipes::OwnerPipes(MuxaCallback handler, PipeEvents* events)
    : handler_(std::move(handler)), events_(events) {}

bool OwnerPipes::RegServiceCallBack(const std::string& owner, uint32_t gid, int32_t pid) {
    if (secure_getenv(ENV_PROC_NAME) == nullptr) {
        ProcMgrLog(LOG_ERR,
                   "********* PROCMGR : RegServiceCallBack begin :pmProcName is null, "
                   "targetProcName=%s",
                   owner.c_str());
    }
    if (owner.empty()) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RegServiceCallBack failed: procName is null");
        return false;
    }
    if (GetServiceFd(owner) > 0) {
        UnRegServiceCallBack(owner);
    }
    {
        const LockGuard lock(mutex_);
        Pipe& pipe = pipes_[owner];
        ++pipe.changes;
        pipe.waiting = Target{gid, pid};
        if (pipe.busyFd != NOT_OPEN) {
            ProcMgrLog(LOG_INFO,
                       "PROCMGR : the pipe of owner=%s is busy, a new pipe is opened when its "
                       "last request has been handled",
                       owner.c_str());
        }
    }
    return OpenWaiting(owner);
}

// One thread at a time opens the pipes of an owner, because the messaging library opens a name only
// once. When another thread registers the owner again in the meantime, the opening thread opens
// that newer pipe as well. False when the last attempt failed.
bool OwnerPipes::OpenWaiting(const std::string& owner) {
    bool isOpen = true;
    for (bool isMine = false;;) {
        Target target;
        uint64_t change = 0;
        {
            const LockGuard lock(mutex_);
            Pipe& pipe = pipes_[owner];
            if (pipe.busyFd != NOT_OPEN || !pipe.waiting || (pipe.isOpening && !isMine)) {
                pipe.isOpening = pipe.isOpening && !isMine;
                return isOpen;
            }
            pipe.isOpening = isMine = true;
            target = *std::exchange(pipe.waiting, std::nullopt);
            change = pipe.changes;
        }
        isOpen = Open(owner, target, change);
    }
}

bool OwnerPipes::Open(const std::string& owner, const Target& target, uint64_t change) {
    const int fd = CallOpen(owner, target);
    if (fd < 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RegServiceCallBack failed!! ret=%d, errno=%d", fd, errno);
        return false;
    }
    bool isWanted = false;
    {
        const LockGuard lock(mutex_);
        Pipe& pipe = pipes_[owner];
        isWanted = pipe.changes == change;
        if (isWanted) {
            pipe.fd = fd;
            pipe.pid = target.pid;
        }
    }
    if (!isWanted) {
        Close(owner, fd);
        return true;
    }
    ProcMgrLog(LOG_INFO, "********* PROCMGR : RegServiceCallBack success fd=%d, targetProcName=%s",
               fd, owner.c_str());
    if (events_ != nullptr) {
        events_->OnPipeOpen(owner);
    }
    return true;
}

int OwnerPipes::CallOpen(const std::string& owner, const Target& target) const {
    MayWait("the messaging library");
    MuxaOpenAttributes attributes;
    attributes.name = owner;
    attributes.value = target.gid;
    attributes.pid = target.pid;
    attributes.callback = handler_;
    const int fd = MuxaOpen(attributes);
    if (fd != MUXA_TRY_AGAIN) {
        return fd;
    }
    ProcMgrLog(LOG_ERR, "PROCMGR : MuxaOpen failed, try again");
    return MuxaOpen(attributes);
}

void OwnerPipes::UnRegServiceCallBack(const std::string& owner) {
    int fd = NOT_OPEN;
    {
        const LockGuard lock(mutex_);
        Pipe& pipe = pipes_[owner];
        ++pipe.changes;
        pipe.waiting.reset();
        fd = std::exchange(pipe.fd, NOT_OPEN);
        if (fd == NOT_OPEN && pipe.busyFd != NOT_OPEN) {
            return;
        }
    }
    Close(owner, fd);
}

void OwnerPipes::Close(const std::string& owner, int fd) {
    const int result = CallClose(fd);
    if (result >= 0) {
        LogClosed(owner, fd);
    } else if (result == MUXA_BUSY) {
        LeaveBusy(owner, fd);
    } else {
        LogNotClosed(result);
    }
}

void OwnerPipes::LeaveBusy(const std::string& owner, int fd) {
    {
        const LockGuard lock(mutex_);
        Pipe& pipe = pipes_[owner];
        pipe.busyFd = fd;
        pipe.attempts = 1;
        pipe.due = std::chrono::steady_clock::now() + CLOSE_PAUSE;
    }
    if (events_ != nullptr) {
        events_->OnPipeBusy();
    }
}

void OwnerPipes::CloseBusy(SteadyTime now) {
    std::map<std::string, int> busy;
    {
        const LockGuard lock(mutex_);
        for (const auto& [owner, pipe] : pipes_) {
            if (pipe.busyFd != NOT_OPEN && pipe.due <= now) {
                busy[owner] = pipe.busyFd;
            }
        }
    }
    for (const auto& [owner, fd] : busy) {
        NoteClose(owner, CallClose(fd), now);
    }
}

void OwnerPipes::NoteClose(const std::string& owner, int result, SteadyTime now) {
    int fd = NOT_OPEN;
    {
        const LockGuard lock(mutex_);
        Pipe& pipe = pipes_[owner];
        if (result == MUXA_BUSY) {
            pipe.due = now + CLOSE_PAUSE;
            if (++pipe.attempts == CLOSE_ATTEMPTS) {
                LogNotClosed(result);
            }
            return;
        }
        fd = std::exchange(pipe.busyFd, NOT_OPEN);
    }
    result >= 0 ? LogClosed(owner, fd) : LogNotClosed(result);
    if (!OpenWaiting(owner)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : procname=%s RegisterService failed", owner.c_str());
    }
}

std::optional<SteadyTime> OwnerPipes::NextClose() const {
    const LockGuard lock(mutex_);
    std::optional<SteadyTime> next;
    for (const auto& [owner, pipe] : pipes_) {
        if (pipe.busyFd != NOT_OPEN) {
            next = next ? std::min(*next, pipe.due) : pipe.due;
        }
    }
    return next;
}

bool OwnerPipes::CloseAll(SteadyTime end) {
    std::map<int, std::string> open;
    {
        const LockGuard lock(mutex_);
        for (auto& [owner, pipe] : pipes_) {
            open[std::exchange(pipe.fd, NOT_OPEN)] = owner;
            open[std::exchange(pipe.busyFd, NOT_OPEN)] = owner;
            pipe.waiting.reset();
        }
    }
    open.erase(NOT_OPEN);
    while (!open.empty()) {
        std::erase_if(open, [](const auto& pipe) { return CallClose(pipe.first) != MUXA_BUSY; });
        if (!open.empty() && std::chrono::steady_clock::now() >= end) {
            break;
        }
        SleepFor(open.empty() ? std::chrono::milliseconds(0) : END_PAUSE);
    }
    for (const auto& [fd, owner] : open) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : a request of owner=%s is still being handled, its pipe is left open",
                   owner.c_str());
    }
    return open.empty();
}

int OwnerPipes::GetServiceFd(const std::string& owner) const {
    const LockGuard lock(mutex_);
    const auto pipe = pipes_.find(owner);
    return pipe == pipes_.end() ? NOT_OPEN : pipe->second.fd;
}

std::vector<OwnerPipes::View> OwnerPipes::GetViews() const {
    const LockGuard lock(mutex_);
    std::vector<View> views;
    views.reserve(pipes_.size());
    for (const auto& [owner, pipe] : pipes_) {
        views.push_back({owner, pipe.pid, pipe.fd != NOT_OPEN});
    }
    return views;
}

bool OwnerPipes::IsKnown(const std::string& owner) const {
    const LockGuard lock(mutex_);
    return pipes_.contains(owner);
}

}  // namespace ProcMgr
