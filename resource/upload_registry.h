// The "pmupload" server: processes register with their pid, name and executable and learn which
// share-pool groups they now belong to. Any process can connect, so nothing that it says about
// itself is believed. Requests come on threads of the messaging library, the check for processes
// that are gone on CheckThread.
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

    // Creates the server endpoint. False when the messaging library refuses.
    bool RegXCallBack();
    // Waits for the requests that are being handled, as long as any close of a pipe waits, but not
    // beyond `end`; there are none afterwards. False when there still are: the destructor would
    // wait for them.
    bool Close(SteadyTime end);

    // Drops the registrations of processes that are gone.
    void DropGone();
    bool IsEmpty();

private:
    struct Registration {
        std::string name;
        uint64_t startTicks = 0;  // with the pid it tells this process from every other one
    };
    using Registrations = std::map<int32_t, Registration>;

    void HandleRequest(int32_t fd, const MuxaRequest& request);
    Message::UploadResponse Register(const MuxaRequest& request);
    Message::UploadResult Check(const Message::UploadRequest& wanted, const MuxaRequest& sender);
    // Whether the sender, of this uid, may register under the name that it wants.
    bool MayHaveName(const Message::UploadRequest& wanted, uint32_t uid);
    // The application whose process is the closest managed ancestor.
    std::optional<std::string> FindAncestor(int32_t pid);
    // False when there is no room.
    bool Keep(const Message::UploadRequest& wanted, uint64_t startTicks);
    std::vector<std::string> JoinGroups(const Message::UploadRequest& wanted);
    // Takes the registrations of processes that are gone out of the table.
    std::vector<int32_t> TakeGone();
    void LogRefused(const MuxaRequest& sender, Message::UploadResult result);

    SharePool& sharePool_;
    ManagedApps& apps_;
    UploadAnswers answers_;
    int32_t fd_ = -1;  // of the server; of the thread that registers, then of the one that closes
    Mutex mutex_;
    Registrations registrations_;   // by pid; guarded by mutex_
    int32_t lastVerified_ = 0;      // where the next check goes on; guarded by mutex_
    SteadyTime nextRefusalLine_{};  // guarded by mutex_
};

}  // namespace ProcMgr
