// Paths that come from outside: their resolved form, and who may write to them. Callable from any
// thread; both functions ask the path's file system, which may take long.
#pragma once

#include <string>

namespace ProcMgr {

// Resolves `in` to an absolute path without links. False, with `out` as it was, when `in` has more
// than 4096 characters or names nothing that exists.
bool StandardizationPath(const std::string& in, std::string& out);

// Whether this is a regular file or a directory of root's that nobody else may write to. A file
// that decides about processes that run as root must be so.
bool IsRootsAlone(const std::string& path);

}  // namespace ProcMgr
