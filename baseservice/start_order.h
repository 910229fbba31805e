// Which services of a file a boot starts, and in which order. Base start-up follows it, and a tool
// that shows the order before a boot.
#pragma once

#include <set>
#include <string>

#include "config/boot_command_line.h"
#include "platform/manifest.h"

namespace ProcMgr {

// Whether base start-up starts the entry: a service that the boot command line does not exclude.
bool IsStartedAtBoot(const ApplicationManifest& manifest, BootCommandLine& commandLine);

// The services that may be started now, in the order of their start. Empty when the graph is empty,
// and when all that is left waits for itself. Each has to be popped from the graph after its start
// or failure.
std::set<std::string> NextBatch(const DependGraph& graph);

}  // namespace ProcMgr
