// Private versions of fixed paths such as /run or /etc: a test program moves into a mount namespace
// of its own and mounts files and directories over them. The mounts end with the program at the
// latest.
#pragma once

#include <string>

// Throws std::runtime_error with `what` and the text of errno unless `isDone`.
void Require(bool isDone, const std::string& what);

// Moves the calling thread, and every thread and process that it starts later, into a private mount
// namespace. Call it before there are other threads. Returns false where the kernel forbids it; the
// test is to be skipped then. A second call has no effect.
bool EnterPrivateMountNamespace();

// As mount(2), but without `type` a bind mount of `source`. Returns false, with errno set, on
// failure.
bool Mount(const std::string& source, const std::string& path, const char* type = nullptr,
           const std::string& options = "");

// Mounts an empty directory over `path`. Throws std::runtime_error on failure, like BindFile.
void MountTmpfs(const std::string& path);

// Mounts a file with `contents`, of mode 0644 and owned by the caller, over `path`. If `path` is
// missing, the file and its directories are made, as far as possible not on the machine's own file
// system.
void BindFile(const std::string& contents, const std::string& path);

// Undoes all mounts of the functions above.
void UnmountAll();
