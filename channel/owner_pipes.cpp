#include "channel/owner_pipes.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "main/muxa_retry.h"
#include "main/constants.h"
#include "main/log.h"
#include "main/system.h"

namespace ProcMgr {
namespace {

constexpr int CLOSE_ATTEMPTS = 20;
constexpr std::chrono::milliseconds CLOSE_PAUSE{100};
constexpr int NOT_OPEN = -1;

}  // namespace

OwnerPipes::OwnerPipes(MuxaCallback handler) : handler_(std::move(handler)) {}

void OwnerPipes::CloseAll() {
    std::vector<int> fds;
    {
        const std::unique_lock lock(mutex_);
        for (std::map<std::string, int>* table : {&fds_, &leftOver_}) {
            for (const auto& [owner, fd] : *table) {
                fds.push_back(fd);
            }
            table->clear();
        }
    }
    std::erase(fds, NOT_OPEN);
    for (const int fd : fds) {
        // A handler uses what is destroyed next: there is no giving up.
        while (ProcMgrMuxaClosePipe(fd) == MUXA_BUSY) {
        }
    }
}

void OwnerPipes::CloseLeftOver() {
    const std::unique_lock lock(mutex_);
    std::erase_if(leftOver_,
                  [](const auto& pipe) { return MuxaClosePipe(pipe.second) != MUXA_BUSY; });
}

bool OwnerPipes::TakeBackLeftOver(const std::string& owner) {
    const std::unique_lock lock(mutex_);
    const auto pipe = leftOver_.find(owner);
    if (pipe == leftOver_.end()) {
        return false;
    }
    fds_[owner] = pipe->second;
    leftOver_.erase(pipe);
    return true;
}

bool OwnerPipes::RegServiceCallBack(const std::string& owner, uint32_t gid) {
    if (std::getenv(ENV_PROC_NAME) == nullptr) {
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
    TakeFd(owner);
    CloseLeftOver();
    if (TakeBackLeftOver(owner)) {
        ProcMgrLog(LOG_INFO,
                   "********* PROCMGR : RegServiceCallBack success fd=%d, targetProcName=%s",
                   GetServiceFd(owner), owner.c_str());
        return true;
    }

    MuxaOpenAttributes attributes;
    attributes.name = owner;
    attributes.value = gid;
    attributes.callback = handler_;
    int fd = NOT_OPEN;
    {
        const std::unique_lock lock(mutex_);
        fd = MuxaOpen(attributes);
        if (fd == MUXA_TRY_AGAIN) {
            ProcMgrLog(LOG_ERR, "PROCMGR : MuxaOpen failed, try again");
            fd = MuxaOpen(attributes);
        }
        if (fd < 1) {
            ProcMgrLog(LOG_ERR, "PROCMGR : RegServiceCallBack failed!! ret=%d, errno=%d", fd,
                       errno);
            return false;
        }
        fds_[owner] = fd;
    }
    ProcMgrLog(LOG_INFO, "********* PROCMGR : RegServiceCallBack success fd=%d, targetProcName=%s",
               fd, owner.c_str());
    return true;
}

void OwnerPipes::UnRegServiceCallBack(const std::string& owner) {
    CloseLeftOver();
    const int fd = TakeFd(owner);
    int result = MUXA_BUSY;
    for (int attempt = 0; attempt < CLOSE_ATTEMPTS && result == MUXA_BUSY; ++attempt) {
        result = MuxaClosePipe(fd);
        if (result >= 0) {
            ProcMgrLog(LOG_INFO, "PROCMGR : Master UnRegServiceCallBack success proName: %s fd: %d",
                       owner.c_str(), fd);
            return;
        }
        if (result == MUXA_BUSY) {
            SleepFor(CLOSE_PAUSE);
        }
    }
    if (result == MUXA_BUSY) {
        const std::unique_lock lock(mutex_);
        leftOver_[owner] = fd;
    }
    ProcMgrLog(LOG_ERR,
               "PROCMGR : Master UnRegServiceCallBack failed: MuxaClosePipe failed err code: %d",
               result);
}

int OwnerPipes::GetServiceFd(const std::string& owner) const {
    // std::shared_mutex retries while the system is out of read locks and throws on a deadlock.
    const std::shared_lock lock(mutex_);
    const auto entry = fds_.find(owner);
    return entry == fds_.end() ? NOT_OPEN : entry->second;
}

int OwnerPipes::TakeFd(const std::string& owner) {
    const std::unique_lock lock(mutex_);
    const auto [entry, isNew] = fds_.try_emplace(owner, NOT_OPEN);
    return std::exchange(entry->second, NOT_OPEN);
}

}  // namespace ProcMgr
