// One file of output: opened for each use, so that it may be moved, removed, or its file system
// unmounted at any time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ProcMgr::Output {

struct AppendResult {
    size_t written = 0;             // bytes, whole lines
    const char* failure = nullptr;  // what has failed; null when all lines have been written
    int error = 0;                  // its errno
};

// Appends `lines`, each with its end and of at most some 1000 bytes, to the file at `path`, which
// is made if it is missing. With no lines the file is only opened. When it would grow above `size`,
// it is renamed to PATH.1 and begun anew. The file must be a regular one without further names, at
// a place that FindPlace() accepts. Waits for the file system: called with no lock held.
AppendResult AppendToFile(const std::string& path, uint64_t size, std::string_view lines);

}  // namespace ProcMgr::Output
