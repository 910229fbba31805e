// Finds the directory that a file of output lies in. A user may own directories of the path, and
// could replace what is below them by a symbolic link to where only root may write.
#pragma once

#include <string>

#include "wire/unique_fd.h"

namespace ProcMgr::Output {

struct FilePlace {
    Wire::UniqueFd directory;       // for openat() and the like; not valid after a failure
    std::string name;               // of the file in it
    const char* failure = nullptr;  // what has failed, for the log
    int error = 0;                  // its errno
};

// Walks along an absolute path, directory by directory. A symbolic link, or "..", is followed only
// as long as every directory up to it belongs to root and nobody else may write it. In a process
// that does not run as root, the user of the process counts as root. Waits for the file system.
FilePlace FindPlace(const std::string& path);

}  // namespace ProcMgr::Output
