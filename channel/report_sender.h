// The queues of reports to the owners. A thread that reports puts the report into the owner's
// queue, under the lock that orders the changes which the report is about, and calls Flush() when
// that lock has been released: Flush() makes one attempt, without waiting, when no earlier report
// is queued. A report that a pipe does not take is sent by one thread, the report thread, in order
// and by the retry rule of the messaging library.
//
// An owner has missed a report when the report has finally failed (see Outcome) or the owner's
// queue has overflowed. The owner then gets a picture: the present state of each of its
// applications, and the last report about each application that has no record any more. The picture
// is sent as soon as the owner's pipe takes records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "channel/owner_pipes.h"
#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "message/request_msg.h"

namespace ProcMgr {

// What caused a report; selects the log lines about its outcome. SELF: the report about the daemon
// itself.
enum class ReportCause { PLAIN, STATE_TO_ZORN, CHANGES_TO_ZORN, CHANGES_TO_OWNER, SELF };

// One report to one owner: states, or the answer to a query.
struct Report {
    ReportCause cause = ReportCause::PLAIN;
    std::vector<Message::AppStateInfo> states;
    std::map<std::string, uint32_t> statuses;
    // the report answers a request; its number of items is then not bounded by the number of
    // applications
    bool isAnswer = false;
    bool isPicture = false;  // `states` is filled in when the report is sent
    uint64_t number = 0;     // the position among all reports to this owner, from 1
};

// The states that a picture consists of.
class PictureSource {
public:
    virtual ~PictureSource() = default;

    // The present states of the applications that `owner` receives reports about; nothing while the
    // owner is not ready to receive them. Called on the thread that sends, without a lock.
    virtual std::optional<std::vector<Message::AppStateInfo>> GetPicture(
        const std::string& owner) = 0;
};

class ReportSender final : public PipeEvents {
public:
    // Both must outlive this object. `picture` is null when no owner gets a picture.
    ReportSender(const OwnerPipes& pipes, PictureSource* picture)
        : pipes_(pipes), picture_(picture) {}

    // Queues a report; the next Flush() sends it. Any lock may be held.
    void Post(const std::string& owner, Report report) PROCMGR_EXCLUDES(mutex_);
    // Stores the states of a report that cannot be sent, because the owner has no pipe, for the
    // owner's next picture.
    void Miss(const std::string& owner, const Report& report) PROCMGR_EXCLUDES(mutex_);
    // Queues a picture at the end of the owner's queue, unless one is queued already. (Name:
    // QueuePicture.)
    void OwePicture(const std::string& owner) PROCMGR_EXCLUDES(mutex_);

    // Sends the queued reports, as far as the pipes take them at once. Not with a lock held.
    void Flush() PROCMGR_EXCLUDES(mutex_);
    // Makes the next attempt at once: the owner's pipe has been opened, or the owner has become
    // ready. Not with a lock held.
    void Retry(const std::string& owner) PROCMGR_EXCLUDES(mutex_);

    // The queue of one owner, for the status endpoint.
    struct QueueView {
        size_t reports = 0;  // with the one that is being sent
        size_t states = 0;   // of the reports that wait
        size_t missed = 0;   // applications whose last state the owner has missed
    };
    // By owner.
    std::map<std::string, QueueView> GetQueues() const PROCMGR_EXCLUDES(mutex_);

    void OnPipeOpen(const std::string& owner) override { Retry(owner); }
    // Wakes the report thread.
    void OnPipeBusy() override PROCMGR_EXCLUDES(mutex_);

    // The body of the report thread: sends the reports whose next attempt is due, and closes the
    // pipes that were busy. Returns after Stop().
    void Run(OwnerPipes& pipes) PROCMGR_EXCLUDES(mutex_);
    void Stop() PROCMGR_EXCLUDES(mutex_);

private:
    // The limits of one owner's queue: number of states, and bytes of application names.
    static constexpr size_t ITEMS_MAX = 4096;
    static constexpr size_t BYTES_MAX = size_t{1} << 20;

