// Small wrappers around the operating system that every room may use from any thread.
#pragma once

#include <chrono>
#include <string>

namespace ProcMgr {

using SteadyTime = std::chrono::steady_clock::time_point;

// Sleeps the whole duration, however often a signal interrupts it.
void SleepFor(std::chrono::nanoseconds duration);

// Resolves `in` to an absolute path without links. False, with `out` as it was, when `in` has more
// than 4096 characters or names nothing that exists.
bool StandardizationPath(const std::string& in, std::string& out);

// Whether this is a regular file or a directory that is root's, and nobody else may write to it:
// what decides about processes that run as root must be.
bool IsRootsAlone(const std::string& path);

}  // namespace ProcMgr
