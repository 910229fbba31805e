// pmctl tree: the services with the processes below each.
#include <ostream>

#include "pmctl/ask.h"
#include "pmctl/health.h"
#include "pmctl/json_output.h"
#include "pmctl/online.h"
#include "pmctl/people.h"
#include "pmctl/process_tree.h"
#include "pmctl/status_view.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t PROCESSES_SHOWN_MAX = 4096;

class TreePrinter {
public:
    explicit TreePrinter(const Context& context) : context_(context) {}

    // A line of the tree; `prefix` is what stands left of the branches of its parent.
    void Print(const std::string& prefix, bool isLast, const std::string& text) const {
        context_.out << prefix << (isLast ? glyphs_.last : glyphs_.branch) << text << '\n';
    }
    // What stands left of the branches of a child.
    std::string Below(const std::string& prefix, bool isLast) const {
        return prefix + (isLast ? "  " : std::string(glyphs_.trunk));
    }

    void PrintProcesses(const std::string& prefix, const std::vector<Process>& processes) const {
        for (size_t i = 0; i < processes.size(); ++i) {
            const Process& process = processes[i];
            const bool isLast = i + 1 == processes.size();
            Print(prefix, isLast, Label(process.name, process.pid, process.threads));
            PrintProcesses(Below(prefix, isLast), process.children);
        }
    }

    // "sh(12), 3 threads"
    static std::string Label(const std::string& name, int64_t pid, int64_t threads) {
        return Printable(name) + '(' + std::to_string(pid) + ')' +
               (threads > 1 ? ", " + Counted(threads, "thread") : "");
    }

private:
    const Context& context_;
    const Glyphs& glyphs_ = TerminalGlyphs();
};

std::string ServiceLabel(const Context& context, const Snapshot& snapshot, const Service& service) {
    const Health health = HealthOf(snapshot, service);
    std::string label = service.pid > 0
                            ? TreePrinter::Label(service.name, service.pid, service.threads)
                            : Printable(service.name);
    if (health == Health::RUNNING) {
        return label;
    }
    const std::string remark = RemarkOf(snapshot, service);
    const std::string text = service.state + (remark.empty() ? "" : ", " + remark);
    return label + ": " + Painted(context.hasColours, HealthInk(health), Printable(text));
}

void PrintTree(const Context& context, const Snapshot& snapshot,
               const std::vector<ServiceProcesses>& services) {
    const DaemonStatus& daemon = snapshot.daemon;
    const TreePrinter printer(context);
    context.out << TreePrinter::Label("process-manager", daemon.pid, daemon.threads) << '\n';
    for (size_t i = 0; i < services.size(); ++i) {
        const bool isLast = i + 1 == services.size();
        printer.Print("", isLast, ServiceLabel(context, snapshot, *services[i].service));
        printer.PrintProcesses(printer.Below("", isLast), services[i].below);
    }
}

}  // namespace

void ShowTree(const Context& context) {
    const Snapshot snapshot = AskStatus(context).snapshot;
    const ProcessTable processes = ProcessTable::Read();
    size_t left = PROCESSES_SHOWN_MAX;
    std::vector<ServiceProcesses> services;
    for (const Service* service : AllOf(snapshot)) {
        services.push_back({service, {}});
        if (service->pid > 0) {
            services.back().below = processes.Below(service->pid, left);
        }
    }
    if (context.isJson) {
        PrintDocument(context, TreeJson(snapshot, services));
        return;
    }
    PrintTree(context, snapshot, services);
    if (left == 0) {
        context.out << "only " << PROCESSES_SHOWN_MAX << " processes are shown\n";
    }
}

}  // namespace ProcMgr::Pmctl
