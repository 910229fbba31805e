// How CgroupMgr reads the host resource file. It has lines KEY=VALUE; the value of a cgroup set is
// "group:percent;group:percent".
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

#include "main/common/line_reader.h"
#include "main/common/log.h"
#include "main/common/numbers.h"
#include "main/common/proc_files.h"
#include "resource/cgroup_mgr.h"
#include "resource/cgroup_paths.h"
#include "resource/cpu_num.h"

namespace ProcMgr {
namespace {

using namespace std::string_view_literals;

constexpr size_t LINE_LENGTH_MAX = 511;
constexpr std::string_view SPECIAL_CHARACTERS = ":=;_'\"/";
constexpr std::string_view QUOTES = "\"'";
constexpr const char* CPU_SWITCH_KEY = "HOST_CPU_SWITCH";
// Keys without effect: the daemon writes no throttle file. Without this list they would be read as
// cgroup sets.
constexpr std::array IGNORED_KEYS = {"HOST_BLKIO_SWITCH"sv, "HOST_BLKIO_WRITE_BPS_SET"sv,
                                     "HOST_BLKIO_READ_BPS_SET"sv};
// In bytes; above the limit of every kernel.
constexpr size_t COMMAND_LINE_LENGTH_MAX = 65536;
constexpr const char* WRITEBACK_WORD = "cgroup1_writeback";

// Whether the character may be in a line; a line with any other character is skipped.
bool IsAllowed(char c) {
    const auto character = static_cast<unsigned char>(c);
    return std::isalpha(character) != 0 || (c >= '0' && c <= '9') ||
           SPECIAL_CHARACTERS.find(c) != std::string_view::npos;
}

// The value without a pair of equal quotes around it.
std::string_view Unquote(std::string_view value) {
    const bool isQuoted = value.size() >= 2 && value.front() == value.back() &&
                          QUOTES.find(value.front()) != std::string_view::npos;
    return isQuoted ? value.substr(1, value.size() - 2) : value;
}

}  // namespace

void CgroupMgr::ReadCfg() {
    if (access(HOST_RESOURCE_FILE, R_OK) != 0) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr ReadCfg, access %s fail, errno=%d",
                      HOST_RESOURCE_FILE, errno);
        isCfgOk_ = false;
        return;
    }
    ReadLines();
    DetectBlkIo();
    LogSummary();
}

// A line that is too long ends the reading: the file is damaged, so the lines after it are not used
// either.
void CgroupMgr::ReadLines() {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(HOST_RESOURCE_FILE, "re"),
                                                     std::fclose);
    std::string line;
    while (file != nullptr && isCfgOk_) {
        const int c = std::getc(file.get());
        if (c == '\n' || c == EOF) {
            ReadLine(line);
            line.clear();
        } else if (line.size() == LINE_LENGTH_MAX) {
            return;
        } else {
            line += static_cast<char>(c);
        }
        if (c == EOF) {
            return;
        }
    }
}

void CgroupMgr::ReadLine(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == line.size() ||
        !std::all_of(line.begin(), line.end(), IsAllowed)) {
        return;
    }
    HandleKey(std::string(line.substr(0, equals)), Unquote(line.substr(equals + 1)));
}

void CgroupMgr::HandleKey(const std::string& key, std::string_view value) {
    if (std::find(IGNORED_KEYS.begin(), IGNORED_KEYS.end(), key) != IGNORED_KEYS.end()) {
        return;
    }
    if (key == CPU_SWITCH_KEY) {
        hostCpuSwitch_ = value != "0";
        return;
    }
    if (!ParseSet(key, value)) {
        isCfgOk_ = false;
    }
}

// A group without a percentage of its own, as in "a:1;2", overwrites the percentage of the group
// before it.
bool CgroupMgr::ParseSet(const std::string& set, std::string_view value) {
    std::string group;
    std::string token;
    for (const char c : value) {
        if (c == ':') {
            group.swap(token);
            token.clear();
        } else if (c != ';') {
            token += c;
        } else if (StoreEntry(set, group, token)) {
            token.clear();
        } else {
            return false;
        }
    }
    return group.empty() || StoreEntry(set, group, token);
}

bool CgroupMgr::StoreEntry(const std::string& set, const std::string& group,
                           const std::string& value) {
    if (group.empty() || value.empty()) {
        ProcMgrSysLog(LOG_ERR,
                      "PROCMGR: CgroupMgr cgroup set(%s) config invalid, groupName(%s) or value(%s)"
                      " is empty",
                      set.c_str(), group.c_str(), value.c_str());
        return false;
    }
    const LockGuard lock(setsMutex_);
    const auto percentage = ParseLeadingNumber<int32_t>(value);
    cgroupSets_[set][group] = percentage.value_or(0);
    if (!percentage) {
        ProcMgrSysLog(LOG_ERR,
                      "PROCMGR: CgroupMgr cgroup set(%s) config invalid, groupName=%s, value=%s",
                      set.c_str(), group.c_str(), value.c_str());
    }
    return percentage.has_value();
}

void CgroupMgr::DetectBlkIo() {
    blkIoSwitch_ = access(CGROUP_BLKIO_ROOT, F_OK) == 0;
    if (!blkIoSwitch_) {
        return;
    }
    LineReader commandLine(KERNEL_COMMAND_LINE, COMMAND_LINE_LENGTH_MAX);
    while (const auto line = commandLine.Next()) {
        if (line->find(WRITEBACK_WORD) != std::string_view::npos) {
            bufferIoSwitch_ = true;
        }
    }
}

void CgroupMgr::LogSummary() const {
    ProcMgrSysLog(LOG_INFO,
                  "PROCMGR: CgroupMgr CPU_NUM=%d, hostCpuSwitch=%d, BlkIoSwitch=%d, "
                  "BufferIoSwitch=%d, isCfgOk=%d",
                  static_cast<int>(CPU_NUM), hostCpuSwitch_.load(), blkIoSwitch_.load(),
                  bufferIoSwitch_.load(), isCfgOk_.load());
    const LockGuard lock(setsMutex_);
    for (const auto& [set, groups] : cgroupSets_) {
        std::string text = "policy " + set + "=";
        for (const auto& [group, percentage] : groups) {
            text += group + ":" + std::to_string(percentage) + ";";
        }
        ProcMgrSysLog(LOG_INFO, "PROCMGR: CgroupMgr cfg: %s", text.c_str());
    }
}

}  // namespace ProcMgr
