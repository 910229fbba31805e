// Writes what a command makes into a file.
#pragma once

#include <string>
#include <string_view>

#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

// Writes `text` into the file at `path`, or to `context.out` for "-". The file is complete or as it
// was: it is written beside its place and renamed. Throws CommandError with EXIT_NO and the reason.
void WriteOutput(const Context& context, const std::string& path, std::string_view text);

}  // namespace ProcMgr::Pmctl
