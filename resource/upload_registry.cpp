#include "resource/upload_registry.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <optional>
#include <span>
#include <string_view>

#include "main/common/log.h"
#include "main/common/muxa_retry.h"
#include "main/common/proc_files.h"
#include "wire/peer_process.h"

namespace ProcMgr {

using Message::UploadRequest;
using Message::UploadResponse;
using Message::UploadResult;

namespace {

constexpr uint32_t PEERS_MAX = 1000;
constexpr size_t REGISTRATIONS_MAX = 1024;
// One check compares the start times of this many processes; for all others it looks only whether
// a process with the pid exists.
constexpr int VERIFIED_PER_CHECK = 16;
// A group that the device has not added the process to after this time is left out of the answer.
constexpr std::chrono::seconds JOIN_PATIENCE{1};
// Refused requests are logged once in this time: any process can send them in masses.
constexpr std::chrono::seconds REFUSAL_LINE_PAUSE{1};

bool IsExecutableOf(int32_t pid, const std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(ProcPath(pid, "exe").c_str(), target.data(), target.size());
    return length > 0 && std::string_view(target.data(), static_cast<size_t>(length)) == path;
}

bool IsPidFree(int32_t pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

}  // namespace

bool UploadRegistry::RegXCallBack() {
    MuxaServerAttributes attributes;
    attributes.name = Message::UPLOAD_SERVER;
    attributes.callback = [this](int32_t fd, const MuxaRequest* request, const std::string&) {
        if (request != nullptr) {
            HandleRequest(fd, *request);
        } else {
            // The registration stays: the process goes on without its connection.
            answers_.Forget(fd);
        }
    };
    fd_ = MuxaCreateServer(attributes, PEERS_MAX, 0);
    return fd_ > 0;
}

UploadRegistry::~UploadRegistry() {
    while (!Close(SteadyTime::max())) {
        // Callbacks that still run use this object.
    }
}

bool UploadRegistry::Close(SteadyTime end) {
    if (fd_ > 0 && ProcMgrMuxaClosePipeBy(fd_, end) == MUXA_BUSY) {
        return false;
    }
    fd_ = -1;
    return answers_.Stop(end);
}

void UploadRegistry::HandleRequest(int32_t fd, const MuxaRequest& request) {
    const UploadResponse response = Register(request);
    if (response.result != UploadResult::REGISTERED) {
        LogRefused(request, response.result);
    }
    const auto record = Message::EncodeUploadResponse(response);
    if (request.wantsResponse && record) {
        answers_.Send(fd, {*record, request.sequence});
    }
}

UploadResponse UploadRegistry::Register(const MuxaRequest& request) {
    UploadRequest wanted;
    const auto* bytes = static_cast<const uint8_t*>(request.data);
    const size_t length = bytes == nullptr ? 0 : request.length;
    UploadResponse response;
    response.result = Message::DecodeUploadRequest({bytes, length}, wanted);
    if (response.result != UploadResult::REGISTERED) {
        return response;
    }
    // Read before the checks, so that the checks are about the process that is registered, or about
    // none when the pid has been reused.
    const std::optional<uint64_t> startTicks = ReadStartTicks(wanted.pid);
    response.result = startTicks ? Check(wanted, request) : UploadResult::NOT_THE_SENDER;
    if (response.result != UploadResult::REGISTERED) {
        return response;
    }
    if (!Keep(wanted, *startTicks)) {
        response.result = UploadResult::TOO_MANY;
        return response;
    }
    response.groups = JoinGroups(wanted);
    return response;
}

UploadResult UploadRegistry::Check(const UploadRequest& wanted, const MuxaRequest& sender) {
    if (wanted.pid != sender.peerPid || !IsExecutableOf(wanted.pid, wanted.path)) {
        return UploadResult::NOT_THE_SENDER;
    }
    return MayHaveName(wanted, sender.peerUid) ? UploadResult::REGISTERED
                                               : UploadResult::NOT_ITS_NAME;
}

bool UploadRegistry::MayHaveName(const UploadRequest& wanted, uint32_t uid) {
    if (const auto own = apps_.GetNameOf(wanted.pid)) {
        return *own == wanted.name;
    }
    const std::optional<std::string> ancestor = FindAncestor(wanted.pid);
    if (ancestor && (*ancestor == wanted.name || !apps_.IsKnown(wanted.name))) {
        return true;
    }
    // Any other process without a managed ancestor, or under the name of another application, is
    // accepted only as root, and only when no application of that name has a process.
    return uid == 0 && !apps_.HasProcess(wanted.name);
}

std::optional<std::string> UploadRegistry::FindAncestor(int32_t pid) {
    for (int generation = 0; generation < Wire::GENERATIONS_MAX; ++generation) {
        pid = Wire::ReadParent(pid).value_or(0);
        if (pid <= 1 || pid == getpid()) {
            return std::nullopt;
        }
        if (auto name = apps_.GetNameOf(pid)) {
            return name;
        }
    }
    return std::nullopt;
}

bool UploadRegistry::Keep(const UploadRequest& wanted, uint64_t startTicks) {
    const LockGuard lock(mutex_);
    const auto present = registrations_.find(wanted.pid);
    if (present == registrations_.end() && registrations_.size() >= REGISTRATIONS_MAX) {
        return false;
    }
    // The groups of an earlier process with this pid are not joined by this one.
    if (present != registrations_.end() && present->second.startTicks != startTicks) {
        sharePool_.Forget(wanted.pid);
    }
    if (present == registrations_.end()) {
        ProcMgrLog(LOG_INFO, "PROCMGR : pmupload app=%s, pid=%d registered", wanted.name.c_str(),
                   wanted.pid);
    }
    registrations_.insert_or_assign(wanted.pid, Registration{wanted.name, startTicks});
    return true;
}

std::vector<std::string> UploadRegistry::JoinGroups(const UploadRequest& wanted) {
    SharePoolPlan plan = sharePool_.MakePlan(wanted.name, {});
    std::erase_if(plan.groups, [&](const SharePoolPlan::Group& group) {
        return !wanted.groups.empty() && std::find(wanted.groups.begin(), wanted.groups.end(),
                                                   group.name) == wanted.groups.end();
    });
    sharePool_.Join(wanted.name, wanted.pid, plan);
    sharePool_.WaitForJoins(std::chrono::steady_clock::now() + JOIN_PATIENCE);
    std::vector<std::string> joined = sharePool_.GetGroupsOf(wanted.pid);
    if (joined.size() > Message::UPLOAD_GROUPS_MAX) {
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : pmupload app=%s, pid=%d has joined more groups than an answer holds",
                   wanted.name.c_str(), wanted.pid);
        joined.resize(Message::UPLOAD_GROUPS_MAX);
    }
    return joined;
}

void UploadRegistry::LogRefused(const MuxaRequest& sender, UploadResult result) {
    {
        const LockGuard lock(mutex_);
        const SteadyTime now = std::chrono::steady_clock::now();
        if (now < nextRefusalLine_) {
            return;
        }
        nextRefusalLine_ = now + REFUSAL_LINE_PAUSE;
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR : pmupload request of pid=%d, uid=%u refused, result=%u",
               sender.peerPid, sender.peerUid, static_cast<unsigned>(result));
}

bool UploadRegistry::IsEmpty() {
    const LockGuard lock(mutex_);
    return registrations_.empty();
}

void UploadRegistry::DropGone() {
    for (const int32_t pid : TakeGone()) {
        // When the pid belongs to a new process of the daemon, the joined groups are that
        // process's.
        if (!apps_.GetNameOf(pid)) {
            sharePool_.Forget(pid);
        }
    }
}

bool UploadRegistry::HasEnded(int32_t pid, const Registration& registration, int& toVerify,
                              int32_t& verified) const {
    if (IsPidFree(pid)) {
        return true;
    }
    if (pid <= lastVerified_ || toVerify == 0) {
        return false;
    }
    --toVerify;
    verified = pid;
    // Another process has the pid when its start time is another one.
    return ReadStartTicks(pid) != registration.startTicks;
}

std::vector<int32_t> UploadRegistry::TakeGone() {
    const LockGuard lock(mutex_);
    std::vector<int32_t> gone;
    int toVerify = VERIFIED_PER_CHECK;
    int32_t verified = 0;
    for (const auto& [pid, registration] : registrations_) {
        if (HasEnded(pid, registration, toVerify, verified)) {
            ProcMgrLog(LOG_INFO,
                       "PROCMGR : pmupload app=%s, pid=%d has ended, its registration is removed",
                       registration.name.c_str(), pid);
            gone.push_back(pid);
        }
    }
    lastVerified_ = toVerify > 0 ? 0 : verified;
    for (const int32_t pid : gone) {
        registrations_.erase(pid);
    }
    return gone;
}

}  // namespace ProcMgr
