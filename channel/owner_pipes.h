// The pipes to the services that own applications: one entry for each owner name, under one lock.
// Base start-up and supervision register and unregister, every report sender looks up. Nobody waits
// for a pipe: one that is busy with a request when it is to be closed is left to the report thread,
// and its successor is opened once it is closed.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "app/owner_link.h"
#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "platform/messaging.h"

namespace ProcMgr {

class OwnerPipes final : public App::OwnerRegistry {
public:
    // What the report thread has to know of; both are called without a lock.
    struct Events {
        std::function<void(const std::string& owner)> onOpen;  // a pipe has been opened
        std::function<void()> onBusy;                          // NextClose() has changed
    };

    // `handler` receives every request of every pipe, on threads of the messaging library.
    explicit OwnerPipes(MuxaCallback handler, Events events = {});
    ~OwnerPipes() override { CloseAll(SteadyTime::max()); }
    OwnerPipes(const OwnerPipes&) = delete;
    OwnerPipes& operator=(const OwnerPipes&) = delete;

    bool RegServiceCallBack(const std::string& owner, uint32_t gid, int32_t pid) override;
    void UnRegServiceCallBack(const std::string& owner) override;
    int GetServiceFd(const std::string& owner) const override;

    // Whether a pipe of that name has ever been asked for.
    bool IsKnown(const std::string& owner) const;

    // The report thread's: tries again to close pipes that were busy, and opens their successors.
    void CloseBusy(SteadyTime now);
    // When CloseBusy() has something to do; nothing when no pipe is busy.
    std::optional<SteadyTime> NextClose() const;

    // Closes every pipe, waiting for every request that is being handled: none is, and none
    // arrives, afterwards. False when some still are at `end`; the log names their owners.
    bool CloseAll(SteadyTime end);

private:
    // The process that a pipe is for.
    struct Target {
        uint32_t gid = 0;
        int32_t pid = 0;
    };
    struct Pipe {
        int fd = NOT_OPEN;
        uint64_t changes = 0;           // of what is wanted: tells whether an open is out of date
        bool isOpening = false;         // a thread is in OpenWaiting()
        int busyFd = NOT_OPEN;          // still to be closed
        int attempts = 0;               // to close it
        SteadyTime due{};               // of the next attempt
        std::optional<Target> waiting;  // to be opened, when no pipe is busy
    };
    static constexpr int NOT_OPEN = -1;

    // Opens the pipe that waits to be opened, unless another thread does or the earlier pipe is
    // busy. False, with a log line, when that failed.
    bool OpenWaiting(const std::string& owner);
    bool Open(const std::string& owner, const Target& target, uint64_t change);
    int CallOpen(const std::string& owner, const Target& target) const;
    // Closes a pipe, or leaves it as busy.
    void Close(const std::string& owner, int fd);
    void LeaveBusy(const std::string& owner, int fd);
    // The outcome of one more attempt to close the owner's busy pipe.
    void NoteClose(const std::string& owner, int result, SteadyTime now);

    const MuxaCallback handler_;
    const Events events_;
    mutable Mutex mutex_;
    std::map<std::string, Pipe> pipes_;  // guarded by mutex_; entries are never erased
};

}  // namespace ProcMgr
