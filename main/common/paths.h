// Checks of paths that others give to the daemon: the resolved form of a path, and the right to
// write to a file. Callable from any thread without a lock, because the path's file system may take
// long to answer.
#pragma once

#include <string>

namespace ProcMgr {

// Resolves `in` to an absolute path without links. False, with `out` as it was, when `in` has more
// than 4096 characters or names nothing that exists.
bool StandardizationPath(const std::string& in, std::string& out);

// Whether the path is a regular file or a directory that belongs to root and that only root may
// write to. Required of every file that decides about processes that run as root.
bool IsRootsAlone(const std::string& path);

}  // namespace ProcMgr
