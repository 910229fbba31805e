// Lets a test program use fixed paths such as /run or /etc without touching those of the machine:
// it moves into a mount namespace of its own and lays files over them. All of it is gone when the
// program ends.
#pragma once

#include <string>

// Moves the calling thread, and every thread and process that it starts afterwards, into a private
// mount namespace; call it before there are other threads. Returns false where the kernel does not
// allow that; the test is to be skipped then. True at once when called again.
bool EnterPrivateMountNamespace();

// Lays an empty directory over `path`. Throws std::runtime_error on failure, like BindFile.
void MountTmpfs(const std::string& path);

// Lays a file with `contents`, of mode 0644 and owned by the caller, over `path`. Where `path` is
// missing, its directories and the file are made, and as far as possible not on the machine's own
// file system.
void BindFile(const std::string& contents, const std::string& path);
