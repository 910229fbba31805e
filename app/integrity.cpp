#include "app/integrity.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <utility>

#include "main/common/clock.h"
#include "main/common/line_reader.h"
#include "main/common/log.h"
#include "wire/root_file.h"

namespace ProcMgr::App {
namespace {

constexpr int ATTEMPTS = 5;
constexpr std::chrono::milliseconds ATTEMPT_PAUSE{1};
// The time limit of one check, over all its attempts.
constexpr std::chrono::seconds DIGEST_PATIENCE{60};

// The last component of a path, without trailing slashes; nothing when no slash precedes it.
std::optional<std::string> FileNameOf(const std::string& path) {
    const size_t last = path.find_last_not_of('/');
    if (last == std::string::npos || last == 0) {
        return std::nullopt;
    }
    const size_t slash = path.rfind('/', last);
    if (slash == std::string::npos) {
        return std::nullopt;
    }
    return path.substr(slash + 1, last - slash);
}

// A device or a named pipe: opening it may block, so no digest is taken of it.
bool IsSpecialFile(const std::string& path) {
    struct stat file {};
    return stat(path.c_str(), &file) == 0 && !S_ISREG(file.st_mode);
}

}  // namespace

std::optional<HashLine> ParseHashLine(const std::string& line) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0 || line.back() == '=') {
        return std::nullopt;
    }
    return HashLine{line.substr(0, equals), line.substr(equals + 1)};
}

void IntegrityTable::Load(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) {
        ProcMgrLog(LOG_WARNING, "PROCMGR: IntegrityProtect hash config file=%s is not exist",
                   path.c_str());
        return;
    }
    MayWait("the file system");
    Wire::RootFile root = Wire::OpenRootFile(path);
    if (!root.error.empty()) {
        ProcMgrLog(LOG_ERR, "%s: %s, so it protects no program", path.c_str(), root.error.c_str());
    }
    LineReader file(std::move(root.fd), HASH_LINE_LENGTH);
    if (!file.IsOpen()) {
        ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect hash config file=%s open failed",
                   path.c_str());
        return;
    }
    while (const auto line = file.Next()) {
        if (!line->empty()) {
            AddLine(std::string(*line));
        }
    }
}

void IntegrityTable::AddLine(const std::string& line) {
    std::optional<HashLine> parsed = ParseHashLine(line);
    if (!parsed) {
        ProcMgrLog(LOG_ERR, "PROCMGR: hash config string=%s format is false", line.c_str());
        return;
    }
    expected_[std::move(parsed->name)] = std::move(parsed->digest);
}

bool IntegrityTable::IsProtected(const std::string& appPath) const {
    const std::optional<std::string> name = FileNameOf(appPath);
    return name && expected_.contains(*name);
}

bool IntegrityTable::IntegrityProtect(const std::string& appPath) {
    if (appPath.empty()) {
        ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect appName is empty");
        return false;
    }
    const std::optional<std::string> name = FileNameOf(appPath);
    if (!name) {
        ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect appPath=%s is illegal", appPath.c_str());
        return false;
    }
    const auto expected = expected_.find(*name);
    if (expected == expected_.end()) {
        return true;
    }
    if (IsSpecialFile(appPath)) {
        ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect appPath=%s is no regular file",
                   appPath.c_str());
        return false;
    }
    return HasDigest(appPath, expected->second);
}

bool IntegrityTable::HasDigest(const std::string& appPath, const std::string& expected) {
    const SteadyTime end = std::chrono::steady_clock::now() + DIGEST_PATIENCE;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        const DigestRunner::Result result = digests_.Run(appPath, end);
        switch (result.outcome) {
            case DigestRunner::Outcome::TAKEN:
                return result.digest == expected;
            case DigestRunner::Outcome::NOTHING:
                break;
            case DigestRunner::Outcome::NOT_STARTED:
                ProcMgrLog(LOG_ERR,
                           "PROCMGR: IntegrityProtect popen for appPath=%s failed, errno=%d",
                           appPath.c_str(), result.error);
                SleepFor(ATTEMPT_PAUSE);
                break;
            case DigestRunner::Outcome::TOO_LONG:
                ProcMgrLog(LOG_ERR,
                           "PROCMGR: IntegrityProtect sha256sum of app=%s is not done after %lld s "
                           "and is killed",
                           appPath.c_str(), static_cast<long long>(DIGEST_PATIENCE.count()));
                return false;
            case DigestRunner::Outcome::CANCELLED:
                ProcMgrLog(LOG_WARNING,
                           "PROCMGR: IntegrityProtect sha256sum of app=%s is ended by the stop",
                           appPath.c_str());
                return false;
        }
    }
    ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect sha256sum failed for app=%s", appPath.c_str());
    return false;
}

}  // namespace ProcMgr::App
