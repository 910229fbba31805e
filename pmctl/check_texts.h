// The checks of the files that are no manifests: the settings file, the host resource file env.cfg
// and the hash file. Each reads the file at `path`, adds its findings, and does not throw.
#pragma once

#include <string>

#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

void CheckSettings(const std::string& path, CheckContext& context);
void CheckHostResources(const std::string& path, CheckContext& context);
void CheckHashFile(const std::string& path, CheckContext& context);

}  // namespace ProcMgr::Pmctl
