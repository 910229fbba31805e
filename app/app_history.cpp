#include "app/app_history.h"

#include <algorithm>
#include <chrono>

namespace ProcMgr::App {
namespace {

void Count(std::atomic<uint64_t>& counter) {
    counter.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

int64_t RestartWindow::SecondOf(SteadyTime time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

void RestartWindow::Add(SteadyTime now) {
    const int64_t second = SecondOf(now);
    // The slots of the seconds without a restart hold counts of a minute before.
    const int64_t oldest = std::max<int64_t>(second - SLOTS + 1, 0);
    for (int64_t stale = std::max(last_ + 1, oldest); stale <= second; ++stale) {
        counts_[static_cast<size_t>(stale % SLOTS)] = 0;
    }
    last_ = std::max(last_, second);
    uint8_t& count = counts_[static_cast<size_t>(second % SLOTS)];
    count = std::max<uint8_t>(count, static_cast<uint8_t>(count + 1));
}

uint32_t RestartWindow::Count(SteadyTime now) const {
    const int64_t oldest = std::max({SecondOf(now) - SLOTS + 1, last_ - SLOTS + 1, int64_t{0}});
    uint32_t sum = 0;
    for (int64_t second = oldest; second <= last_; ++second) {
        sum += counts_[static_cast<size_t>(second % SLOTS)];
    }
    return sum;
}

void AppHistory::NoteStart(SteadyTime now) {
    Count(log_.GetCounters().starts);
    if (values_.starts++ == 0) {
        values_.firstStarted = now;
    } else {
        values_.restarts.Add(now);
    }
    values_.started = now;
    values_.running = {};
    values_.ready = {};
    endCause_.reset();
    refusal_ = StartRefusal::NONE;
}

void AppHistory::NoteExit(int32_t pid, int32_t status, SteadyTime now) {
    Count(log_.GetCounters().exits);
    values_.lastExit = {pid, status, now, endCause_, childFault_.Read()};
}

// A service may repeat its report as often as it likes: a report that changes nothing must not
// displace the changes of others.
void AppHistory::NoteChange(const StateChange& change, int32_t pid, int32_t exitStatus) {
    if (change.from == change.to) {
        return;
    }
    const SteadyTime now = log_.Add(kind_, facts_->name, pid, change, exitStatus);
    values_.changed = now;
    values_.changeReason = change.reason;
    values_.lastState = change.to;
    if (change.to == RUNNING) {
        NoteRunning(now);
        endCause_.reset();
    } else if (change.to == TERMINATING || (change.from == RUNNING && change.to == RESTARTING)) {
        endCause_ = change.reason;
    }
}

void AppHistory::NoteRunning(SteadyTime now) {
    if (values_.running != SteadyTime()) {
        return;
    }
    values_.running = now;
    if (values_.starts == 1) {
        values_.firstRunning = now;
    }
}

void AppHistory::NoteRefusal(StartRefusal refusal) {
    Count(log_.GetCounters().startFailures);
    refusal_ = refusal;
}

HistoryValues AppHistory::GetValues() const {
    HistoryValues values = values_;
    values.refusal = refusal_;
    return values;
}

}  // namespace ProcMgr::App
