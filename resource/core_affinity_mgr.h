// Which cores the processes and threads of the platform run on. Two cpusets divide the cores:
// "CtrlCPU" for the daemon and ordinary software, "AICPU" for accelerator work. The manager pins
// threads, remembers the pinnings that are to outlive a suspend, and restores them. Every operation
// may be called from any thread.
#pragma once

#include <sched.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "main/common/mutex.h"

namespace ProcMgr {

// Results of pinning; 0 is success.
inline constexpr uint32_t AFFINITY_OK = 0;
inline constexpr uint32_t AFFINITY_NO_THREAD_NAME = 15795712;
inline constexpr uint32_t AFFINITY_NO_CORES = 15795713;
inline constexpr uint32_t AFFINITY_REFUSED = 15795714;

// A core list made ready for the kernel. `aiCores`: how many of its cores are for accelerator work;
// for each, the thread is put into that cpuset before it is pinned.
struct CoreMask {
    cpu_set_t cores{};
    uint32_t aiCores = 0;
};

class CoreAffinityMgr {
public:
    // The daemon's one instance, created on first use.
    static CoreAffinityMgr& GetInstance();

    // Reads both cpusets, each only while nothing is known of it.
    void LoadCoreLists();

    // Whether a process with these cores may be launched: each one is for accelerator work or for
    // ordinary software. True when the latter are not known.
    bool CheckLaunch(const std::string& appName, const std::vector<uint32_t>& cores) const;

    // The mask of a core list, or of the ordinary cores when it is empty. Nothing when neither is
    // known.
    std::optional<CoreMask> MakeMask(const std::vector<uint32_t>& cores) const;

    // The mask of all cores: for what is not to keep the pinning of who started it.
    static CoreMask AllCores();

    // Pins a thread, or the main thread of a process. On failure the reason is appended to `error`.
    uint32_t SetCoreAffinity(int32_t id, const std::vector<uint32_t>& cores,
                             std::string& error) const;
    // The same with a mask of MakeMask.
    static uint32_t ApplyMask(int32_t id, const std::optional<CoreMask>& mask, std::string& error);
    // Only the pinning of ApplyMask. For the child between fork and execv: takes no lock, does not
    // log.
    static uint32_t PinTo(int32_t id, const std::optional<CoreMask>& mask, std::string& error);

    // Remembers a pinning, a refused one included, and pins the thread. On failure logs the reason
    // and appends it to `error`. AFFINITY_NO_THREAD_NAME, with nothing remembered, when the thread
    // is gone.
    uint32_t StoreAndSetCoreAffinity(int32_t pid, int32_t tid, const std::vector<uint32_t>& cores,
                                     std::string& error);
    // Whether a pinning of the thread is remembered.
    bool IsStored(int32_t pid, int32_t tid) const;
    // Forgets the threads of the process that are not among `tids`.
    void Prune(int32_t pid, const std::set<int32_t>& tids);
    // For a process that was pinned to `cores` by the child, before its program ran, and whose main
    // thread a suspend has moved: remembers as pinned each thread that is not known and runs
    // elsewhere.
    void StoreStrays(int32_t pid, const std::vector<uint32_t>& cores);
    // Forgets the pinnings of a process. `appName` is for the log.
    void RecycleThreadCoreInfo(int32_t pid, const std::string& appName);

    // Whether the thread runs on no other cores than `cores`; true when it is gone.
    bool IsPinned(int32_t tid, const std::vector<uint32_t>& cores) const;

    // Whether the thread runs on exactly the cores of the mask.
    static bool HasCores(int32_t tid, const std::optional<CoreMask>& mask);

    // Whether every core is one for ordinary software; logs the first that is not.
    bool CheckIsCtrlCpu(const std::string& appName, const std::vector<uint32_t>& cores) const;

    // The threads of a process. False, with a log line, when it is gone.
    static bool GetTids(int32_t pid, std::set<int32_t>& tids);

    // Pins the remembered threads of the processes again, and forgets those that are gone.
    bool WakeUpRecover(const std::vector<int32_t>& pids);

    static void WriteTidToAIcpuSet(int32_t tid);
    // Logs, for each accelerator core of the mask, that a thread cannot be put into their cpuset,
    // when the cpuset is missing.
    static void LogMissingAiCpuset(int32_t tid, const CoreMask& mask);
    // For a process that is about to lose the right to open it: the tasks file that
    // WriteTidToAIcpuSet writes, close-on-exec and the caller's to close; -1 when there is none.
    static int OpenAiCpuset();

private:
    struct ThreadCoreInfo {
        int32_t pid = 0;
        std::vector<uint32_t> cores;
        std::string name;  // at most 16 characters
    };
    using ThreadTable = std::map<uint32_t, ThreadCoreInfo>;

    // Remembers a pinning. False, with a log line, when the thread is gone.
    bool Store(int32_t pid, int32_t tid, const std::vector<uint32_t>& cores);
    // Restores or forgets the thread of one row; true when it was restored. The caller holds
    // mutex_.
    bool Recover(uint32_t tid, const ThreadCoreInfo& info) const;

    mutable Mutex coresMutex_;  // the innermost lock; guards the two lists
    std::vector<uint32_t> ctrlCores_;
    std::vector<uint32_t> aiCores_;
    mutable Mutex mutex_;
    ThreadTable threads_;  // guarded by mutex_
};

}  // namespace ProcMgr
