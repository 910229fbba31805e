#include "app/integrity.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>

#include "main/line_reader.h"
#include "main/log.h"
#include "main/system.h"

namespace ProcMgr::App {
namespace {

constexpr size_t HASH_LINE_LENGTH = 255;
constexpr size_t DIGEST_LENGTH = 64;
constexpr int ATTEMPTS = 5;
constexpr std::chrono::milliseconds ATTEMPT_PAUSE{1};
constexpr std::string_view PLAIN_CHARACTERS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._/+-@";

// The last component, without the slashes behind it; nothing when there is no slash before it.
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

// The path as one word of a shell command.
std::string ShellWord(const std::string& path) {
    if (path.find_first_not_of(PLAIN_CHARACTERS) == std::string::npos) {
        return path;
    }
    std::string word = "'";
    for (const char c : path) {
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return word + "'";
}

using Line = std::array<char, DIGEST_LENGTH + 1>;

// What the command prints first; nothing when it could not be run or printed nothing. Its exit
// status says nothing: the reaper may have collected it.
std::optional<Line> ReadDigest(const std::string& command, const std::string& appPath) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "re"), pclose);
    if (pipe == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect popen for appPath=%s failed, errno=%d",
                   appPath.c_str(), errno);
        SleepFor(ATTEMPT_PAUSE);
        return std::nullopt;
    }
    Line line{};
    if (std::fgets(line.data(), line.size(), pipe.get()) == nullptr) {
        return std::nullopt;
    }
    return line;
}

}  // namespace

void IntegrityTable::Load(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) {
        ProcMgrLog(LOG_WARNING, "PROCMGR: IntegrityProtect hash config file=%s is not exist",
                   path.c_str());
        return;
    }
    LineReader file(path, HASH_LINE_LENGTH);
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
    const size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0 || line.back() == '=') {
        ProcMgrLog(LOG_ERR, "PROCMGR: hash config string=%s format is false", line.c_str());
        return;
    }
    digests_[line.substr(0, equals)] = line.substr(equals + 1);
}

bool IntegrityTable::IntegrityProtect(const std::string& appPath) const {
    if (appPath.empty()) {
        ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect appName is empty");
        return false;
    }
    const std::optional<std::string> name = FileNameOf(appPath);
    if (!name) {
        ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect appPath=%s is illegal", appPath.c_str());
        return false;
    }
    const auto expected = digests_.find(*name);
    if (expected == digests_.end()) {
        return true;
    }
    const std::string command = "sha256sum " + ShellWord(appPath) + "|cut -d' ' -f1";
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (const std::optional<Line> digest = ReadDigest(command, appPath)) {
            return expected->second == digest->data();
        }
    }
    ProcMgrLog(LOG_ERR, "PROCMGR: IntegrityProtect sha256sum failed for app=%s", appPath.c_str());
    return false;
}

}  // namespace ProcMgr::App
