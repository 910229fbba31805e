#include "resource/periodic_checks.h"

namespace ProcMgr {

void PlacementCheck::Run() {
    // Run() of the affinity check returns false until its Start(): the core lists and the host
    // resource file, which a recovery needs, may not have been read before.
    if (!affinityCheck_.Run()) {
        return;
    }
    // HasWokenUp() is called after the check, because the platform may have announced a suspend and
    // called WakeUpRecover() during the check.
    isRecoveryDue_ = wakeUpWatch_.HasWokenUp() || isRecoveryDue_;
    if (isRecoveryDue_) {
        delayCoreAffinity_.WakeUpRecover();
        isRecoveryDue_ = false;
    }
}

void PlacementCheck::WakeUpRecover() {
    wakeUpWatch_.HasWokenUp();
    delayCoreAffinity_.WakeUpRecover();
}

}  // namespace ProcMgr
