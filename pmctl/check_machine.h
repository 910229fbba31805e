// The cores and control groups of an entry, against those of this machine.
#pragma once

#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

void CheckCores(const CheckedEntry& entry);
void CheckControlGroups(const CheckedEntry& entry);

}  // namespace ProcMgr::Pmctl
