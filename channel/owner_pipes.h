// The pipes to the services that own applications: one entry for each owner name, under one lock.
// Base start-up and supervision register and unregister owners; everything that sends a report
// looks up descriptors. No caller waits for a pipe: a pipe that is still handling a request when it
// is to be closed is left to the report thread, which closes it and then opens its successor.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "app/owner_link.h"
#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "platform/messaging.h"

namespace ProcMgr {

// The events of pipes on which the report thread acts. Implemented by ReportSender. Both functions
// are called on the thread that causes the event, without a lock.
class PipeEvents {
public:
    virtual ~PipeEvents() = default;

    // The owner's pipe has been opened.
    virtual void OnPipeOpen(const std::string& owner) = 0;
    // A pipe could not be closed at once: the report thread has to call OwnerPipes::NextClose()
    // again.
    virtual void OnPipeBusy() = 0;
};

class OwnerPipes final : public App::OwnerRegistry {
public:
    // `handler` receives every request of every pipe, on threads of the messaging library. `events`
    // must outlive this object; null when there is no report thread.
    explicit OwnerPipes(MuxaCallback handler, PipeEvents* events = nullptr);
    ~OwnerPipes() override { CloseAll(SteadyTime::max()); }
    OwnerPipes(const OwnerPipes&) = delete;
    OwnerPipes& operator=(const OwnerPipes&) = delete;

    bool RegServiceCallBack(const std::string& owner, uint32_t gid, int32_t pid) override
        PROCMGR_EXCLUDES(mutex_);
    void UnRegServiceCallBack(const std::string& owner) override PROCMGR_EXCLUDES(mutex_);
    int GetServiceFd(const std::string& owner) const override PROCMGR_EXCLUDES(mutex_);

    // Whether a pipe for this owner has been requested since the daemon's start.
    bool IsKnown(const std::string& owner) const PROCMGR_EXCLUDES(mutex_);

    // The pipe of one owner, for the status endpoint.
    struct View {
        std::string owner;
        int32_t pid = 0;  // the process that the last pipe was opened for; 0: none was opened
        bool isOpen = false;
    };
    // One for each owner, by name.
    std::vector<View> GetViews() const PROCMGR_EXCLUDES(mutex_);

    // For the report thread: tries again to close the pipes that were busy, as far as their next
    // attempt is due at `now`, and opens the successors of those that are closed.
    void CloseBusy(SteadyTime now) PROCMGR_EXCLUDES(mutex_);
    // The time at which CloseBusy() is to be called next; nothing while no pipe is busy.
    std::optional<SteadyTime> NextClose() const PROCMGR_EXCLUDES(mutex_);

    // Closes every pipe and waits for the requests that are being handled; no request arrives
    // afterwards. False when requests are still being handled at `end`; the log names their owners.
    bool CloseAll(SteadyTime end) PROCMGR_EXCLUDES(mutex_);

private:
    // The process at the other end of a pipe.
    struct Target {
        uint32_t gid = 0;
        int32_t pid = 0;
    };
    struct Pipe {
        int fd = NOT_OPEN;
        int32_t pid = 0;  // the process that fd was opened for last
        // Number of registrations and unregistrations; a pipe whose opening began before the last
        // of them is closed again.
        uint64_t changes = 0;
        bool isOpening = false;         // a thread is in OpenWaiting()
        int busyFd = NOT_OPEN;          // a pipe that is still to be closed
        int attempts = 0;               // number of attempts to close busyFd
        SteadyTime due{};               // time of the next attempt to close busyFd
        std::optional<Target> waiting;  // for a pipe that is to be opened when busyFd is closed
    };
    static constexpr int NOT_OPEN = -1;

    // Opens the pipe that `waiting` asks for, unless another thread does so or the earlier pipe is
    // busy. False, with a log line, on failure.
    bool OpenWaiting(const std::string& owner) PROCMGR_EXCLUDES(mutex_);
    bool Open(const std::string& owner, const Target& target, uint64_t change)
        PROCMGR_EXCLUDES(mutex_);
    int CallOpen(const std::string& owner, const Target& target) const;
    // Closes a pipe, or leaves it to the report thread when it is busy.
    void Close(const std::string& owner, int fd) PROCMGR_EXCLUDES(mutex_);
    void LeaveBusy(const std::string& owner, int fd) PROCMGR_EXCLUDES(mutex_);
    // Notes the result of one more attempt to close the owner's busy pipe.
    void NoteClose(const std::string& owner, int result, SteadyTime now) PROCMGR_EXCLUDES(mutex_);

    const MuxaCallback handler_;
    PipeEvents* const events_;
    mutable Mutex mutex_;
    // By owner; entries are never erased.
    std::map<std::string, Pipe> pipes_ PROCMGR_GUARDED_BY(mutex_);
};

}  // namespace ProcMgr
