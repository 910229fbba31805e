#include "baseservice/readiness.h"

#include "app/app_spec.h"
#include "baseservice/base_services.h"
#include "channel/owner_reports.h"
#include "channel/report_sender.h"
#include "main/common/boot_trace.h"
#include "main/common/log.h"

namespace ProcMgr {

void Readiness::HandleBaseServiceState(const std::string& owner, BaseServiceStateType state) {
    ProcMgrLog(LOG_INFO, "%s PM receive BASESERVICE_STATE_REPORT msg from %s report state=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str(),
               GetBaseServiceStateTypeStr(static_cast<uint64_t>(state)).c_str());
    const bool isZorn = owner == PROC_ZORNMGR;
    switch (state) {
        case BaseServiceStateType::INIT:
            if (isZorn) {
                IntroduceTo(owner);
                // Reset, so that HandleReady() does not call IntroduceTo() a second time.
                wasZornReady_ = false;
                HandleReady(owner);
                wasZornReady_ = true;
            }
            return;
        case BaseServiceStateType::RESTARTING:
            if (isZorn) {
                IntroduceTo(owner);
                sender_.Flush();
            }
            return;
        case BaseServiceStateType::RUNNING:
            HandleReady(owner);
            services_.UpdateBaseAppState(owner, RUNNING);
            return;
        case BaseServiceStateType::TERMINATING:
            services_.UpdateBaseAppState(owner, TERMINATING);
            return;
    }
}

void Readiness::HandleReady(const std::string& owner) {
    const bool isNew = services_.UpdateBaseServerReadyInfo(owner);
    if (!isNew || owner != PROC_ZORNMGR) {
        sender_.Flush();
        return;
    }
    // A new process of the access manager has not received the reports that the previous process
    // received.
    if (wasZornReady_.exchange(true)) {
        IntroduceTo(owner);
    }
    heldBack_.ReportHeldBack();
    sender_.Retry(owner);
}

void Readiness::IntroduceTo(const std::string& accessManager) {
    reports_.RegisterVfs();
    sender_.OwePicture(accessManager);
}

}  // namespace ProcMgr
