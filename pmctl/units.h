// Units of the times in the status document.
#pragma once

namespace ProcMgr::Pmctl {

inline constexpr double NS_PER_MS = 1e6;
inline constexpr double NS_PER_S = 1e9;

}  // namespace ProcMgr::Pmctl
