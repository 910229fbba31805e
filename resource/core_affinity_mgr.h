// CoreAffinityMgr stores the core lists of the platform and pins threads to cores. Two cpusets
// divide the cores: "CtrlCPU" for the daemon and ordinary software, "AICPU" for accelerator work.
// The manager also keeps a table of pinnings, so that they can be restored after a suspend. The
// launcher, the periodic affinity check and the delayed core affinity call it.
#pragma once

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "main/common/mutex.h"
#include "main/common/numbers.h"

namespace ProcMgr {

// Results of pinning; 0 is success.
inline constexpr uint32_t AFFINITY_OK = 0;
inline constexpr uint32_t AFFINITY_NO_THREAD_NAME = 15795712;
inline constexpr uint32_t AFFINITY_NO_CORES = 15795713;
inline constexpr uint32_t AFFINITY_REFUSED = 15795714;

// A list of core numbers in the form that the kernel takes. Core numbers that are not below CPU_NUM
// are left out.
struct CoreMask {
    cpu_set_t cores{};
    // The number of entries in the list that are cores for accelerator work. The thread is written
    // into the cpuset of these cores once for each of them, before it is pinned.
    uint32_t aiCores = 0;
};

// Callable from any thread, also with a lock held: the only files that it opens are those of /proc
// and of the control groups.
class CoreAffinityMgr {
public:
    // The daemon's one instance, created on first use. Only ProcessManager calls this; the other
    // classes get a reference.
    static CoreAffinityMgr& GetInstance();

    // Reads the core lists of both cpusets; a list that is not empty is not read again.
    void LoadCoreLists() PROCMGR_EXCLUDES(coresMutex_);

    // Whether an application with these cores may be launched: each core belongs to one of the two
    // cpusets. Logs the first core that does not. True while the cores for ordinary software are
    // not known.
    bool CheckLaunch(const std::string& appName, const std::vector<uint32_t>& cores) const
        PROCMGR_EXCLUDES(coresMutex_);
    // Whether every core is one for ordinary software; logs the first core that is not.
    bool CheckIsCtrlCpu(const std::string& appName, const std::vector<uint32_t>& cores) const
        PROCMGR_EXCLUDES(coresMutex_);

    // The mask of a core list; of the cores for ordinary software when the list is empty. Nothing
    // when those are not known either.
    std::optional<CoreMask> MakeMask(const std::vector<uint32_t>& cores) const
        PROCMGR_EXCLUDES(coresMutex_);
    // Whether MakeMask() has ever made a mask. Without one, no thread has been pinned.
    bool HasMadeMask() const { return hasMadeMask_; }
    // The mask of all cores below CPU_NUM: for a process that must not keep the pinning that it has
    // inherited.
    static CoreMask AllCores();

    // Pins the thread `id`, or the main thread of the process `id`, to the mask of MakeMask. On
    // failure the reason is appended to `error`.
    uint32_t SetCoreAffinity(int32_t id, const std::vector<uint32_t>& cores,
                             std::string& error) const PROCMGR_EXCLUDES(coresMutex_);
    // As SetCoreAffinity, with a mask.
    static uint32_t ApplyMask(int32_t id, const std::optional<CoreMask>& mask, std::string& error);
    // As ApplyMask, but leaves the thread in its cpuset. For the child between fork and execv:
    // takes no lock, allocates no memory and does not log. `Text`: as in AppendTidToAll().
    template <typename Text>
    static uint32_t PinTo(int32_t id, const std::optional<CoreMask>& mask, Text& error) {
        if (!mask) {
            error += "default ctrl cpu is null;";
            return AFFINITY_NO_CORES;
        }
        if (sched_setaffinity(id, sizeof(mask->cores), &mask->cores) != 0) {
            const Decimal number(errno);
            error += "SetCoreAffinity fail pid=";
            error += Decimal(id).Get();
            error += ", errno=";
            error += number.Get();
            error += ";";
            return AFFINITY_REFUSED;
        }
        return AFFINITY_OK;
    }

