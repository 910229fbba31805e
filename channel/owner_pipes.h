// The pipes to the services that own applications: one entry for each owner name, guarded by one
// reader/writer lock. Base start-up and supervision register, every report sender looks up.
#pragma once

#include <cstdint>
#include <map>
#include <shared_mutex>
#include <string>

#include "app/owner_link.h"
#include "platform/messaging.h"

namespace ProcMgr {

class OwnerPipes final : public App::OwnerRegistry {
public:
    // `handler` receives every request of every pipe, on threads of the messaging library.
    explicit OwnerPipes(MuxaCallback handler);
    ~OwnerPipes() override { CloseAll(); }
    OwnerPipes(const OwnerPipes&) = delete;
    OwnerPipes& operator=(const OwnerPipes&) = delete;

    bool RegServiceCallBack(const std::string& owner, uint32_t gid) override;

    // Waits up to 2 s for a request that is being handled. A pipe that stays busy is closed with
    // the next one, or by CloseAll.
    void UnRegServiceCallBack(const std::string& owner) override;

    int GetServiceFd(const std::string& owner) const override;

    // Closes every pipe, waiting for every request that is being handled: none is, and none
    // arrives, afterwards.
    void CloseAll();

private:
    // Tries once more to close the pipes that were busy.
    void CloseLeftOver();
    // Makes a left-over pipe of the owner, which still holds the name, its pipe again. False when
    // there is none.
    bool TakeBackLeftOver(const std::string& owner);
    // Takes the owner's descriptor out of the table, leaving -1.
    int TakeFd(const std::string& owner);

    const MuxaCallback handler_;
    mutable std::shared_mutex mutex_;
    std::map<std::string, int> fds_;       // guarded by mutex_; entries are never erased
    std::map<std::string, int> leftOver_;  // busy when they were to be closed; guarded by mutex_
};

}  // namespace ProcMgr
