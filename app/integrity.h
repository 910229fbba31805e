// Checks that an executable is the one that was shipped: its SHA-256 digest is compared with the
// expected digest of its file name. ProcessLauncher calls it before every start.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>

#include "app/digest.h"

namespace ProcMgr::App {

inline constexpr const char* HASH_FILE = "/etc/vela/base-plat/process-manager/bin_hash.cfg";

// A longer line of the hash file is read in pieces of this length.
inline constexpr size_t HASH_LINE_LENGTH = 255;

struct HashLine {
    std::string name;
    std::string digest;
};

// Takes one line of the hash file apart; nothing when it is not of the form NAME=DIGEST. The digest
// may be any text.
std::optional<HashLine> ParseHashLine(const std::string& line);

class IntegrityTable {
public:
    // Reads the table of expected digests from a file with lines of the form NAME=DIGEST. Called
    // once, before the first start. Without the file no executable is protected.
    void Load(const std::string& path);

    // Whether the table has a digest for the executable; only then IntegrityProtect() runs
    // sha256sum.
    bool IsProtected(const std::string& appPath) const;

    // True when the executable is not protected or has the expected digest. False otherwise; every
    // failure is logged, except a wrong digest, which the caller logs. Waits for a sha256sum
    // command, 60 s at most. Any thread, not with a lock held.
    bool IntegrityProtect(const std::string& appPath);

    // Ends every digest that is being taken, now and later; IntegrityProtect() returns false then.
    void Cancel() { digests_.Cancel(); }
    // Called by the reaper: true when the pid is that of a sha256sum command.
    bool TakeExit(int32_t pid) { return digests_.TakeExit(pid); }

private:
    void AddLine(const std::string& line);
    bool HasDigest(const std::string& appPath, const std::string& expected);

    std::unordered_map<std::string, std::string> expected_;  // by file name; constant after Load
    DigestRunner digests_;
};

}  // namespace ProcMgr::App
