// The words and limits of the protocol between pmctl and pm-console, and the request as a value.
// docs/pmctl.md describes the lines. Included by both programs.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "message/request_msg.h"

namespace ProcMgr::Console {

inline constexpr int PROTOCOL_VERSION = 1;
// Bytes of the line of a request, with the newline.
inline constexpr size_t REQUEST_MAX = 65536;
inline constexpr size_t NAMES_MAX = 64;
inline constexpr std::chrono::milliseconds TIMEOUT_DEFAULT = std::chrono::seconds(30);
inline constexpr std::chrono::milliseconds TIMEOUT_MAX = std::chrono::hours(1);

enum class Command { START, STOP, RESTART, QUERY, LOAD, RELOAD };

inline constexpr std::array COMMAND_NAMES = std::to_array<std::pair<Command, std::string_view>>({
    {Command::START, "start"},
    {Command::STOP, "stop"},
    {Command::RESTART, "restart"},
    {Command::QUERY, "query"},
    {Command::LOAD, "load"},
    {Command::RELOAD, "reload"},
});

inline std::string NameOf(Command command) {
    return std::string(COMMAND_NAMES.at(static_cast<size_t>(command)).second);
}

// The values of "code" in the last line of an answer that is not ok.
namespace Code {
inline constexpr const char* FAILED = "failed";          // an application has not done it
inline constexpr const char* TIMED_OUT = "timeout";      // no outcome within the time-out
inline constexpr const char* NO_DAEMON = "no-daemon";    // the daemon is away or takes nothing
inline constexpr const char* BUSY = "busy";              // too many clients
inline constexpr const char* PERMISSION = "permission";  // the client may not use the console
inline constexpr const char* REQUEST = "request";        // the request is malformed
}  // namespace Code

// The index of each kind of value in Message::StartAppInfo::dynamicPara.
inline constexpr int PROGRAM = 0;
inline constexpr int VF_ID = 1;
inline constexpr int ENVIRONMENT = 2;

struct Request {
    Command command = Command::QUERY;
    // The applications, each once; none for LOAD and RELOAD.
    std::vector<std::string> names = {};
    // START and RESTART: the values for the patterns of each application; its name is not used.
    Message::StartAppInfo values = {};
    // LOAD and RELOAD.
    Message::StartupCfgInfo file = {};
    // Whether the client waits for the outcome, and how long.
    bool isWaiting = false;
    std::chrono::milliseconds timeout = TIMEOUT_DEFAULT;

    bool operator==(const Request&) const = default;
};

inline bool HasFile(Command command) {
    return command == Command::LOAD || command == Command::RELOAD;
}
inline bool IsLaunch(Command command) {
    return command == Command::START || command == Command::RESTART;
}

}  // namespace ProcMgr::Console
