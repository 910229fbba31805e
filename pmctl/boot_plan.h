// What a boot would do with the services of a file: the order in which they are started, and which
// are not. The order is computed with the daemon's own code, and the checks before a start are
// those of "pmctl check". Nothing is started.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ProcMgr::Pmctl {

// STARTED: it is started in its turn. REFUSED: a service that it depends on is not started, or its
// own program cannot be. STUCK: it is on a dependency cycle, or waits for one. EXCLUDED: by the
// boot command line.
enum class Fate { STARTED, REFUSED, STUCK, EXCLUDED };

const char* FateName(Fate fate);

struct PlannedService {
    std::string name;
    std::string file;
    std::vector<std::string> depends;
    bool isReporting = false;  // start-up waits for its report
    Fate fate = Fate::EXCLUDED;
    size_t batch = 0;  // counted from 1; 0 without a turn
    std::string why;   // why it is not started
};

struct PriorityApp {
    std::string name;
    int32_t priority = 0;
    std::string why;  // why it is not started
};

struct BootPlan {
    std::string file;                       // the file that the boot reads
    std::vector<PriorityApp> priorityApps;  // started before the services, in this order
    // Those with a turn in the order of their start, then the others in the order of the file.
    std::vector<PlannedService> services;
    std::vector<std::vector<std::string>> cycles;
    std::vector<std::string> notes;  // about the boot command line, and what was not checked

    const PlannedService* Find(const std::string& name) const;
};

struct BootInput {
    std::string file;         // the argument of the daemon
    std::string commandLine;  // of the kernel
    std::string root;         // the directory that is "/" on the board; empty for this machine
    // Whether a file that others may write is refused, as the daemon does.
    bool hasOwners = true;
    // Whether the programs and users of the board are here to be checked.
    bool hasPrograms = true;
};

// Throws CommandError with EXIT_NO when the daemon would not use the file.
BootPlan MakeBootPlan(const BootInput& input);

}  // namespace ProcMgr::Pmctl
