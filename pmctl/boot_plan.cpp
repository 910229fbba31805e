#include "pmctl/boot_plan.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "app/app_spec.h"
#include "baseservice/start_order.h"
#include "config/boot_command_line.h"
#include "main/common/proc_mgr_env.h"
#include "platform/host/manifest_loader.h"
#include "platform/host/start_graph.h"
#include "pmctl/check_manifest.h"
#include "pmctl/context.h"
#include "pmctl/image.h"
#include "pmctl/people.h"

namespace ProcMgr::Pmctl {
namespace {

class Planner {
public:
    explicit Planner(const BootInput& input) : input_(input), image_(input.root) {}

    BootPlan Run() {
        TakeCommandLine();
        LoadFile();
        AddPriorityApps();
        for (const ApplicationManifest& manifest : manifests_) {
            if (manifest.GetManifestList() == ManifestList::SERVICES) {
                AddService(manifest);
            }
        }
        for (const std::string& word : commandLine_.GetNotConfigured()) {
            plan_.notes.push_back("no manifest has the word '" + word +
                                  "' of the boot command line");
        }
        PlanBatches();
        Sort();
        return std::move(plan_);
    }

private:
    void TakeCommandLine() {
        commandLine_.Take(input_.commandLine);
        const std::string& replaced = ProcMgrEnv::GetInstance().GetStartupYaml();
        plan_.file = replaced.empty() ? input_.file : replaced;
        if (!replaced.empty()) {
            plan_.notes.push_back("the boot command line replaces " + input_.file + " by " +
                                  replaced);
        }
    }

    void LoadFile() {
        PlatformHost::ManifestLoad load =
            PlatformHost::LoadManifests(plan_.file, BoardReader(image_, input_.hasOwners));
        if (!load.error.empty()) {
            throw CommandError(EXIT_NO, "the daemon would start nothing: " + Printable(load.error) +
                                            ": see pmctl check");
        }
        manifests_ = std::move(load.manifests);
    }

    // By rising priority, then by name; those with match data are not selected at boot.
    void AddPriorityApps() {
        for (const ApplicationManifest& manifest : manifests_) {
            if (manifest.GetManifestList() == ManifestList::APPLICATIONS &&
                manifest.GetStartupPriority() != App::AppSpec::NO_PRIORITY &&
                manifest.GetMatchData().empty()) {
                plan_.priorityApps.push_back(
                    {manifest.GetAppName(), manifest.GetStartupPriority()});
            }
        }
        std::sort(plan_.priorityApps.begin(), plan_.priorityApps.end(),
                  [](const PriorityApp& one, const PriorityApp& other) {
                      return std::tie(one.priority, one.name) <
                             std::tie(other.priority, other.name);
                  });
    }

    void AddService(const ApplicationManifest& manifest) {
        const std::set<std::string> depends = manifest.GetDependList();
        PlannedService service;
        service.name = manifest.GetAppName();
        service.file = manifest.GetCfgPath();
        service.depends.assign(depends.begin(), depends.end());
        service.isReporting = manifest.GetIsReporting();
        dependsOf_[service.name] = depends;
        if (IsStartedAtBoot(manifest, commandLine_)) {
            enabled_.push_back(service.name);
            service.fate = Fate::STUCK;
        } else {
            service.why = "the boot command line does not have procmgr=";
            for (const std::string& word : OptionalKeywordsOf(service.file)) {
                service.why += (service.why.back() == '=' ? "" : ",") + word;
            }
        }
        plan_.services.push_back(std::move(service));
    }

    void PlanBatches() {
        for (size_t i = 0; i < plan_.services.size(); ++i) {
            indexOf_[plan_.services[i].name] = i;
        }
        PlatformHost::StartGraph start = PlatformHost::MakeStartGraph(enabled_, dependsOf_);
        plan_.cycles = PlatformHost::FindCycles(start);
        size_t number = 0;
        for (auto batch = NextBatch(start.graph); !batch.empty(); batch = NextBatch(start.graph)) {
            ++number;
            for (const std::string& name : batch) {
                TakeTurn(plan_.services[indexOf_.at(name)], number);
                start.graph.Pop(name);
            }
        }
        for (PlannedService& service : plan_.services) {
            if (service.fate == Fate::STUCK) {
                service.why = WhyStuck(service);
            }
        }
    }

    // The check of the dependencies that base start-up makes when the service has its turn.
    void TakeTurn(PlannedService& service, size_t batch) {
        service.batch = batch;
        service.fate = Fate::STARTED;
        order_.push_back(service.name);
        for (const std::string& depend : service.depends) {
            service.why = WhyMissing(depend);
            if (!service.why.empty()) {
                service.fate = Fate::REFUSED;
                return;
            }
        }
    }

    // Empty when the service runs at this point of the boot.
    std::string WhyMissing(const std::string& name) const {
        const auto found = indexOf_.find(name);
        if (found == indexOf_.end()) {
            const bool isApp = std::any_of(
                manifests_.begin(), manifests_.end(),
                [&name](const ApplicationManifest& one) { return one.GetAppName() == name; });
            return name + ", which it depends on, is " + (isApp ? "an application" : "no service");
        }
        switch (plan_.services[found->second].fate) {
            case Fate::STARTED:
                return {};
            case Fate::EXCLUDED:
                return name + ", which it depends on, is excluded by the boot command line";
            default:
                return name + ", which it depends on, is not started";
        }
    }

    std::string WhyStuck(const PlannedService& service) const {
        for (const std::vector<std::string>& cycle : plan_.cycles) {
            if (std::find(cycle.begin(), cycle.end(), service.name) != cycle.end()) {
                return "dependency cycle " + PlatformHost::CycleText(cycle);
            }
        }
        return "waits for a dependency cycle";
    }

    void Sort() {
        std::map<std::string, size_t> turns;
        for (const std::string& name : order_) {
            turns.emplace(name, turns.size());
        }
        const auto turnOf = [&turns](const PlannedService& service) {
            const auto found = turns.find(service.name);
            return found == turns.end() ? turns.size() : found->second;
        };
        std::stable_sort(plan_.services.begin(), plan_.services.end(),
                         [&turnOf](const PlannedService& one, const PlannedService& other) {
                             return turnOf(one) < turnOf(other);
                         });
    }

    const BootInput& input_;
    const Image image_;
    BootCommandLine commandLine_;
    std::vector<ApplicationManifest> manifests_;
    std::vector<std::string> enabled_;
    PlatformHost::Dependencies dependsOf_;
    std::map<std::string, size_t> indexOf_;  // in plan_.services, before they are sorted
    std::vector<std::string> order_;
    BootPlan plan_;
};

}  // namespace

const char* FateName(Fate fate) {
    switch (fate) {
        case Fate::STARTED:
            return "started";
        case Fate::REFUSED:
            return "refused";
        case Fate::STUCK:
            return "cycle";
        case Fate::EXCLUDED:
            return "excluded";
    }
    return "";
}

const PlannedService* BootPlan::Find(const std::string& name) const {
    const auto found =
        std::find_if(services.begin(), services.end(),
                     [&name](const PlannedService& service) { return service.name == name; });
    return found == services.end() ? nullptr : &*found;
}

BootPlan MakeBootPlan(const BootInput& input) {
    return Planner(input).Run();
}

}  // namespace ProcMgr::Pmctl
