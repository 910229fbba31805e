#include "channel/report_sender.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "channel/report_log.h"
#include "main/common/log.h"
#include "main/common/muxa_retry.h"
#include "message/record_codec.h"
#include "message/report_codec.h"
#include "message/serialization.h"

namespace ProcMgr {

using Message::AppStateInfo;

namespace {

// The pause between two attempts to send a picture, and after a lack of memory.
constexpr std::chrono::milliseconds PICTURE_PAUSE{100};
// The longest name of an application, in characters.
constexpr size_t NAME_MAX_LENGTH = 127;

}  // namespace

ReportSender::Load ReportSender::LoadOf(const Report& report) {
    if (report.isPicture) {
        return {};
    }
    Load load{std::max<size_t>(report.states.size(), 1), 0};
    for (const AppStateInfo& state : report.states) {
        load.bytes += state.appName.size();
    }
    for (const auto& [name, status] : report.statuses) {
        load.bytes += name.size();
    }
    return load;
}

void ReportSender::Post(const std::string& name, Report report) {
    const LockGuard lock(mutex_);
    Owner& owner = owners_[name];
    report.number = ++owner.lastNumber;
    const Load load = LoadOf(report);
    const bool isFull =
        owner.load.items + load.items > ITEMS_MAX || owner.load.bytes + load.bytes > BYTES_MAX;
    if (isFull && owner.load.items > 0) {
        Overflow(name, owner);
    }
    owner.load.items += load.items;
    owner.load.bytes += load.bytes;
    owner.queue.push_back(std::move(report));
    posted_.insert(name);
}

void ReportSender::Miss(const std::string& name, const Report& report) {
    const LockGuard lock(mutex_);
    Owner& owner = owners_[name];
    Report numbered = report;
    numbered.number = ++owner.lastNumber;
    KeepMissed(owner, numbered);
    Owe(owner);
}

void ReportSender::OwePicture(const std::string& name) {
    const LockGuard lock(mutex_);
    Owe(owners_[name]);
    posted_.insert(name);
}

void ReportSender::Owe(Owner& owner) {
    if (!std::exchange(owner.isPictureOwed, true)) {
        Report picture;
        picture.isPicture = true;
        picture.number = ++owner.lastNumber;
        owner.queue.push_back(std::move(picture));
    }
}

// Drops the queue and keeps its states, by application, for a picture. Answers to queries are lost.
void ReportSender::Overflow(const std::string& name, Owner& owner) {
    ProcMgrLog(LOG_ERR,
               "PROCMGR : owner=%s does not take its reports, %zu are dropped, all states "
               "are sent when it takes records again",
               name.c_str(), owner.load.items);
    bool isPictureQueued = false;
    for (const Report& report : owner.queue) {
        isPictureQueued = isPictureQueued || report.isPicture;
        KeepMissed(owner, report);
    }
    owner.queue.clear();
    owner.load = {};
    owner.isPictureOwed = owner.isPictureOwed && !isPictureQueued;
    Owe(owner);
}

void ReportSender::KeepMissed(Owner& owner, const Report& report) {
    for (const AppStateInfo& state : report.states) {
        const bool isRoom = owner.missed.size() < ITEMS_MAX || owner.missed.contains(state.appName);
        // The name in an answer comes from the request and may be longer than the name of any
        // application.
        if (!isRoom || state.appName.size() > NAME_MAX_LENGTH) {
            continue;
        }
        Missed& missed = owner.missed[state.appName];
        if (report.number > missed.number) {
            missed = {report.number, state};
        }
    }
}

void ReportSender::Flush() {
    MayWait("an owner");
    // The lines about other owners' reports do not count against the limit of the request that the
    // calling thread handles.
    const LogLimit::Pause pause;
    std::set<std::string> posted;
    {
        const LockGuard lock(mutex_);
        posted.swap(posted_);
    }
    const SteadyTime now = std::chrono::steady_clock::now();
    for (const std::string& name : posted) {
        FlushOwner(name, now);
    }
}

void ReportSender::Retry(const std::string& name) {
    {
        const LockGuard lock(mutex_);
        Owner& owner = owners_[name];
        owner.due = {};
        owner.isRetryDue = true;
        posted_.insert(name);
    }
    Flush();
}

void ReportSender::FlushOwner(const std::string& name, SteadyTime now) {
    UniqueLock lock(mutex_);
    Owner& owner = owners_[name];
    if (owner.isBusy || owner.due > now) {
        return;
    }
    owner.isBusy = true;
    bool isTaken = true;
    // The loop sends at most as many reports as are queued now, so that posts of other threads
    // cannot prolong it without end.
    for (size_t left = owner.queue.size() + 1; left > 0 && isTaken && owner.HasWork(); --left) {
        TakeHead(owner);
        owner.isRetryDue = false;
        lock.Unlock();
        const Outcome outcome = TrySend(name, *owner.head);
        lock.Lock();
        isTaken = Settle(owner, outcome, now) || owner.isRetryDue;
    }
    owner.isBusy = false;
    if (isTaken && owner.HasWork()) {
        LeaveToThread(owner, now);
    }
}

void ReportSender::LeaveToThread(Owner& owner, SteadyTime due) {
    owner.due = due;
    isWoken_ = true;
    changed_.NotifyAll();
}

ReportSender::Outcome ReportSender::TrySend(const std::string& name, Sending& sending) {
    try {
        return Send(name, sending);
    } catch (const std::bad_alloc&) {
        return Outcome::NO_MEMORY;
    }
}

void ReportSender::TakeHead(Owner& owner) {
    if (owner.head) {
        return;
    }
    owner.head = Sending();
    owner.head->report = std::move(owner.queue.front());
    owner.queue.pop_front();
    const Load load = LoadOf(owner.head->report);
    owner.load.items -= load.items;
    owner.load.bytes -= load.bytes;
}

ReportSender::Outcome ReportSender::Send(const std::string& name, Sending& sending) {
    MayWait("an owner");
    const int fd = pipes_.GetServiceFd(name);
    if (fd != sending.fd) {
        Restart(name, sending, fd);
    }
    if (sending.report.isPicture && !sending.isFound && !FindPicture(name, sending)) {
        return Outcome::NOT_NOW;
    }
    if (sending.records.empty() && !Encode(name, sending)) {
        return Outcome::UNUSABLE;
    }
    if (fd < 1) {
        if (sending.report.isPicture) {
            return Outcome::NOT_NOW;
        }
        LogNoPipe(sending.report, name);
        return Outcome::FAILED;
    }
    return SendRecords(name, sending, fd);
}

ReportSender::Outcome ReportSender::SendRecords(const std::string& name, Sending& sending, int fd) {
    while (sending.sent < sending.records.size()) {
        const auto bytes = Message::EncodeRecord(sending.records[sending.sent]);
        MuxaRequest request;
        request.data = bytes.data();
        request.length = static_cast<uint32_t>(bytes.size());
        const int result = MuxaSendRequest(fd, &request);
        const bool isTriedAgain = sending.report.isPicture ||
                                  (result == MUXA_TRY_AGAIN && ++sending.attempts < SEND_ATTEMPTS);
        if (result < 0 && isTriedAgain) {
            return Outcome::FULL;
        }
        if (result < 0) {
            LogNotSent(sending.report, name, fd, result);
            return Outcome::FAILED;
        }
        sending.attempts = 0;
        ++sending.sent;
    }
    LogSent(sending.report, name);
    return Outcome::SENT;
}

// Called when the descriptor of the owner's pipe has changed. The report is encoded and sent again
// from its first record, because a new process of the owner has not received the records that were
// sent to the old process.
void ReportSender::Restart(const std::string& name, Sending& sending, int fd) {
    sending.fd = fd;
    sending.records.clear();
    sending.sent = 0;
    sending.attempts = 0;
    if (!std::exchange(sending.isFound, false)) {
        return;
    }
    const LockGuard lock(mutex_);
    Owner& owner = owners_[name];
    KeepMissed(owner, sending.report);
    sending.report.states.clear();
    owner.isPictureOwed = true;
}

// A picture consists of the present states and of the missed states of applications that have no
// record any more.
bool ReportSender::FindPicture(const std::string& name, Sending& sending) {
    if (pipes_.GetServiceFd(name) < 1) {
        return false;
    }
    std::map<std::string, Missed> missed;
    {
        const LockGuard lock(mutex_);
        Owner& owner = owners_[name];
        missed.swap(owner.missed);
        // Reports that are missed from here on need another picture.
        owner.isPictureOwed = false;
    }
    const auto states = picture_ == nullptr ? std::nullopt : picture_->GetPicture(name);
    if (!states) {
        const LockGuard lock(mutex_);
        Owner& owner = owners_[name];
        // merge() keeps the newer states, which were added while the lock was released.
        owner.missed.merge(missed);
        owner.isPictureOwed = true;
        return false;
    }
    sending.report.states = *states;
    for (const AppStateInfo& state : *states) {
        missed.erase(state.appName);
    }
    for (auto& [app, last] : missed) {
        sending.report.states.push_back(std::move(last.state));
    }
    sending.isFound = true;
    return true;
}

bool ReportSender::Encode(const std::string& name, Sending& sending) {
    const Report& report = sending.report;
    if (!report.statuses.empty()) {
        const auto record = Message::EncodeDetailStatus(report.statuses);
        if (!record) {
            ProcMgrLog(LOG_ERR, "PROCMGR : ReportAppDetailStatus SerializeMessage failed");
            return false;
        }
        sending.records.push_back(*record);
        return true;
    }
    if (report.states.empty()) {
        if (!report.isPicture) {
            ProcMgrLog(LOG_ERR, "PROCMGR : Master SendRequestMsg failed: RequestPieceMsg is empty");
        }
        return report.isPicture;
    }
    std::vector<std::pair<uint32_t, std::string>> pieces;
    if (!Serialization::ProcMgrPackAppStateRequest(report.states, pieces)) {
        LogNotPacked(name);
        return false;
    }
    if (!Serialization::ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, pieces,
                                                sending.records)) {
        LogNotCombined(name);
        return false;
    }
    return true;
}

