// What each service of a start-up waited for last, and the path that decided how long it took.
#pragma once

#include "pmctl/boot_model.h"

namespace ProcMgr::Pmctl {

// Fills `releasedBy` and `isCritical` of the entries, which are in the order of their starts, and
// the critical path. It leads from the service that was ready last back to the begin, at each
// service over the dependency that released it by its report or its start, else over the one
// started before it.
void MarkCriticalPath(BootModel& model);

}  // namespace ProcMgr::Pmctl
