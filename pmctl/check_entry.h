// Keys of an entry that are read without an error and do not do what they say.
#pragma once

#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

// Real-time values, keys of services on applications and the other way round, and the mistakes with
// priority applications.
void CheckEffects(const CheckedEntry& entry);

}  // namespace ProcMgr::Pmctl
