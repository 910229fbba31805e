// Fixed names of the platform that the daemon and its platform libraries have in common. The daemon
// itself neither sets these variables nor opens these endpoints; a library that does so takes the
// names from this file.
#pragma once

namespace ProcMgr {

// Environment variables.
inline constexpr const char* ENV_VESK_TYPE = "VESK_TYPE";
inline constexpr const char* ENV_VINTOR_RUN_MODE = "VINTOR_RUN_MODE";
inline constexpr const char* ENV_PM_AGENT = "PM_AGENT";
inline constexpr const char* ENV_SS_AGENT = "SS_AGENT";
inline constexpr const char* ENV_SS_SERVER = "SS_SERVER";

// Messaging endpoints.
inline constexpr const char* ENDPOINT_SYS_SERVER = "/res/procmgr/sys_server";
inline constexpr const char* ENDPOINT_SYS_EVENT = "dp:/res/pm/sys_event";
inline constexpr const char* ENDPOINT_SS = "dp:/res/pm/ss";

}  // namespace ProcMgr