bool ReportSender::Settle(Owner& owner, Outcome outcome, SteadyTime now) {
    Sending& sending = *owner.head;
    const bool isPicture = sending.report.isPicture;
    if (outcome == Outcome::FULL) {
        LeaveToThread(owner, now + (isPicture ? PICTURE_PAUSE : SEND_PAUSE));
        return false;
    }
    if (outcome == Outcome::NOT_NOW || outcome == Outcome::NO_MEMORY) {
        LeaveToThread(owner, outcome == Outcome::NOT_NOW ? SteadyTime::max() : now + PICTURE_PAUSE);
        return false;
    }
    owner.due = {};
    if (outcome == Outcome::FAILED) {
        KeepMissed(owner, sending.report);
        Owe(owner);
    } else if (outcome == Outcome::SENT) {
        ForgetMissed(owner, sending.report);
    }
    owner.head.reset();
    return true;
}

// A missed state is dropped when a newer report about the application has been sent.
void ReportSender::ForgetMissed(Owner& owner, const Report& report) {
    for (const AppStateInfo& state : report.states) {
        const auto missed = owner.missed.find(state.appName);
        if (missed != owner.missed.end() && missed->second.number < report.number) {
            owner.missed.erase(missed);
        }
    }
}

void ReportSender::Run(OwnerPipes& pipes) {
    bool isRunning = true;
    while (isRunning) {
        try {
            isRunning = RunOnce(pipes);
        } catch (const std::bad_alloc&) {
            SleepFor(PICTURE_PAUSE);
        }
    }
}

