// Whether an executable is the one that was shipped: its SHA-256 digest against a table of expected
// ones, by file name.
#pragma once

#include <string>
#include <unordered_map>

namespace ProcMgr::App {

class IntegrityTable {
public:
    // Reads the table, lines of NAME=DIGEST. Once, before the first start; without the file nothing
    // is protected.
    void Load(const std::string& path);

    // True when the executable is not protected or its digest is the expected one. Runs an external
    // sha256sum and waits for it. Any thread.
    bool IntegrityProtect(const std::string& appPath) const;

private:
    void AddLine(const std::string& line);

    std::unordered_map<std::string, std::string> digests_;  // constant after Load
};

}  // namespace ProcMgr::App