    // The number of states and of name bytes by which a report counts towards these limits. A
    // picture counts 0, because its states are filled in when it is sent.
    struct Load {
        size_t items = 0;
        size_t bytes = 0;
    };

    // The report that is being sent, taken out of the queue.
    struct Sending {
        Report report;
        std::vector<Message::RequestMsg> records;
        size_t sent = 0;       // records that have been sent
        int attempts = 0;      // failed attempts at the next record
        int fd = 0;            // of the pipe that the records were sent on; 0 before the first
        bool isFound = false;  // the states of a picture have been filled in
    };
    struct Missed {
        uint64_t number = 0;  // of the report
        Message::AppStateInfo state;
    };
    struct Owner {
        std::deque<Report> queue;
        Load load;                    // of the queue
        std::optional<Sending> head;  // used by the sending thread without the lock while isBusy
        bool isBusy = false;          // a thread is sending
        bool isPictureOwed = false;   // a picture is queued or is head, and its states are not
                                      // filled in yet: it will hold what is missed now
        bool isRetryDue = false;      // the next attempt is to be made at once
        SteadyTime due{};             // of the next attempt; the clock's epoch: none is planned
        uint64_t lastNumber = 0;
        std::map<std::string, Missed> missed;  // the last missed state, by application

        bool HasWork() const { return head || !queue.empty(); }
    };
    // The result of an attempt. FULL: the pipe takes no record now. FAILED: the report has failed
    // for good. UNUSABLE: the report cannot be encoded. NOT_NOW: a picture has to wait for Retry().
    enum class Outcome { SENT, FULL, FAILED, UNUSABLE, NOT_NOW, NO_MEMORY };

    static Load LoadOf(const Report& report);
    void FlushOwner(const std::string& name, SteadyTime now) PROCMGR_EXCLUDES(mutex_);
    static void TakeHead(Owner& owner);
    Outcome TrySend(const std::string& name, Sending& sending) PROCMGR_EXCLUDES(mutex_);
    Outcome Send(const std::string& name, Sending& sending) PROCMGR_EXCLUDES(mutex_);
    static Outcome SendRecords(const std::string& name, Sending& sending, int fd);
    // Begins the report anew, on the pipe `fd`.
    void Restart(const std::string& name, Sending& sending, int fd) PROCMGR_EXCLUDES(mutex_);
    // Fills in the states of a picture; false while the owner is not to get it.
    bool FindPicture(const std::string& name, Sending& sending) PROCMGR_EXCLUDES(mutex_);
    static bool Encode(const std::string& name, Sending& sending);
    // Applies the outcome of an attempt. True when the owner's next report may be sent.
    bool Settle(Owner& owner, Outcome outcome, SteadyTime now) PROCMGR_REQUIRES(mutex_);
    static void KeepMissed(Owner& owner, const Report& report);
    static void Owe(Owner& owner);
    static void Overflow(const std::string& name, Owner& owner);
    static void ForgetMissed(Owner& owner, const Report& report);
    // The time of the next attempt for any owner.
    SteadyTime NextDue() const PROCMGR_REQUIRES(mutex_);
    std::vector<std::string> ListDue(SteadyTime now) const PROCMGR_EXCLUDES(mutex_);
    // Plans the owner's next attempt at `due`, on the report thread.
    void LeaveToThread(Owner& owner, SteadyTime due) PROCMGR_REQUIRES(mutex_);
    bool RunOnce(OwnerPipes& pipes) PROCMGR_EXCLUDES(mutex_);

    const OwnerPipes& pipes_;
    PictureSource* const picture_;
    mutable Mutex mutex_;
    Condition changed_;
    // By name; entries are never erased.
    std::map<std::string, Owner> owners_ PROCMGR_GUARDED_BY(mutex_);
    // Owners with reports that no thread has tried to send.
    std::set<std::string> posted_ PROCMGR_GUARDED_BY(mutex_);
    bool isWoken_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr
