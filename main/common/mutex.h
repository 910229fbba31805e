// The names under which the daemon uses the mutex, the locks and the condition of wire/mutex.h.
#pragma once

#include "wire/mutex.h"

namespace ProcMgr {

using Wire::Condition;
using Wire::LockGuard;
using Wire::MayWait;
using Wire::Mutex;
using Wire::UniqueLock;

}  // namespace ProcMgr
