// The manifest values of one application, as one value that is copied as
// a whole. The record of a general application holds two of these: the one that its process
// was started with, and the current one of the configuration.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/manifest.h"
#include "platform/manifest_output.h"

namespace ProcMgr {

// The names of the services that the daemon treats specially: the runner of virtual functions, the
// access manager, and the service that passes on the requests of the command line.
inline constexpr const char* PROC_VINTOR = "vintor";
inline constexpr const char* PROC_ZORNMGR = "zornmgr";
inline constexpr const char* PROC_CONSOLE = "pm-console";

// Restart policies. Any other text means that the application is never restarted.
inline constexpr const char* RESTART_ON_FAILURE = "on-failure";
inline constexpr const char* RESTART_ON_FOREVER = "on-forever";
inline constexpr const char* RESTART_ON_UNTIL_SUCCEED = "on-until-succeed";
inline constexpr const char* RESTART_NO = "no";

}  // namespace ProcMgr

namespace ProcMgr::App {

// The scheduling policy of an application. ToSystemPolicy() translates it when it is applied.
enum class SchedPolicyType : uint32_t {
    OTHER = 0,
    BATCH = 1,
    IDLE = 2,
    FIFO = 3,
    ROUND_ROBIN = 4,
    NOT_SET = 5,
};

// The policy of the operating system; SCHED_OTHER for a value outside the enumeration.
int ToSystemPolicy(SchedPolicyType policy);

// The value of the manifest; INHERIT with a platform library that does not know the key.
OutputConfig OutputOf(const ApplicationManifest& manifest);

// Which values of a manifest a start request replaces, with the patterns that these must satisfy.
struct DynamicPatterns {
    bool dynamicExecPath_ = false;
    std::string execPathPattern_;
    bool dynamicArguments_ = false;
    // Every configured entry, whether its value is a pattern or not.
    std::map<std::string, std::string> envPatterns_;
    bool dynamicVfId_ = false;
    std::string vfIdPattern_;
};

// The control groups of an application. Empty: the manifest names none.
struct AppGroups {
    std::string resGroupName_;  // of the cpu controller
    std::string cpuset_;
    std::string blkioGroupName_;
    std::map<std::string, std::string> cgroupPath_;  // the others, by controller

    bool operator==(const AppGroups&) const = default;
};

// The groups of the manifest; one object for all manifests that name none.
std::shared_ptr<const AppGroups> GroupsOf(const ApplicationManifest& manifest);

class AppSpec {
public:
    // The start-up priority of an application that is not a priority application.
    static constexpr int32_t NO_PRIORITY = -1;
    // A core list that begins with this number gives no cores: SCHED_FIFO with priority 99 is set
    // instead.
    static constexpr uint32_t AFFINITY_MARKER = 255;

    AppSpec(const ApplicationManifest& manifest, const std::string& appName);

    // Whether this is a priority application: the daemon starts it without a request and reports it
    // to the access manager.
    bool IsPriority() const { return startupPriority_ != NO_PRIORITY; }

    // Applies the values of a start request: the arguments, and in `dynamicPara` by index the
    // executable path (0), the virtual function id (1) and the environment entries (2). Changes
    // nothing when the manifest has no patterns. False, with a log line, when a value does not
    // match its pattern; values before it may have been applied then, so the object must not be
    // used.
    bool UpdateDynamicPara(const std::vector<std::string>& argv,
                           const std::map<int, std::vector<std::string>>& dynamicPara);
    bool UpdateExecvPath(const std::vector<std::string>& values);
    bool UpdateVfId(const std::vector<std::string>& values);
    bool UpdateEnv(const std::vector<std::string>& values);

    std::string appName_;
    uint32_t uid_ = 0;
    uint32_t gid_ = 0;
    std::vector<uint32_t> coreAffinity_;
    // Never null. Shared by the copies of this object, and by all applications that name no groups.
    std::shared_ptr<const AppGroups> groups_;
    std::string execPath_;
    std::vector<std::string> arguments_;
    std::map<std::string, std::string> envs_;
    uint32_t termTimeout_ = 0;  // milliseconds
    std::string securityCon_;
    bool isReporting_ = false;  // base services
    std::string restartPolicy_;
    uint32_t nodeType_ = 0;
    int32_t startupPriority_ = NO_PRIORITY;
    bool isDelayCoreAffinity_ = false;
    int32_t vfId_ = -1;
    bool isDynamicPara_ = false;
    uint32_t numaType_ = 0;
    // Null when isDynamicPara_ is false. Shared by the copies of this object.
    std::shared_ptr<const DynamicPatterns> patterns_;
    SchedPolicyType schedPolicy_ = SchedPolicyType::NOT_SET;
    bool rtEnable_ = false;
    int32_t rtPriority_ = -1;
    int32_t nice_ = 0;
    bool forceTerm_ = false;
    std::vector<std::pair<std::string, std::string>> sharepoolGroups_;
    bool heartBeatSwitch_ = false;
    std::set<std::string> dependList_;  // base services
    std::string startupEntryPath_;      // base services
    OutputConfig output_;

private:
    // Applies the real-time settings and the core-affinity marker.
    void ApplyScheduling(const ApplicationManifest& manifest);
    void ApplyRealTime(const ApplicationManifest& manifest);
    void DetectDynamicParameters(const ApplicationManifest& manifest);
};

}  // namespace ProcMgr::App
