// What the status endpoint shows of an application's past: its starts, its last exit, the times of
// its changes. It outlives the record, which is removed when the application has ended. A record
// has a history only while the status endpoint is on. The lock of the record's container guards it,
// except NoteRefusal() and the note of a child's fault.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "app/app_facts.h"
#include "app/app_kind.h"
#include "app/change_log.h"
#include "app/child_fault.h"
#include "app/start_refusal.h"
#include "app/state_change.h"
#include "main/common/clock.h"

namespace ProcMgr::App {

// Counts the restarts of the last minute in slots of one second.
class RestartWindow {
public:
    void Add(SteadyTime now);
    uint32_t Count(SteadyTime now) const;

private:
    static constexpr int64_t SLOTS = 60;

    static int64_t SecondOf(SteadyTime time);

    std::array<uint8_t, SLOTS> counts_{};  // of the second N at N % SLOTS; at most 255
    int64_t last_ = -SLOTS;                // the second of the last restart
};

struct LastExit {
    int32_t pid = 0;     // 0: no process has ended
    int32_t status = 0;  // the raw wait status
    SteadyTime at{};
    // TERMINATION or RESTART: the end was requested; REPORTED: the process had announced it; none:
    // nobody expected it.
    std::optional<ChangeReason> cause;
    ChildFault fault{};  // the process has not executed its program
};

// The clock's epoch as a time: never.
struct HistoryValues {
    uint64_t starts = 0;
    RestartWindow restarts;
    LastExit lastExit;
    SteadyTime waiting{};  // the daemon learned that the application is to be started
    SteadyTime started{};  // of the present or last process, like the next two
    SteadyTime running{};
    SteadyTime ready{};
    SteadyTime released{};      // the first start of a base service was its turn
    SteadyTime firstStarted{};  // of the first process, like the next one
    SteadyTime firstRunning{};
    SteadyTime changed{};  // the last change of state
    ChangeReason changeReason = ChangeReason::STARTED;
    ProcessState lastState = INITSTATE;         // of a record that has been removed
    StartRefusal refusal = StartRefusal::NONE;  // of the last start

    // Whether the last start was refused, or its process has not executed the program.
    bool HasFailedStart() const {
        const bool isFault = lastExit.fault.step != ChildFault::Step::NONE;
        return refusal != StartRefusal::NONE || (isFault && lastExit.at >= started);
    }
};

class AppHistory {
public:
    // `log` must outlive this object.
    AppHistory(AppKind kind, std::shared_ptr<const AppFacts> facts, ChangeLog& log)
        : kind_(kind), log_(log), facts_(std::move(facts)) {}
    AppHistory(const AppHistory&) = delete;
    AppHistory& operator=(const AppHistory&) = delete;

    const std::shared_ptr<const AppFacts>& GetFacts() const { return facts_; }
    // Only for general applications, whose values may change with each start.
    void SetFacts(std::shared_ptr<const AppFacts> facts) { facts_ = std::move(facts); }

    // A start begins: nothing is known against it yet.
    void NoteWaiting(SteadyTime now) {
        values_.waiting = now;
        refusal_ = StartRefusal::NONE;
    }
    void NoteReleased(SteadyTime now) { values_.released = now; }
    void NoteStart(SteadyTime now);
    void NoteReady(SteadyTime now) { values_.ready = now; }
    void NoteExit(int32_t pid, int32_t status, SteadyTime now);
    void NoteChange(const StateChange& change, int32_t pid, int32_t exitStatus);
    // Called by the thread that makes the start, also without a lock.
    void NoteRefusal(StartRefusal refusal);

    HistoryValues GetValues() const;
    SteadyTime GetWaiting() const { return values_.waiting; }

    // What the next process of `history` writes, if it shares the memory of the daemon. The result
    // keeps the history: the record may be gone, and the history dropped, while the process runs.
    static std::shared_ptr<ChildFaultNote> TakeFaultNote(
        const std::shared_ptr<AppHistory>& history) {
        history->childFault_.Clear();
        return {history, &history->childFault_};
    }

private:
    void NoteRunning(SteadyTime now);

    const AppKind kind_;
    ChangeLog& log_;
    std::shared_ptr<const AppFacts> facts_;
    HistoryValues values_;
    std::optional<ChangeReason> endCause_;  // of the end of the present process
    std::atomic<StartRefusal> refusal_{StartRefusal::NONE};
    ChildFaultNote childFault_;  // of the present process
};

}  // namespace ProcMgr::App
