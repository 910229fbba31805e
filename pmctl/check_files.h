// The check of several files and directories, each by its kind.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pmctl/check_context.h"
#include "pmctl/file_kind.h"

namespace ProcMgr::Pmctl {

// Checks the files and adds their findings. A manifest that another one of the files includes is
// checked with that one. `kind`: of all files; recognised when there is none. Returns the number of
// files that were checked.
size_t CheckFiles(const std::vector<std::string>& paths, std::optional<FileKind> kind,
                  CheckContext& context);

}  // namespace ProcMgr::Pmctl
