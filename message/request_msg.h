// The fixed-size record that every request and report travels in, and the items that the records
// carry. Used by the daemon and by the client library of the owners; record_codec.h,
// request_codec.h and report_codec.h encode and decode them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ProcMgr::Message {

// The bytes of one record's payload.
inline constexpr size_t PM_PIPE_BUF_MAX = 3964;

// One record, with the layout that it has on the wire. The numbers are little-endian there:
// EncodeRecord and DecodeRecord convert them.
struct RequestMsg {
    uint32_t type = 0;                // a RequestType
    uint32_t reserved = 0;            // alignment gap, ignored by the receiver
    uint64_t size = 0;                // payload bytes in use
    uint8_t data[PM_PIPE_BUF_MAX]{};  // payload, zero-filled after the bytes in use
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
    // 8 is not used.
    QUERY_APP_STATE = 9,
    APP_DETAIL_STATUS_REPORT = 10,
};

// An application to start.
struct StartAppInfo {
    std::string appName;
    std::vector<std::string> argv;  // used when the configured arguments are dynamic
    // By index: 0 executable path, 1 virtual function id, 2 environment entries KEY=VALUE.
    std::map<int, std::vector<std::string>> dynamicPara;

    bool operator==(const StartAppInfo&) const = default;
};

// An application to restart, with the same fields.
using RestartAppInfo = StartAppInfo;

// An application to end.
struct TermAppInfo {
    std::string appName;

    bool operator==(const TermAppInfo&) const = default;
};

// The state of an application that `vintor` runs itself.
struct AppExecInfo {
    std::string appName;
    uint32_t pid = 0;
    uint32_t gid = 0;
    uint32_t state = 0;  // an AppExecState

    bool operator==(const AppExecInfo&) const = default;
};

// A start-up configuration file to load, and the data that select applications of that file.
struct StartupCfgInfo {
    std::map<std::string, std::string> matchData;
    std::string path;

    bool operator==(const StartupCfgInfo&) const = default;
};

// The state that a base service reports of itself. The channel of the record identifies the
// service.
struct BaseServiceStateInfo {
    uint32_t state = 0;  // a BaseServiceStateType
};

// One change of an application's state, as reported to its owner.
struct AppStateInfo {
    std::string appName;
    uint32_t pid = 0;
    uint32_t gid = 0;
    uint32_t reportType = 0;  // a ReportAppStateType
    uint32_t result = 0;      // operation result, 0 where the reporter has none

    bool operator==(const AppStateInfo&) const = default;
};

}  // namespace ProcMgr::Message