bool ReportSender::RunOnce(OwnerPipes& pipes) {
    const std::optional<SteadyTime> close = pipes.NextClose();
    {
        UniqueLock lock(mutex_);
        const SteadyTime due = std::min(close.value_or(SteadyTime::max()), NextDue());
        const auto isWanted = [this]() PROCMGR_REQUIRES(mutex_) { return isWoken_ || isStopping_; };
        if (due == SteadyTime::max()) {
            changed_.Wait(lock, isWanted);
        } else {
            changed_.WaitUntil(lock, due, isWanted);
        }
        if (isStopping_) {
            return false;
        }
        isWoken_ = false;
    }
    const SteadyTime now = std::chrono::steady_clock::now();
    pipes.CloseBusy(now);
    for (const std::string& name : ListDue(now)) {
        FlushOwner(name, now);
    }
    return true;
}

SteadyTime ReportSender::NextDue() const {
    SteadyTime next = SteadyTime::max();
    for (const auto& [name, owner] : owners_) {
        if (owner.due != SteadyTime() && !owner.isBusy) {
            next = std::min(next, owner.due);
        }
    }
    return next;
}

std::vector<std::string> ReportSender::ListDue(SteadyTime now) const {
    const LockGuard lock(mutex_);
    std::vector<std::string> due;
    for (const auto& [name, owner] : owners_) {
        if (owner.due != SteadyTime() && owner.due <= now) {
            due.push_back(name);
        }
    }
    return due;
}

void ReportSender::OnPipeBusy() {
    const LockGuard lock(mutex_);
    isWoken_ = true;
    changed_.NotifyAll();
}

void ReportSender::Stop() {
    const LockGuard lock(mutex_);
    isStopping_ = true;
    changed_.NotifyAll();
}

std::map<std::string, ReportSender::QueueView> ReportSender::GetQueues() const {
    const LockGuard lock(mutex_);
    std::map<std::string, QueueView> queues;
    for (const auto& [name, owner] : owners_) {
        queues[name] = {owner.queue.size() + (owner.head ? 1 : 0), owner.load.items,
                        owner.missed.size()};
    }
    return queues;
}

}  // namespace ProcMgr
