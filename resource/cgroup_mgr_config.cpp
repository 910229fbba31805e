// How CgroupMgr reads the host resource file.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

#include "main/common/line_reader.h"
#include "main/common/log.h"
#include "main/common/proc_files.h"
#include "resource/cgroup_mgr.h"
#include "resource/cgroup_paths.h"
#include "resource/cpu_num.h"
#include "resource/host_resource_file.h"

namespace ProcMgr {
namespace {

// In bytes; above the limit of every kernel.
constexpr size_t COMMAND_LINE_LENGTH_MAX = 65536;
constexpr const char* WRITEBACK_WORD = "cgroup1_writeback";

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
        } else if (line.size() == HOST_RESOURCE_LINE_MAX) {
            return;
        } else {
            line += static_cast<char>(c);
        }
        if (c == EOF) {
            return;
        }
    }
}

void CgroupMgr::ReadLine(std::string_view text) {
    const HostResourceLine line = ParseHostResourceLine(text);
    if (line.kind == HostResourceLine::Kind::SWITCH) {
        hostCpuSwitch_ = line.value != "0";
    } else if (line.kind == HostResourceLine::Kind::SET) {
        isCfgOk_ = ParseCgroupSet(
            line.value, [&](const CgroupSetEntry& entry) { return StoreEntry(line.key, entry); });
    }
}

bool CgroupMgr::StoreEntry(const std::string& set, const CgroupSetEntry& entry) {
    if (entry.fault == CgroupSetEntry::Fault::EMPTY) {
        ProcMgrSysLog(LOG_ERR,
                      "PROCMGR: CgroupMgr cgroup set(%s) config invalid, groupName(%s) or value(%s)"
                      " is empty",
                      set.c_str(), entry.group.c_str(), entry.value.c_str());
        return false;
    }
    const LockGuard lock(setsMutex_);
    cgroupSets_[set][entry.group] = entry.percentage;
    if (entry.fault == CgroupSetEntry::Fault::NO_NUMBER) {
        ProcMgrSysLog(LOG_ERR,
                      "PROCMGR: CgroupMgr cgroup set(%s) config invalid, groupName=%s, value=%s",
                      set.c_str(), entry.group.c_str(), entry.value.c_str());
    }
    return entry.fault == CgroupSetEntry::Fault::NONE;
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
