#include "resource/periodic_checks.h"

namespace ProcMgr {

void PlacementCheck::Run() {
    // Before the first check the files that a recovery needs may not have been read.
    if (!affinityCheck_.Run()) {
        return;
    }
    // Read after the check: the platform may have announced a suspend, and had it recovered from,
    // during the check.
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
