// The number of hardware threads: the limit of core numbers and the factor of CPU quotas. Read by
// CgroupMgr and CoreAffinityMgr.
#pragma once

#include <cstdint>
#include <thread>

namespace ProcMgr {

// The hardware threads that the system reported when the program was loaded.
inline const uint32_t CPU_NUM = std::thread::hardware_concurrency();

}  // namespace ProcMgr
