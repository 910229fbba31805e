// Whether an executable is the one that was shipped: its SHA-256 digest against a table of expected
// ones, by file name.
#pragma once

#include <string>
#include <unordered_map>

#include "app/digest.h"

namespace ProcMgr::App {

inline constexpr const char* HASH_FILE = "/etc/vela/base-plat/process-manager/bin_hash.cfg";

class IntegrityTable {
public:
    // Reads the table, lines of NAME=DIGEST. Once, before the first start; without the file nothing
    // is protected.
    void Load(const std::string& path);

    // Whether IntegrityProtect() would take a digest.
    bool IsProtected(const std::string& appPath) const;

    // True when the executable is not protected or its digest is the expected one. Runs an external
    // sha256sum and waits for it, 60 s at most. Any thread, without a lock.
    bool IntegrityProtect(const std::string& appPath);

    // Ends the digests that are being taken: their executables are refused.
    void Cancel() { digests_.Cancel(); }
    // True when the pid is that of a digest's process, which has ended.
    bool TakeExit(int32_t pid) { return digests_.TakeExit(pid); }

private:
    void AddLine(const std::string& line);
    bool HasDigest(const std::string& appPath, const std::string& expected);

    std::unordered_map<std::string, std::string> expected_;  // constant after Load
    DigestRunner digests_;
};

}  // namespace ProcMgr::App
