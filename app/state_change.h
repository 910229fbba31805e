// The life cycle of a managed process: every permitted change of a record's state, with its reason.
// Used by AppInfo::ChangeState(), the only function that changes the state of a record.
#pragma once

#include <algorithm>
#include <array>

#include "message/enum_names.h"

namespace ProcMgr::App {

enum class ChangeReason {
    STARTED,         // a process has been forked
    FOUND_RUNNING,   // the check after a start found the process alive
    REPORTED,        // a base service reported its own state
    TERMINATION,     // the end of the process was requested, or the daemon stops
    TERM_TIMED_OUT,  // the process did not end in time and must not be killed
    RESTART,         // a restart was requested
    RESTART_FAILED,  // the old process has ended, the new one could not be started
    EXITED,          // the exit of the process has been collected
};

struct StateChange {
    ProcessState from = INITSTATE;
    ProcessState to = INITSTATE;
    ChangeReason reason = ChangeReason::STARTED;

    constexpr bool operator==(const StateChange&) const = default;
};

// Every permitted change. A change from a state to the same state is permitted where a service may
// repeat its report, or where a process that is already ending is terminated again.
inline constexpr std::array TRANSITIONS = {
    StateChange{INITSTATE, STARTING, ChangeReason::STARTED},
    StateChange{TERMINATED, STARTING, ChangeReason::STARTED},
    StateChange{STARTING, RUNNING, ChangeReason::FOUND_RUNNING},
    StateChange{STARTING, RUNNING, ChangeReason::REPORTED},
    StateChange{RUNNING, RUNNING, ChangeReason::REPORTED},
    StateChange{TERMINATING, RUNNING, ChangeReason::REPORTED},
    StateChange{STARTING, TERMINATING, ChangeReason::REPORTED},
    StateChange{RUNNING, TERMINATING, ChangeReason::REPORTED},
    StateChange{TERMINATING, TERMINATING, ChangeReason::REPORTED},
    StateChange{STARTING, TERMINATING, ChangeReason::TERMINATION},
    StateChange{RUNNING, TERMINATING, ChangeReason::TERMINATION},
    StateChange{TERMINATING, TERMINATING, ChangeReason::TERMINATION},
    StateChange{RESTARTING, TERMINATING, ChangeReason::TERMINATION},
    StateChange{TERMINATING, RUNNING, ChangeReason::TERM_TIMED_OUT},
    // Restart of a general application: from RUNNING, the old process has to end first; from
    // INITSTATE and TERMINATED, the new process has been forked already.
    StateChange{RUNNING, RESTARTING, ChangeReason::RESTART},
    StateChange{INITSTATE, RESTARTING, ChangeReason::RESTART},
    StateChange{TERMINATED, RESTARTING, ChangeReason::RESTART},
    StateChange{RESTARTING, RUNNING, ChangeReason::FOUND_RUNNING},
    StateChange{RESTARTING, TERMINATED, ChangeReason::RESTART_FAILED},
    StateChange{STARTING, TERMINATED, ChangeReason::EXITED},
    StateChange{RUNNING, TERMINATED, ChangeReason::EXITED},
    StateChange{TERMINATING, TERMINATED, ChangeReason::EXITED},
    StateChange{RESTARTING, TERMINATED, ChangeReason::EXITED},
};

constexpr bool IsTransition(const StateChange& change) {
    return std::find(TRANSITIONS.begin(), TRANSITIONS.end(), change) != TRANSITIONS.end();
}

}  // namespace ProcMgr::App
