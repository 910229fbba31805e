// The fixed-size record that every request and report travels in, and the items it carries.
// Shared by the daemon and by the client library of the owners.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ProcMgr::Message {

// Payload bytes of one record.
inline constexpr size_t PM_PIPE_BUF_MAX = 3964;

// One record as it is on the wire: little-endian, sent and received whole.
struct RequestMsg {
    uint32_t type = 0;                // a RequestType
    uint32_t reserved = 0;            // alignment gap, ignored by the receiver
    uint64_t size = 0;                // payload bytes in use
    uint8_t data[PM_PIPE_BUF_MAX]{};  // payload, zero-filled behind `size`
    uint32_t trailing = 0;            // alignment gap, ignored by the receiver
};
static_assert(sizeof(RequestMsg) == 3984);
static_assert(offsetof(RequestMsg, size) == 8);
static_assert(offsetof(RequestMsg, data) == 16);

enum RequestType : uint32_t {
    START_APP = 0,
    RESTART_APP = 1,
    TERM_APP = 2,
    BASESERVICE_STATE_REPORT = 3,
    APP_STATE_REPORT = 4,
    APP_EXECUTION_REPORT = 5,
    LOAD_STARTUP_CFG = 6,
    RELOAD_STARTUP_CFG = 7,
    QUERY_APP_STATE = 9,
    APP_DETAIL_STATUS_REPORT = 10,
};

// What START_APP asks for. `dynamicPara`: by index, 0 executable path, 1 virtual function id, 2
// environment entries KEY=VALUE.
struct StartAppInfo {
    std::string appName;
    std::vector<std::string> argv;
    std::map<int, std::vector<std::string>> dynamicPara;
};

// What RESTART_APP asks for: the same.
struct RestartAppInfo {
    std::string appName;
    std::vector<std::string> argv;
    std::map<int, std::vector<std::string>> dynamicPara;
};

struct TermAppInfo {
    std::string appName;
};

// What `vintor` says about an application that it runs itself.
struct AppExecInfo {
    std::string appName;
    uint32_t pid = 0;
    uint32_t gid = 0;
    uint32_t state = 0;  // an AppExecState
};

// A start-up configuration file, and the data that selects among its applications.
struct StartupCfgInfo {
    std::map<std::string, std::string> matchData;
    std::string path;
};

// A base service's word about itself. The channel it came on says which service it is.
struct BaseServiceStateInfo {
    uint32_t state = 0;  // a BaseServiceStateType
};

// One change of an application's state, as its owner is told about it.
struct AppStateInfo {
    std::string appName;
    uint32_t pid = 0;
    uint32_t gid = 0;
    uint32_t reportType = 0;  // a ReportAppStateType
    uint32_t result = 0;      // operation result, 0 where the reporter has none

    bool operator==(const AppStateInfo&) const = default;
};

}  // namespace ProcMgr::Message
