// Which files a check looks at, and what kind each is.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr::Pmctl {

enum class FileKind { MANIFEST, SETTINGS, HOST_RESOURCES, HASHES };

// The words of --as: "manifest", "settings", "env", "hash". Nothing for any other word.
std::optional<FileKind> FileKindOf(std::string_view word);

// The kind by the name of the file, else by its contents; MANIFEST when nothing tells.
FileKind RecogniseFile(const std::string& path);

struct FileList {
    std::vector<std::string> paths;
    std::vector<std::string> closed;  // directories that may not be read
    bool isCut = false;               // there are more files or directories than are looked at
};

// The file itself, or of a directory every *.yaml, *.yml, *.cfg and hash file in it and below, by
// name. Links to directories are not followed; at most 10000 files, 16 directories deep.
FileList ListFiles(const std::string& path);

}  // namespace ProcMgr::Pmctl
