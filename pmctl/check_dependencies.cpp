#include "pmctl/check_dependencies.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "baseservice/start_order.h"
#include "config/boot_command_line.h"
#include "platform/host/start_graph.h"
#include "pmctl/near_word.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr const char* KEY = "depends";

using Entries = std::map<std::string, const CheckedEntry*, std::less<>>;

// The service of the file with the nearest name.
std::string NearestService(const CheckedEntry& entry, const std::string& name,
                           const Entries& entries) {
    if (!entry.context.MayLookForHint()) {
        return {};
    }
    std::vector<std::string_view> services;
    for (const auto& [known, candidate] : entries) {
        if (candidate->IsService() && known != entry.manifest.GetAppName()) {
            services.push_back(known);
        }
    }
    return DidYouMean(name, services);
}

// A name that is no service of the file: the daemon does not start what depends on it.
void ReportUnknown(const CheckedEntry& entry, const std::string& name, const Entries& entries) {
    const bool isApp = entries.contains(name);
    entry.Error(KEY,
                (isApp ? "'" + name + "' is an application and no service"
                       : "there is no service '" + name + "'") +
                    ": the daemon does not start '" + entry.manifest.GetAppName() + "'",
                isApp ? "" : NearestService(entry, name, entries));
}

// Services of an optional file are started only with a word on the boot command line.
void CheckOptional(const CheckedEntry& entry, const CheckedEntry& other,
                   BootCommandLine& withoutWords) {
    if (IsStartedAtBoot(entry.manifest, withoutWords) &&
        !IsStartedAtBoot(other.manifest, withoutWords)) {
        entry.Warn(KEY, "'" + other.manifest.GetAppName() +
                            "' is started only when the boot command line enables " +
                            other.manifest.GetCfgPath() +
                            ": without that the daemon does not start '" +
                            entry.manifest.GetAppName() + "'");
    }
}

void ReportCycle(const std::vector<std::string>& cycle, size_t stuck, const Entries& entries) {
    const CheckedEntry& first = *entries.find(cycle.front())->second;
    const std::string what =
        cycle.size() == 1
            ? "'" + cycle.front() + "' depends on itself and cannot start"
            : "dependency cycle, none of these can start: " + PlatformHost::CycleText(cycle);
    first.Error(KEY, what,
                std::to_string(stuck) + (stuck == 1 ? " service" : " services") +
                    " cannot start because of cycles");
}

// The number of services that are not started because of a cycle.
size_t CountStuck(PlatformHost::StartGraph start) {
    size_t left = start.edges.size();
    for (auto batch = NextBatch(start.graph); !batch.empty(); batch = NextBatch(start.graph)) {
        left -= batch.size();
        for (const std::string& name : batch) {
            start.graph.Pop(name);
        }
    }
    return left;
}

void CheckCycles(const PlatformHost::Dependencies& depends, const Entries& entries) {
    std::vector<std::string> names;
    for (const auto& [name, unused] : depends) {
        names.push_back(name);
    }
    const PlatformHost::StartGraph start = PlatformHost::MakeStartGraph(names, depends);
    const auto cycles = PlatformHost::FindCycles(start);
    const size_t stuck = cycles.empty() ? 0 : CountStuck(start);
    for (const std::vector<std::string>& cycle : cycles) {
        ReportCycle(cycle, stuck, entries);
    }
}

}  // namespace

void CheckDependencies(const std::vector<CheckedEntry>& all, bool isComplete) {
    Entries entries;
    for (const CheckedEntry& entry : all) {
        entries.emplace(entry.manifest.GetAppName(), &entry);
    }
    BootCommandLine withoutWords;
    PlatformHost::Dependencies edges;
    for (const auto& [name, entry] : entries) {
        if (!entry->IsService()) {
            continue;
        }
        std::set<std::string>& waitsFor = edges[name];
        for (const std::string& depend : entry->manifest.GetDependList()) {
            const auto other = entries.find(depend);
            if (other != entries.end() && other->second->IsService()) {
                waitsFor.insert(depend);
                CheckOptional(*entry, *other->second, withoutWords);
            } else if (other != entries.end() || isComplete) {
                ReportUnknown(*entry, depend, entries);
            }
        }
    }
    CheckCycles(edges, entries);
}

}  // namespace ProcMgr::Pmctl
