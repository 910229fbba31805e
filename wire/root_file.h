// Opens files that decide what runs as root: manifests, and the list of digests of the programs.
// Refuses a file that a user other than root could have written or could replace. Called by the
// manifest library and by the daemon.
#pragma once

#include <string>

#include "wire/unique_fd.h"

namespace Wire {

struct RootFile {
    UniqueFd fd;           // open for reading; a read never waits
    std::string realPath;  // absolute and without symbolic links; empty when there is no such path
    std::string error;     // the reason of a refusal, for the log; empty on success
};

// Opens the file at `path` once and without waiting. Accepts only a regular file on a file system
// that stores files, owned by root and not writable by group or others. Each directory above its
// real path must be owned by root too and, unless it is sticky, not writable by group or others. In
// a process that does not run as root, the user of the process counts as root. Any thread; throws
// only std::bad_alloc.
RootFile OpenRootFile(const std::string& path);

}  // namespace Wire
