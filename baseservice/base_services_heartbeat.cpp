// The heartbeat watches of the base services: registration with the heartbeat library and its
// notifications.
#include "baseservice/base_services.h"
#include "main/common/log.h"
#include "platform/heartbeat.h"

namespace ProcMgr {
namespace {

// The status of a notification.
constexpr uint32_t HEARTBEAT_BACK = 0;
constexpr uint32_t HEARTBEAT_LOST = 1;

}  // namespace

void BaseServices::EndHeartBeat(const std::string& name) {
    MayWait("the heartbeat library");
    UnregisterCheckHeartBeat(name.c_str(), name.size());
    WithdrawFault(name, App::EVENT_HEARTBEAT_LOST);
}

void BaseServices::RegisterHeartBeat(const Record& record) {
    MayWait("the heartbeat library");
    const std::string& name = record.appName_;
    const int ret = RegisterCheckHeartBeat(
        name.c_str(), name.size(), record.pid_,
        [this](const char* app, size_t length, int32_t pid, uint32_t status) {
            return HeartBeatNotify(app, length, pid, status);
        });
    if (ret != 0) {
        ProcMgrLog(LOG_ERR, "Register heart beat for %s failed. (ret=%d)", name.c_str(), ret);
    }
}

int BaseServices::HeartBeatNotify(const char* name, size_t nameLength, int32_t pid,
                                  uint32_t status) {
    if (name == nullptr || nameLength == 0) {
        ProcMgrLog(LOG_ERR, "Process heart beat notify, app name is invalid. (nameLen=%zu)",
                   nameLength);
        return 0;
    }
    const std::string app(name, nameLength);
    // Held to the end of the function: a fault that is raised here is withdrawn when the record is
    // removed, which takes the lock, too.
    const LockGuard lock(mutex_);
    const Record* record = executedBaseApp_.Find(app);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "Process heart beat notify, not find base app=%s", app.c_str());
        return 0;
    }
    switch (status) {
        case HEARTBEAT_LOST:
            ProcMgrLog(LOG_INFO, "Process heart beat notify. (app=%s,pid=%d,status=lost)",
                       app.c_str(), pid);
            // No fault is raised for a process that has ended: its heartbeat watch has been
            // removed, and no later call would withdraw the fault.
            if (record->IsAlive() && record->pid_ == pid) {
                RaiseFault(*record, App::EVENT_HEARTBEAT_LOST);
            }
            return 1;
        case HEARTBEAT_BACK:
            ProcMgrLog(LOG_INFO, "Process heart beat notify. (app=%s,pid=%d,status=recovery)",
                       app.c_str(), pid);
            WithdrawFault(app, App::EVENT_HEARTBEAT_LOST);
            return 1;
        default:
            ProcMgrLog(LOG_WARNING, "App status is invalid. (status=%u)", status);
            return 0;
    }
}

}  // namespace ProcMgr
