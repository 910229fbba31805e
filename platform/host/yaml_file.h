// Reads a YAML file whole, with a limit on its size and a check of who may have written it. Called
// by ParseAndDepend for manifests and by KvsTypeYaml for other files.
#pragma once

#include <cstddef>
#include <string>

namespace PlatformHost {

// The size of a file bounds the memory that reading it takes.
constexpr size_t MAX_YAML_FILE = size_t{1} << 20;

// The text of a file, or the reason why it could not be read.
struct YamlFile {
    std::string text;
    std::string realPath;  // for OWNER_ONLY: two paths of the same file have the same real path
    std::string error;     // empty on success
};

enum class FileTrust {
    ANY,
    // Only a file that Wire::OpenRootFile accepts: the text decides which programs run as root.
    OWNER_ONLY,
};

// Reads a regular file of at most MAX_YAML_FILE bytes. Any thread; throws only std::bad_alloc.
YamlFile ReadYamlFile(const std::string& path, FileTrust trust);

}  // namespace PlatformHost
