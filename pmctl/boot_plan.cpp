#include "pmctl/boot_plan.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "baseservice/start_order.h"
#include "config/boot_command_line.h"
#include "main/common/proc_mgr_env.h"
#include "platform/host/start_graph.h"
#include "pmctl/boot_file.h"
#include "pmctl/image.h"
#include "pmctl/start_checks.h"

namespace ProcMgr::Pmctl {
namespace {

class Planner {
public:
    explicit Planner(const BootInput& input)
        : input_(input), image_(input.root), checks_(image_, input.hasOwners) {}

    BootPlan Run() {
        TakeCommandLine();
        file_ = LoadBootFile(plan_.file, image_, input_.hasOwners);
        AddPriorityApps();
        for (size_t i = 0; i < file_.manifests.size(); ++i) {
            entryOf_[file_.manifests[i].GetAppName()] = i;
            if (file_.manifests[i].GetManifestList() == ManifestList::SERVICES) {
                AddService(file_.manifests[i]);
            }
        }
        for (const std::string& word : commandLine_.GetNotConfigured()) {
            plan_.notes.push_back("no manifest has the word '" + word +
                                  "' of the boot command line");
        }
        PlanBatches();
        Sort();
        const std::vector<std::string>& unchecked = checks_.GetNotes();
        plan_.notes.insert(plan_.notes.end(), unchecked.begin(), unchecked.end());
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

    void AddPriorityApps() {
        for (const size_t i : PriorityOrder(file_)) {
            const ApplicationManifest& manifest = file_.manifests[i];
            plan_.priorityApps.push_back(
                {manifest.GetAppName(), manifest.GetStartupPriority(), WhyRefused(i)});
        }
    }

    std::string WhyRefused(size_t entry) {
        return input_.hasPrograms ? checks_.WhyRefused(file_.manifests[entry], file_.places[entry])
                                  : std::string();
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

    // The checks that are made when the service has its turn: its dependencies, then its program.
    void TakeTurn(PlannedService& service, size_t batch) {
        service.batch = batch;
        order_.push_back(service.name);
        for (const std::string& depend : service.depends) {
            if (service.why.empty()) {
                service.why = WhyMissing(depend);
            }
        }
        if (service.why.empty()) {
            service.why = WhyRefused(entryOf_.at(service.name));
        }
        service.fate = service.why.empty() ? Fate::STARTED : Fate::REFUSED;
    }

    // Empty when the service runs at this point of the boot.
    std::string WhyMissing(const std::string& name) const {
        const auto found = indexOf_.find(name);
        if (found == indexOf_.end()) {
            return name + ", which it depends on, is " +
                   (entryOf_.contains(name) ? "an application" : "no service");
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
    StartChecks checks_;
    BootCommandLine commandLine_;
    BootFile file_;
    std::map<std::string, size_t> entryOf_;  // in file_
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
