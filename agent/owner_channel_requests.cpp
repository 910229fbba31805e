// The requests of an owner: for applications, for their states, for delayed core affinity.
#include <algorithm>
#include <set>
#include <utility>

#include "agent/owner_channel.h"
#include "agent/packet_socket.h"
#include "message/record_codec.h"
#include "message/request_codec.h"
#include "wire/packet_io.h"

namespace ProcMgr::Agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Wire::LockGuard;
using Wire::UniqueLock;

// The longest wait of a request while the daemon does not read, and the pause between two attempts
// to send.
constexpr milliseconds SEND_PATIENCE{2000};
constexpr milliseconds SEND_PAUSE{5};

constexpr Wire::PacketHeader REQUEST{Wire::PacketKind::REQUEST, 0};

}  // namespace

bool OwnerChannel::StartApps(const std::vector<Message::StartAppInfo>& items) {
    const auto records = Message::EncodeLaunchRequests(Message::START_APP, items, serviceName_);
    return records && SendAll(*records);
}

bool OwnerChannel::RestartApps(const std::vector<Message::RestartAppInfo>& items) {
    const auto records = Message::EncodeLaunchRequests(Message::RESTART_APP, items, serviceName_);
    return records && SendAll(*records);
}

bool OwnerChannel::TermApps(const std::vector<Message::TermAppInfo>& items) {
    const auto records = Message::EncodeTermRequests(items);
    return records && SendAll(*records);
}

bool OwnerChannel::ReportExecution(const Message::AppExecInfo& info) {
    const auto record = Message::EncodeExecutionReport(info);
    return record && SendAll({&*record, 1});
}

bool OwnerChannel::LoadStartupCfg(const Message::StartupCfgInfo& info) {
    const auto record = Message::EncodeStartupCfgRequest(Message::LOAD_STARTUP_CFG, info);
    return record && SendAll({&*record, 1});
}

bool OwnerChannel::ReloadStartupCfg(const Message::StartupCfgInfo& info) {
    const auto record = Message::EncodeStartupCfgRequest(Message::RELOAD_STARTUP_CFG, info);
    return record && SendAll({&*record, 1});
}

std::optional<OwnerChannel::StatusByName> OwnerChannel::QueryAppState(
    const std::vector<std::string>& names, milliseconds timeout) {
    if (names.empty()) {
        return StatusByName();
    }
    const auto query = Message::EncodeQuery(names);
    if (!query) {
        return std::nullopt;
    }
    const std::set<std::string> wanted(names.begin(), names.end());
    std::optional<StatusByName> answer;
    const auto takeAnswer = [&]() PROCMGR_REQUIRES(mutex_) {
        // An answer with other names belongs to a query that has timed out.
        if (answer_ && answer_->size() == wanted.size() &&
            std::all_of(answer_->begin(), answer_->end(),
                        [&](const auto& entry) { return wanted.contains(entry.first); })) {
            answer.swap(answer_);
        }
        return answer.has_value();
    };
    Ask(REQUEST, Message::EncodeRecord(*query), timeout, takeAnswer);
    return answer;
}

std::optional<uint32_t> OwnerChannel::SetDelayCoreAffinity(
    const Message::DelayCoreAffinityReq& request, milliseconds timeout) {
    std::optional<uint32_t> result;
    const auto takeResult = [&]() PROCMGR_REQUIRES(mutex_) {
        result = result_;
        return result.has_value();
    };
    Ask({Wire::PacketKind::CALL, ++lastSequence_}, Message::EncodeDelayRequest(request), timeout,
        takeResult);
    return result;
}

void OwnerChannel::Ask(const Wire::PacketHeader& header, std::span<const uint8_t> body,
                       milliseconds timeout, const std::function<bool()>& take) {
    const auto deadline = DeadlineIn(timeout);
    UniqueLock lock(mutex_);
    if (thread_.get_id() == std::this_thread::get_id() ||
        !answered_.WaitUntil(lock, deadline,
                             [this]() PROCMGR_REQUIRES(mutex_) { return !isAsking_; })) {
        return;
    }
    isAsking_ = true;
    isCut_ = false;
    sequence_ = header.sequence;
    answer_.reset();
    result_.reset();
    lock.Unlock();
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    // Not with SendAll: a question does not have to wait for the whole list of another caller.
    const bool isSent = SendOne(header, body, std::min(left, SEND_PATIENCE));
    lock.Lock();
    if (isSent) {
        answered_.WaitUntil(lock, deadline,
                            [&]() PROCMGR_REQUIRES(mutex_) { return take() || isCut_; });
    }
    isAsking_ = false;
    answered_.NotifyAll();
}

bool OwnerChannel::SendAll(std::span<const Message::RequestMsg> records) {
    {
        UniqueLock lock(mutex_);
        listSent_.Wait(lock, [this]() PROCMGR_REQUIRES(mutex_) { return !isSendingList_; });
        isSendingList_ = true;
    }
    const bool isSent = std::all_of(records.begin(), records.end(), [this](const auto& record) {
        return SendOne(REQUEST, Message::EncodeRecord(record), SEND_PATIENCE);
    });
    {
        const LockGuard lock(mutex_);
        isSendingList_ = false;
    }
    listSent_.NotifyOne();
    return isSent;
}

bool OwnerChannel::SendOne(const Wire::PacketHeader& header, std::span<const uint8_t> body,
                           milliseconds patience) {
    const auto deadline = steady_clock::now() + patience;
    while (true) {
        {
            const LockGuard lock(mutex_);
            if (fd_ < 0 || isStopping_) {
                return false;
            }
            const Wire::SendResult result = Wire::SendPacket(fd_, header, body);
            if (result != Wire::SendResult::FULL) {
                return result == Wire::SendResult::SENT;
            }
        }
        if (steady_clock::now() >= deadline) {
            return false;
        }
        // Without the lock, so that the thread of the channel can receive in the meantime.
        std::this_thread::sleep_for(SEND_PAUSE);
    }
}

}  // namespace ProcMgr::Agent
