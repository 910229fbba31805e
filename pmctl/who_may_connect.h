// Advice for a user whom a socket refuses.
#pragma once

#include <string>

namespace ProcMgr::Pmctl {

// "become root", "become root or a member of group NAME", by the owner and the mode of the socket's
// file.
std::string WhoMayConnect(const std::string& path);

}  // namespace ProcMgr::Pmctl
