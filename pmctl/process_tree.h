// The processes below a process, from /proc.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr::Pmctl {

struct Process {
    int64_t pid = 0;
    int64_t parent = 0;
    std::string name;  // as the kernel has it: chosen by the process
    int64_t threads = 0;
    std::vector<Process> children;
};

// The process in the contents of a file /proc/PID/stat; pid 0 when they are malformed.
Process ParseStat(std::string_view stat);

// All processes of one moment, as far as the caller may see them.
class ProcessTable {
public:
    // Reads at most 32768 processes.
    static ProcessTable Read();

    // The processes below `pid`, by their pids: at most 16 generations. `left` is how many
    // processes may still be returned, of all calls.
    std::vector<Process> Below(int64_t pid, size_t& left, int depth = 0) const;

private:
    std::multimap<int64_t, Process> byParent_;
};

}  // namespace ProcMgr::Pmctl
