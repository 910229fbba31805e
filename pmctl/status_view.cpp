#include "pmctl/status_view.h"

#include "pmctl/health.h"
#include "pmctl/people.h"
#include "pmctl/table.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

std::string SinceText(const Snapshot& snapshot, const Service& service) {
    const int64_t since = SinceNs(snapshot, service);
    return since == 0 ? "-" : FormatShort(static_cast<double>(snapshot.clock.monotonicNs - since));
}

// What does not run, or has a fault, says so in place of the time and the memory that it uses.
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
    const std::string remark = RemarkOf(snapshot, service);
    if (health != Health::RUNNING && !remark.empty()) {
        row.push_back({remark, HealthInk(health)});
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

std::vector<std::string> FormatRows(const Snapshot& snapshot,
                                    const std::vector<const Service*>& shown, size_t width,
                                    bool hasColours, const IsMarked& isMarked) {
    Table table(StatusColumns());
    for (const Service* service : shown) {
        table.Add(FormatRow(snapshot, *service, isMarked && isMarked(*service)));
    }
    if (!isMarked) {
        return table.Lines(width, hasColours);
    }
    std::vector<std::string> rows = table.Lines(width - 2, hasColours);
    rows[0].insert(0, "  ");
    for (size_t i = 0; i < shown.size(); ++i) {
        rows[i + 1].insert(0, isMarked(*shown[i]) ? "* " : "  ");
    }
    return rows;
}

}  // namespace ProcMgr::Pmctl
