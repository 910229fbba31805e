#include "resource/core_affinity_mgr.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "main/common/log.h"
#include "main/common/proc_files.h"
#include "resource/cgroup_paths.h"
#include "resource/cpu_num.h"
#include "resource/cpuset_file.h"
#include "resource/task_file.h"

namespace ProcMgr {
namespace {

constexpr std::string_view NAME_KEY = "Name";
constexpr size_t THREAD_NAME_MAX = 16;

bool Contains(const std::vector<uint32_t>& cores, uint32_t core) {
    return std::find(cores.begin(), cores.end(), core) != cores.end();
}

// The name that the kernel reports; nothing when the thread has ended.
std::optional<std::string> GetThreadName(int32_t pid, int32_t tid) {
    const std::string path = ThreadPath(pid, tid, "status");
    const auto fields = ReadStatusFields(path, std::array{NAME_KEY});
    if (!fields) {
        ProcMgrSysLog(LOG_ERR, "fopen %s fail, errno: %d", path.c_str(), errno);
        return std::nullopt;
    }
    return fields->front().substr(0, THREAD_NAME_MAX);
}

void LogMissingAiTasks(int32_t tid) {
    ProcMgrSysLog(LOG_ERR, "WriteTidToAIcpuSet failed tid: %d, aicpuSet: %s is not existed", tid,
                  AI_CPUSET_TASKS);
}

}  // namespace

CoreAffinityMgr& CoreAffinityMgr::GetInstance() {
    static CoreAffinityMgr instance;
    return instance;
}

void CoreAffinityMgr::LoadCoreLists() {
    const LockGuard lock(coresMutex_);
    if (ctrlCores_.empty()) {
        ctrlCores_ = ReadCpusetFile(CTRL_CPUSET_CPUS);
    }
    if (aiCores_.empty()) {
        aiCores_ = ReadCpusetFile(AI_CPUSET_CPUS);
    }
}

bool CoreAffinityMgr::CheckLaunch(const std::string& appName,
                                  const std::vector<uint32_t>& cores) const {
    std::vector<uint32_t> ordinary;
    {
        const LockGuard lock(coresMutex_);
        if (ctrlCores_.empty()) {
            return true;
        }
        for (const uint32_t core : cores) {
            if (!Contains(aiCores_, core)) {
                ordinary.push_back(core);
            }
        }
    }
    return CheckIsCtrlCpu(appName, ordinary);
}

bool CoreAffinityMgr::CheckIsCtrlCpu(const std::string& appName,
                                     const std::vector<uint32_t>& cores) const {
    const LockGuard lock(coresMutex_);
    for (const uint32_t core : cores) {
        if (!Contains(ctrlCores_, core)) {
            ProcMgrSysLog(LOG_ERR, "CheckIsCtrlCpu app=%s, coreId=%u is not in CtrlCpu",
                          appName.c_str(), core);
            return false;
        }
    }
    return true;
}

std::optional<CoreMask> CoreAffinityMgr::MakeMask(const std::vector<uint32_t>& cores) const {
    const LockGuard lock(coresMutex_);
    const std::vector<uint32_t>& wanted = cores.empty() ? ctrlCores_ : cores;
    if (wanted.empty()) {
        return std::nullopt;
    }
    hasMadeMask_ = true;
    CoreMask mask;
    for (const uint32_t core : wanted) {
        if (core >= CPU_NUM) {
            continue;
        }
        if (Contains(aiCores_, core)) {
            ++mask.aiCores;
        }
        if (core < CPU_SETSIZE) {
            CPU_SET(core, &mask.cores);
        }
    }
    return mask;
}

CoreMask CoreAffinityMgr::AllCores() {
    CoreMask mask;
    for (uint32_t core = 0; core < std::min<uint32_t>(CPU_NUM, CPU_SETSIZE); ++core) {
        CPU_SET(core, &mask.cores);
    }
    return mask;
}

uint32_t CoreAffinityMgr::SetCoreAffinity(int32_t id, const std::vector<uint32_t>& cores,
                                          std::string& error) const {
    return ApplyMask(id, MakeMask(cores), error);
}

uint32_t CoreAffinityMgr::ApplyMask(int32_t id, const std::optional<CoreMask>& mask,
                                    std::string& error) {
    for (uint32_t core = 0; mask && core < mask->aiCores; ++core) {
        WriteTidToAIcpuSet(id);
    }
    return PinTo(id, mask, error);
}

void CoreAffinityMgr::WriteTidToAIcpuSet(int32_t tid) {
    if (!AppendTid(AI_CPUSET_TASKS, tid)) {
        LogMissingAiTasks(tid);
    }
}

void CoreAffinityMgr::LogMissingAiCpuset(int32_t tid, const CoreMask& mask) {
    if (mask.aiCores == 0 || access(AI_CPUSET_TASKS, F_OK) == 0) {
        return;
    }
    for (uint32_t core = 0; core < mask.aiCores; ++core) {
        LogMissingAiTasks(tid);
    }
}

int CoreAffinityMgr::OpenAiCpuset() {
    return open(AI_CPUSET_TASKS, O_WRONLY | O_APPEND | O_CLOEXEC);
}

bool CoreAffinityMgr::Store(int32_t pid, int32_t tid, const std::vector<uint32_t>& cores) {
    std::optional<std::string> name = GetThreadName(pid, tid);
    if (!name) {
        ProcMgrSysLog(LOG_ERR, "GetThreadName fail, pid:%d tid:%d, errno: %d", pid, tid, errno);
        return false;
    }
    const LockGuard lock(mutex_);
    threads_.insert_or_assign(static_cast<uint32_t>(tid),
                              ThreadCoreInfo{pid, cores, std::move(*name)});
    return true;
}

uint32_t CoreAffinityMgr::StoreAndSetCoreAffinity(int32_t pid, int32_t tid,
                                                  const std::vector<uint32_t>& cores,
                                                  std::string& error) {
    ProcMgrSysLog(LOG_INFO, "StoreAndSetCoreAffinity pid:%d tid:%d", pid, tid);
    if (!Store(pid, tid, cores)) {
        return AFFINITY_NO_THREAD_NAME;
    }
    std::string reason;
    const uint32_t ret = SetCoreAffinity(tid, cores, reason);
    if (ret != AFFINITY_OK) {
        ProcMgrSysLog(LOG_ERR, "SetCoreAffinityToOs fail, pid:%d, tid:%d, errStr: %s", pid, tid,
                      reason.c_str());
        error += reason;
    }
    return ret;
}

bool CoreAffinityMgr::IsStored(int32_t pid, int32_t tid) const {
    const LockGuard lock(mutex_);
    const auto row = threads_.find(static_cast<uint32_t>(tid));
    return row != threads_.end() && row->second.pid == pid;
}

void CoreAffinityMgr::Prune(int32_t pid, const std::set<int32_t>& tids) {
    const LockGuard lock(mutex_);
    std::erase_if(threads_, [&](const auto& row) {
        return row.second.pid == pid && !tids.contains(static_cast<int32_t>(row.first));
    });
}

void CoreAffinityMgr::StoreStrays(int32_t pid, const std::vector<uint32_t>& cores) {
    std::set<int32_t> tids;
    // While the main thread is on its cores there was no suspend that moved the process: a thread
    // that runs elsewhere was moved by its own program and is left alone.
    if (IsPinned(pid, cores) || !GetTids(pid, tids)) {
        return;
    }
    for (const int32_t tid : tids) {
        if (!IsStored(pid, tid) && !IsPinned(tid, cores)) {
            Store(pid, tid, cores);
        }
    }
}

void CoreAffinityMgr::RecycleThreadCoreInfo(int32_t pid, const std::string& appName) {
    const LockGuard lock(mutex_);
    std::erase_if(threads_, [&](const auto& row) {
        if (row.second.pid != pid) {
            return false;
        }
        ProcMgrSysLog(LOG_INFO, "RecycleThreadCoreInfo finished app: %s, tid: %u, pid: %d",
                      appName.c_str(), row.first, pid);
        return true;
    });
}

bool CoreAffinityMgr::IsPinned(int32_t tid, const std::vector<uint32_t>& cores) const {
    const std::optional<CoreMask> wanted = MakeMask(cores);
    cpu_set_t present{};
    if (!wanted || sched_getaffinity(tid, sizeof(present), &present) != 0) {
        return true;
    }
    cpu_set_t both{};
    CPU_AND(&both, &present, &wanted->cores);
    return CPU_EQUAL(&both, &present) != 0;
}

bool CoreAffinityMgr::HasCores(int32_t tid, const std::optional<CoreMask>& mask) {
    cpu_set_t present{};
    return mask && sched_getaffinity(tid, sizeof(present), &present) == 0 &&
           CPU_EQUAL(&present, &mask->cores) != 0;
}

bool CoreAffinityMgr::GetTids(int32_t pid, std::set<int32_t>& tids) {
    if (!ReadThreadIds(pid, tids)) {
        ProcMgrSysLog(LOG_ERR, "opendir %s fail, errno: %d", ProcPath(pid, "task/").c_str(), errno);
        return false;
    }
    return true;
}

bool CoreAffinityMgr::WakeUpRecover(const std::vector<int32_t>& pids) {
    std::string restored;
    for (const int32_t pid : pids) {
        std::set<int32_t> tids;
        if (!GetTids(pid, tids)) {
            ProcMgrSysLog(LOG_ERR, "CoreAffinityMgr GetTids fail, pid:%d", pid);
            continue;
        }
        RecoverProcess(pid, tids, restored);
    }
    ProcMgrSysLog(LOG_INFO, "CoreAffinityMgr WakeUpRecover tid:%s", restored.c_str());
    return true;
}

void CoreAffinityMgr::RecoverProcess(int32_t pid, const std::set<int32_t>& tids,
                                     std::string& restored) {
    const LockGuard lock(mutex_);
    for (auto row = threads_.begin(); row != threads_.end();) {
        const auto& [tid, info] = *row;
        if (info.pid != pid) {
            ++row;
        } else if (tids.contains(static_cast<int32_t>(tid)) && Recover(tid, info)) {
            restored += (restored.empty() ? "" : ",") + std::to_string(tid);
            ++row;
        } else {
            ProcMgrSysLog(LOG_WARNING,
                          "CoreAffinityMgr WakeUpRecover CheckTidIsValid fail, pid:%d, tid:%u", pid,
                          tid);
            row = threads_.erase(row);
        }
    }
}

bool CoreAffinityMgr::Recover(uint32_t tid, const ThreadCoreInfo& info) const {
    const auto id = static_cast<int32_t>(tid);
    if (GetThreadName(info.pid, id) != info.name) {
        return false;
    }
    ProcMgrSysLog(LOG_INFO, "CoreAffinityMgr WakeUpRecover CheckTidIsValid success, pid:%d, tid:%u",
                  info.pid, tid);
    std::string error;
    if (SetCoreAffinity(id, info.cores, error) != AFFINITY_OK) {
        ProcMgrSysLog(LOG_WARNING,
                      "RecoverCoreAffinity SetCoreAffinityToOs failed, pid:%d, tid:%u, err=%s",
                      info.pid, tid, error.c_str());
    }
    return true;
}

}  // namespace ProcMgr
