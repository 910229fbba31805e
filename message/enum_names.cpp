#include "message/enum_names.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace ProcMgr {
namespace {

using namespace std::string_view_literals;

constexpr std::array PROCESS_STATES = {"INITSTATE"sv,   "STARTING"sv,   "RUNNING"sv,
                                       "TERMINATING"sv, "TERMINATED"sv, "RESTARTING"sv};
static_assert(PROCESS_STATES.size() == RESTARTING + 1);

constexpr std::array REPORT_TYPES = {
    "RUNNING_NORMAL_START"sv,   "RUNNING_NORMAL_RESTART"sv,   "RUNNING_ABNORMAL_TERM_TIMEOUT"sv,
    "TERMINATED_NORMAL_EXIT"sv, "TERMINATED_ABNORMAL_EXIT"sv, "INVALID_INTERMEDIATE_STATE"sv};
static_assert(REPORT_TYPES.size() == INVALID_INTERMEDIATE_STATE + 1);

constexpr std::array BASE_SERVICE_STATES = {"INIT"sv, "RESTARTING"sv, "RUNNING"sv, "TERMINATING"sv};
constexpr std::array OPTION_TYPES = {"START"sv, "TERM"sv, "RESTART"sv};
constexpr std::array GROUP_OWNERS = {"VINTOR"sv, "APPMGR"sv};
constexpr std::array APP_STATES = {
    "SUCCESS"sv, "TERM_FAILED"sv, "START_FAILED"sv,       "RESTART_FAILED"sv,
    "INIT"sv,    "PROCESSING"sv,  "START_FAILED_BY_EIO"sv};
constexpr std::array APP_EXEC_STATES = {"RUNNING"sv, "TERMINATED"sv};
constexpr std::array SYS_STATES = {"WORKING"sv, "SUSPEND"sv, "UPGRADE"sv, "CALIBRATION"sv};

template <size_t N>
std::string NameOf(const std::array<std::string_view, N>& names, uint64_t value) {
    return value < N ? std::string(names[value]) : std::string();
}

}  // namespace

std::string GetProcessStateStr(uint64_t value) {
    return NameOf(PROCESS_STATES, value);
}

std::string GetReportAppStateTypeStr(uint64_t value) {
    return NameOf(REPORT_TYPES, value);
}

std::string GetBaseServiceStateTypeStr(uint64_t value) {
    return NameOf(BASE_SERVICE_STATES, value);
}

std::string GetOptionType(uint64_t value) {
    return NameOf(OPTION_TYPES, value);
}

std::string GetGroupOwner(uint64_t value) {
    return NameOf(GROUP_OWNERS, value);
}

std::string GetAppState(uint64_t value) {
    return NameOf(APP_STATES, value);
}

std::string GetAppExecStateStr(uint64_t value) {
    return NameOf(APP_EXEC_STATES, value);
}

std::string GetSysState(uint64_t value) {
    return NameOf(SYS_STATES, value);
}

bool IsStrDigits(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace ProcMgr
