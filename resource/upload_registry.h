// The "pmupload" server: a process registers with its pid, name and executable; the server adds it
// to share-pool groups and answers with their names. Any process can connect, so every field of a
// request is checked against the kernel's data. Requests come on threads of the messaging library;
// The check thread removes the registrations of processes that have ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "main/common/mutex.h"
#include "message/upload_record.h"
#include "platform/messaging.h"
#include "resource/managed_apps.h"
#include "resource/share_pool.h"
#include "resource/upload_answers.h"

namespace ProcMgr {

class UploadRegistry {
public:
    // Both must outlive this object.
    UploadRegistry(SharePool& sharePool, ManagedApps& apps) : sharePool_(sharePool), apps_(apps) {}
    ~UploadRegistry();
    UploadRegistry(const UploadRegistry&) = delete;
    UploadRegistry& operator=(const UploadRegistry&) = delete;

    // Creates the server endpoint. False when the messaging library refuses. Called by the start-up
    // thread.
    bool RegXCallBack();
    // Closes the server endpoint. Waits for the requests that are being handled, for the 2 s of
    // ProcMgrMuxaClosePipeBy at most and not beyond `end`. False when some are still being handled:
    // the destructor would wait for them. Called by the main thread.
    bool Close(SteadyTime end);

    // Removes the registrations of processes that have ended. Called by the check thread.
    void DropGone() PROCMGR_EXCLUDES(mutex_);
    // Whether there is no registration, so that DropGone need not be called. Any thread.
    bool IsEmpty() PROCMGR_EXCLUDES(mutex_);

private:
    struct Registration {
        std::string name;
        uint64_t startTicks = 0;  // with the pid it identifies the process: pids are reused
    };
    using Registrations = std::map<int32_t, Registration>;

    void HandleRequest(int32_t fd, const MuxaRequest& request) PROCMGR_EXCLUDES(mutex_);
    Message::UploadResponse Register(const MuxaRequest& request) PROCMGR_EXCLUDES(mutex_);
    // Compares the request with what the kernel reports about its sender.
    Message::UploadResult Check(const Message::UploadRequest& wanted, const MuxaRequest& sender);
    // Whether the sender, a process of this uid, may register under the name in its request.
    bool MayHaveName(const Message::UploadRequest& wanted, uint32_t uid);
    // The name of the application whose process is the closest managed ancestor of `pid`.
    std::optional<std::string> FindAncestor(int32_t pid);
    // Stores the registration. False when the table is full.
    bool Keep(const Message::UploadRequest& wanted, uint64_t startTicks) PROCMGR_EXCLUDES(mutex_);
    // Lets the process join its groups; returns the groups that it has joined.
    std::vector<std::string> JoinGroups(const Message::UploadRequest& wanted);
    // Removes the registrations of processes that have ended, and returns their pids.
    std::vector<int32_t> TakeGone() PROCMGR_EXCLUDES(mutex_);
    // Whether the process of a registration has ended. Its start time is compared for as many pids
    // above lastVerified_ as `toVerify` allows; the highest of them is stored in `verified`.
    bool HasEnded(int32_t pid, const Registration& registration, int& toVerify,
                  int32_t& verified) const PROCMGR_REQUIRES(mutex_);
    void LogRefused(const MuxaRequest& sender, Message::UploadResult result)
        PROCMGR_EXCLUDES(mutex_);

    SharePool& sharePool_;
    ManagedApps& apps_;
    UploadAnswers answers_;
    // Descriptor of the server, -1 without one. Used by the start-up thread; after that has ended,
    // by the main thread.
    int32_t fd_ = -1;
    Mutex mutex_;
    Registrations registrations_ PROCMGR_GUARDED_BY(mutex_);  // by pid
    // The next check compares the start times of registrations with higher pids than this.
    int32_t lastVerified_ PROCMGR_GUARDED_BY(mutex_) = 0;
    // A refused request before this time is not logged.
    SteadyTime nextRefusalLine_ PROCMGR_GUARDED_BY(mutex_){};
};

}  // namespace ProcMgr
