// Files and temporary directories of tests.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace ProcMgr::Tests {

// The contents of a file, byte for byte; empty when it cannot be read.
inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Replaces the contents of a file and sets its mode. Makes missing parent directories. Throws
// std::runtime_error when the file cannot be written.
inline void WriteFile(const std::filesystem::path& path, const std::string& contents,
                      mode_t mode = 0644) {
    if (path.has_parent_path()) {
        std::filesystem::create_directories(path.parent_path());
    }
    std::ofstream file(path, std::ios::binary);
    file << contents << std::flush;
    if (!file || chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// A new directory below /tmp of mode 0700, which is removed with its contents by the destructor.
class TempDirectory {
public:
    TempDirectory() {
        char name[] = "/tmp/procmgr-test-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            throw std::runtime_error("cannot make a directory in /tmp");
        }
        path_ = name;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& Path() const { return path_; }
    // The path of a file in the directory.
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace ProcMgr::Tests