    // Stores the pinning in the table, then pins the thread; a pinning that the kernel refuses
    // stays in the table. On failure logs the reason and appends it to `error`.
    // AFFINITY_NO_THREAD_NAME, with the table unchanged, when the thread does not exist any more.
    uint32_t StoreAndSetCoreAffinity(int32_t pid, int32_t tid, const std::vector<uint32_t>& cores,
                                     std::string& error) PROCMGR_EXCLUDES(mutex_, coresMutex_);
    // Whether the table has a pinning of the thread.
    bool IsStored(int32_t pid, int32_t tid) const PROCMGR_EXCLUDES(mutex_);
    // Removes the threads of the process that are not in `tids` from the table.
    void Prune(int32_t pid, const std::set<int32_t>& tids) PROCMGR_EXCLUDES(mutex_);
    // For a process that was pinned to `cores` before its program ran. When a suspend has moved its
    // main thread to other cores, stores a pinning to `cores` for each of its threads that runs
    // elsewhere and is not in the table.
    void StoreStrays(int32_t pid, const std::vector<uint32_t>& cores)
        PROCMGR_EXCLUDES(mutex_, coresMutex_);
    // Removes the threads of the process from the table. `appName` is for the log.
    void RecycleThreadCoreInfo(int32_t pid, const std::string& appName) PROCMGR_EXCLUDES(mutex_);
    // Pins the threads of these processes as stored in the table, and removes from it the threads
    // that have ended or changed their name. Always true: failures are logged, and the next thread
    // is pinned.
    bool WakeUpRecover(const std::vector<int32_t>& pids) PROCMGR_EXCLUDES(mutex_, coresMutex_);

    // Whether the thread runs on no cores but `cores`; true when the thread has ended.
    bool IsPinned(int32_t tid, const std::vector<uint32_t>& cores) const
        PROCMGR_EXCLUDES(coresMutex_);
    // Whether the thread runs on exactly the cores of the mask; false without a mask or when the
    // thread has ended.
    static bool HasCores(int32_t tid, const std::optional<CoreMask>& mask);

    // Adds the threads of a process to `tids`. False, with a log line, when the process has ended.
    static bool GetTids(int32_t pid, std::set<int32_t>& tids);

    // Two operations with which the launcher takes a child into the cpuset for accelerator work
    // although the child may not open its tasks file any more.
    //
    // Opens that tasks file for writing, close-on-exec; the caller closes it. -1 when there is
    // none.
    static int OpenAiCpuset();
    // Logs, once for each accelerator core of the mask, that the thread cannot be put into the
    // cpuset, when the cpuset does not exist.
    static void LogMissingAiCpuset(int32_t tid, const CoreMask& mask);

private:
    struct ThreadCoreInfo {
        int32_t pid = 0;
        std::vector<uint32_t> cores;
        std::string name;  // at most 16 characters
    };

    static void WriteTidToAIcpuSet(int32_t tid);
    // Stores a pinning. False, with a log line, when the thread has ended.
    bool Store(int32_t pid, int32_t tid, const std::vector<uint32_t>& cores)
        PROCMGR_EXCLUDES(mutex_);
    // Restores the threads of one process, appends their ids to `restored`, and removes threads
    // that are not in `tids` or have another name than they had.
    void RecoverProcess(int32_t pid, const std::set<int32_t>& tids, std::string& restored)
        PROCMGR_EXCLUDES(mutex_);
    // Pins the thread of one row. False when no thread with this id and name exists.
    bool Recover(uint32_t tid, const ThreadCoreInfo& info) const PROCMGR_REQUIRES(mutex_);

    mutable std::atomic<bool> hasMadeMask_{false};
    mutable Mutex coresMutex_;  // taken after mutex_; no lock is taken while it is held
    std::vector<uint32_t> ctrlCores_ PROCMGR_GUARDED_BY(coresMutex_);
    std::vector<uint32_t> aiCores_ PROCMGR_GUARDED_BY(coresMutex_);
    mutable Mutex mutex_;
    std::map<uint32_t, ThreadCoreInfo> threads_ PROCMGR_GUARDED_BY(mutex_);  // by thread id
};

}  // namespace ProcMgr
