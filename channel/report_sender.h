// The reports on their way to the owners. Whoever reports puts a report into the owner's queue,
// under whatever lock orders the changes that it tells of, and has it sent when that lock has been
// released: once, without waiting, when nothing is queued before it. What a pipe does not take is
// sent by one thread, the report thread, in order and by the retry rule of the messaging library.
//
// An owner whose report has failed for good, or whose queue has overflowed, has missed something.
// It is owed the picture: the present state of each of its applications, and the last report about
// each application that is gone. The picture is sent as soon as the owner's pipe takes records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
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

// Why a report is sent, which decides what is logged about its outcome.
enum class ReportCause { PLAIN, STATE_TO_ZORN, CHANGES_TO_ZORN, CHANGES_TO_OWNER, SELF };

// What one call reports to one owner: states, or the answer to a query.
struct Report {
    ReportCause cause = ReportCause::PLAIN;
    std::vector<Message::AppStateInfo> states;
    std::map<std::string, uint32_t> statuses;
    bool isAnswer = false;   // to a request, which may name what it likes
    bool isPicture = false;  // the states are to be found out when it is sent
    uint64_t number = 0;     // grows with each report of an owner
};

class ReportSender {
public:
    // The present states of the applications that the owner should know of; nothing when it is not
    // to be told yet. Called without a lock.
    using PictureSource =
        std::function<std::optional<std::vector<Message::AppStateInfo>>(const std::string& owner)>;

    // Both must outlive this object.
    ReportSender(const OwnerPipes& pipes, PictureSource picture)
        : pipes_(pipes), picture_(std::move(picture)) {}

    // Queues a report. Any lock may be held. It is sent by the next Flush().
    void Post(const std::string& owner, Report report);
    // Keeps for the owner's picture what cannot be sent because its pipe is not open.
    void Miss(const std::string& owner, const Report& report);
    // Queues the picture behind what is queued.
    void OwePicture(const std::string& owner);

    // Sends what has been queued, as far as the pipes take it at once. Not with a lock held.
    void Flush();
    // What held the owner's reports back may have ended: its pipe has been opened, or it is ready.
    void Retry(const std::string& owner);

    // The report thread: what is to be tried again, and the pipes that are to be closed.
    void Run(OwnerPipes& pipes);
    // Wakes the report thread to look again; ends it.
    void Wake();
    void Stop();

private:
    // What a queue may hold: states, and bytes of names.
    static constexpr size_t ITEMS_MAX = 4096;
    static constexpr size_t BYTES_MAX = size_t{1} << 20;

    // What a report adds to a queue. A picture costs nothing before its turn.
    struct Load {
        size_t items = 0;
        size_t bytes = 0;
    };

    // A report whose turn has come.
    struct Sending {
        Report report;
        std::vector<Message::RequestMsg> records;
        size_t sent = 0;       // records
        int attempts = 0;      // at the next record
        int fd = 0;            // of the pipe that has taken records; 0: none has yet
        bool isFound = false;  // the picture's states are
    };
    struct Missed {
        uint64_t number = 0;  // of the report
        Message::AppStateInfo state;
    };
    struct Owner {
        std::deque<Report> queue;
        Load load;                    // of the queue
        std::optional<Sending> head;  // taken out of the queue; the sending thread's while isBusy
        bool isBusy = false;          // a thread is sending
        bool isPictureOwed = false;   // a picture that will hold what is missed is on its way
        bool isRetryDue = false;      // what waits is to be tried again at once
        SteadyTime due{};             // of the next attempt
        uint64_t lastNumber = 0;
        std::map<std::string, Missed> missed;  // last states by application

        bool HasWork() const { return head || !queue.empty(); }
    };
    // UNUSABLE: the report cannot be encoded.
    enum class Outcome { SENT, FULL, FAILED, UNUSABLE, NOT_NOW, NO_MEMORY };

    static Load LoadOf(const Report& report);
    void FlushOwner(const std::string& name, SteadyTime now);
    static void TakeHead(Owner& owner);
    Outcome TrySend(const std::string& name, Sending& sending);
    Outcome Send(const std::string& name, Sending& sending);
    void Restart(const std::string& name, Sending& sending, int fd);
    // Fills in the picture's states; false when it is not to be sent yet.
    bool FindPicture(const std::string& name, Sending& sending);
    static bool Encode(const std::string& name, Sending& sending);
    // What follows from an attempt; true when the owner's next report may be sent. The caller holds
    // mutex_.
    bool Settle(Owner& owner, Outcome outcome, SteadyTime now);
    static void KeepMissed(Owner& owner, const Report& report);
    static void Owe(Owner& owner);
    static void Overflow(const std::string& name, Owner& owner);
    static void ForgetMissed(Owner& owner, const Report& report);
    // The time of the next attempt of any owner. The caller holds mutex_.
    SteadyTime NextDue() const;
    std::vector<std::string> TakeDue(SteadyTime now);
    // The report thread goes on with the owner at `due`. The caller holds mutex_.
    void LeaveToThread(Owner& owner, SteadyTime due);
    bool RunOnce(OwnerPipes& pipes);

    const OwnerPipes& pipes_;
    const PictureSource picture_;
    mutable Mutex mutex_;
    Condition changed_;
    // All guarded by mutex_.
    std::map<std::string, Owner> owners_;  // entries are never erased
    std::set<std::string> posted_;         // owners with reports that nobody has tried to send
    bool isWoken_ = false;
    bool isStopping_ = false;
};

}  // namespace ProcMgr
