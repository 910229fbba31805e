#include "pmctl/status_view.h"

#include "pmctl/health.h"
#include "pmctl/people.h"
#include "pmctl/svg.h"
#include "pmctl/table.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

std::vector<std::string> FormatHead(const Snapshot& snapshot, size_t width) {
    const DaemonStatus& daemon = snapshot.daemon;
    std::string head = "process-manager " + daemon.version + ": phase " + daemon.phase;
    const int64_t begin = DaemonBeginNs(snapshot);
    if (begin > 0) {
        head += ", up " + FormatDuration(static_cast<double>(snapshot.clock.monotonicNs - begin));
    }
    head = Fitted(head, width, TerminalGlyphs().ellipsis);
    const std::string summary = HealthSummary(snapshot);
    if (TextColumns(head) + 2 + summary.size() <= width) {
        return {head + "; " + summary};
    }
    return {head, Wrapped(summary, width, 0)};
}

std::string SinceText(const Snapshot& snapshot, const Service& service) {
    const int64_t since = SinceNs(snapshot, service);
    return since == 0 ? "-" : FormatShort(static_cast<double>(snapshot.clock.monotonicNs - since));
}

// What does not run shows why in place of the time and the memory that it uses.
std::vector<Cell> FormatRow(const Snapshot& snapshot, const Service& service, bool isMarked) {
    const Health health = HealthOf(snapshot, service);
    const bool hasProcess = service.pid > 0;
    std::vector<Cell> row{
        {service.name, isMarked ? Ink::STRONG : Ink::PLAIN},
        {service.state, HealthInk(health)},
        {hasProcess ? std::to_string(service.pid) : "-"},
        {std::to_string(service.starts)},
        {SinceText(snapshot, service)},
    };
    if (health != Health::RUNNING && !service.why.empty()) {
        row.push_back({service.why, HealthInk(health)});
        return row;
    }
    const auto cpu = static_cast<double>(service.cpuMs) * NS_PER_MS;
    row.push_back({hasProcess ? FormatDuration(cpu) : "-"});
    row.push_back({hasProcess ? FormatKib(static_cast<double>(service.rssKib)) : "-"});
    return row;
}

std::vector<Column> StatusColumns() {
    return {{"NAME"},           {"STATE"},        {"PID", true, 1}, {"STARTS", true, 5},
            {"SINCE", true, 2}, {"CPU", true, 4}, {"MEM", true, 3}};
}

}  // namespace

std::vector<const Service*> AllOf(const Snapshot& snapshot) {
    std::vector<const Service*> all;
    for (const auto* list : {&snapshot.services, &snapshot.applications}) {
        for (const Service& service : *list) {
            all.push_back(&service);
        }
    }
    return all;
}

StatusText FormatStatus(const Snapshot& snapshot, const std::vector<const Service*>& shown,
                        size_t width, bool hasColours, const IsMarked& isMarked) {
    Table table(StatusColumns());
    for (const Service* service : shown) {
        table.Add(FormatRow(snapshot, *service, isMarked && isMarked(*service)));
    }
    if (!isMarked) {
        return {FormatHead(snapshot, width), table.Lines(width, hasColours)};
    }
    StatusText text{FormatHead(snapshot, width), table.Lines(width - 2, hasColours)};
    text.rows[0].insert(0, "  ");
    for (size_t i = 0; i < shown.size(); ++i) {
        text.rows[i + 1].insert(0, isMarked(*shown[i]) ? "* " : "  ");
    }
    return text;
}

}  // namespace ProcMgr::Pmctl
