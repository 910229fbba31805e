// Opens a file that decides what runs as root: manifests, and the list of the programs' digests.
// Called by the manifest library and by the daemon. A file that anybody but root could have
// written, or could exchange, is refused.
#pragma once

#include <string>

#include "wire/unique_fd.h"

namespace Wire {

struct RootFile {
    UniqueFd fd;           // open for reading; a read never waits
    std::string realPath;  // absolute and without symbolic links; empty when there is no such path
    std::string error;     // why the file is refused, in words; empty on success
};

// Opens the file at `path`, once and without waiting. It is a regular file of root's on a file
// system that keeps files, not writable by group or others; each directory above its real path is
// root's and, unless sticky, not writable by group or others. Where the process is not root, its
// own user counts as root. Any thread; throws only std::bad_alloc.
RootFile OpenRootFile(const std::string& path);

}  // namespace Wire
