// The enumerations that travel on the channel or are printed in the log, and their names. Used by
// the daemon and by the client library. Each name function returns an empty text for a value that
// the enumeration does not have.
#pragma once

#include <cstdint>
#include <string>

namespace ProcMgr {

// The life-cycle state of a managed process.
enum ProcessState : uint32_t {
    INITSTATE = 0,
    STARTING = 1,
    RUNNING = 2,
    TERMINATING = 3,
    TERMINATED = 4,
    RESTARTING = 5,
};

// The result of the last check of a process, as reported to the owner of the process.
enum ReportAppStateType : uint32_t {
    RUNNING_NORMAL_START = 0,
    RUNNING_NORMAL_RESTART = 1,
    RUNNING_ABNORMAL_TERM_TIMEOUT = 2,
    TERMINATED_NORMAL_EXIT = 3,
    TERMINATED_ABNORMAL_EXIT = 4,
    INVALID_INTERMEDIATE_STATE = 5,  // nothing to report
};

// The state that a base service reports of itself.
enum class BaseServiceStateType : uint32_t {
    INIT = 0,
    RESTARTING = 1,
    RUNNING = 2,
    TERMINATING = 3
};

std::string GetProcessStateStr(uint64_t value);
std::string GetReportAppStateTypeStr(uint64_t value);
std::string GetBaseServiceStateTypeStr(uint64_t value);
std::string GetOptionType(uint64_t value);
std::string GetGroupOwner(uint64_t value);
std::string GetAppState(uint64_t value);
std::string GetAppExecStateStr(uint64_t value);
std::string GetSysState(uint64_t value);

// True when every character is a digit, and for an empty text.
bool IsStrDigits(const std::string& text);

}  // namespace ProcMgr
