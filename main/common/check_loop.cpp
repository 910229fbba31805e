#include "main/common/check_loop.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "main/common/log.h"

namespace ProcMgr {
namespace {

void LogFailure(const std::exception& error) {
    ProcMgrLog(LOG_ERR, "PROCMGR: CheckThread : %s, try again", error.what());
}

}  // namespace

CheckLoop::CheckLoop(CheckRequests& requests,
                     std::vector<std::reference_wrapper<Supervised>> containers,
                     std::vector<Periodic> checks, Clock& clock)
    : requests_(requests),
      containers_(std::move(containers)),
      checks_(std::move(checks)),
      clock_(clock) {}

void CheckLoop::Run() {
    const SteadyTime begin = clock_.Now();
    uint64_t cycle = 0;
    std::optional<SteadyTime> requested = begin;
    while (!requests_.IsStopped()) {
        if (requested && requests_.Begin()) {
            CheckContainers(CheckPass::PERIODIC);
            Complete();
            for (Periodic& periodic : checks_) {
                periodic.hasPassed = true;
            }
        }
        RunPeriodicChecks(cycle);
        requested = requests_.WaitForAny(NextDue(begin));
        const auto passed = (requested.value_or(clock_.Now()) - begin) / CHECK_PERIOD;
        cycle = std::max(cycle, static_cast<uint64_t>(passed));
        if (!requested) {
            continue;
        }
        ++cycle;
        while (requests_.WaitForNow(begin + cycle * CHECK_PERIOD)) {
            MakeExtraPass();
            Complete();
        }
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR: CheckThread exit now.");
}

void CheckLoop::RunUrgent() {
    if (MakeExtraPass()) {
        requests_.PostponeWake();
    }
}

bool CheckLoop::MakeExtraPass() {
    if (!requests_.TryBeginNow()) {
        return false;
    }
    CheckContainers(CheckPass::EXTRA);
    return true;
}

// Makes and ends the pass that the caller has begun.
void CheckLoop::CheckContainers(CheckPass pass) {
    try {
        for (Supervised& container : containers_) {
            container.Check(pass);
        }
        for (Supervised& container : containers_) {
            container.RemoveTerminatedApps(pass);
        }
    } catch (const std::exception& error) {
        // The records still hold what is left to do, for example after a lack of memory.
        LogFailure(error);
        requests_.Request();
    }
    requests_.End();
}

void CheckLoop::Complete() {
    if (requests_.TakeCompletion()) {
        for (Supervised& container : containers_) {
            container.Complete();
        }
    }
}

void CheckLoop::RunPeriodicChecks(uint64_t cycle) {
    for (Periodic& periodic : checks_) {
        try {
            if (periodic.timer.TakeDue(cycle)) {
                periodic.hasPassed = false;
                periodic.check.Run();
            }
        } catch (const std::exception& error) {
            LogFailure(error);
        }
    }
}

SteadyTime CheckLoop::NextDue(SteadyTime begin) const {
    SteadyTime next = SteadyTime::max();
    for (const Periodic& periodic : checks_) {
        if (periodic.hasPassed || periodic.check.IsWanted()) {
            const SteadyTime due = begin + periodic.timer.GetNext() * CHECK_PERIOD;
            next = std::min(next, due);
        }
    }
    return next;
}

}  // namespace ProcMgr
