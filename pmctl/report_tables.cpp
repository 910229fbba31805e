// The tables of the report.
#include <algorithm>

#include "pmctl/health.h"
#include "pmctl/html_table.h"
#include "pmctl/people.h"
#include "pmctl/report_page.h"
#include "pmctl/status_view.h"
#include "pmctl/svg.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t OPEN_ROWS = 12;  // a table with more rows is folded at first

std::string Badge(std::string_view text, Ink ink) {
    return "<span class=\"badge " + std::string(InkClass(ink)) + "\">" + EscapeXml(text) +
           "</span>";
}

// Where a service stands in the table: what needs attention is at the top, what runs at the bottom.
int PlaceOf(Health health) {
    switch (health) {
        case Health::FAULTY:
        case Health::FAILED:
        case Health::BLOCKED:
            return 0;
        case Health::NOT_STARTED:
            return 2;
        case Health::STOPPED:
            return 3;
        case Health::RUNNING:
            return 4;
        default:
            return 1;
    }
}

struct ServiceRow {
    const Service* service;
    Health health;
};

std::vector<ServiceRow> SortedRows(const Snapshot& snapshot) {
    std::vector<ServiceRow> rows;
    for (const Service* service : AllOf(snapshot)) {
        rows.push_back({service, HealthOf(snapshot, *service)});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const ServiceRow& left, const ServiceRow& right) {
        return PlaceOf(left.health) < PlaceOf(right.health);
    });
    return rows;
}

std::string NameHtml(const Service& service) {
    if (service.kind != "application") {
        return EscapeXml(service.name);
    }
    const std::string owner = service.owner.empty() ? "" : " of " + service.owner;
    return EscapeXml(service.name) + "<small>application" + EscapeXml(owner) + "</small>";
}

// Why it does not run, or its fault, and what comes next; what runs says only what is remarkable.
std::string RemarkHtml(const Snapshot& snapshot, const ServiceRow& row) {
    const Service& service = *row.service;
    const std::string lastExit =
        service.lastExit ? "last exit: " + FormatExit(snapshot.clock, *service.lastExit) : "";
    if (row.health == Health::RUNNING) {
        return EscapeXml(lastExit);
    }
    const std::string remark = RemarkOf(snapshot, service);
    std::string html = EscapeXml(remark.empty() ? lastExit : remark);
    if (!service.next.empty()) {
        html += "<div class=\"next\">next: " + EscapeXml(service.next) + "</div>";
    }
    return html;
}

void AddService(const Snapshot& snapshot, const ServiceRow& row, HtmlTable& table) {
    const Service& service = *row.service;
    const int64_t since = SinceNs(snapshot, service);
    const auto age = static_cast<double>(snapshot.clock.monotonicNs - since);
    const bool hasProcess = service.pid > 0;
    table.AddHtml(NameHtml(service));
    table.AddHtml(Badge(service.state, HealthInk(row.health)));
    table.Add(hasProcess ? std::to_string(service.pid) : "");
    table.Add(std::to_string(service.starts));
    table.Add(since > 0 ? FormatShort(age) : "");
    table.Add(hasProcess ? FormatDuration(static_cast<double>(service.cpuMs) * NS_PER_MS) : "");
    table.Add(hasProcess ? FormatKib(static_cast<double>(service.rssKib)) : "");
    table.Add(hasProcess ? std::to_string(service.threads) : "");
    table.AddHtml(RemarkHtml(snapshot, row));
}

// A part of the page that can be folded.
std::string Folded(const std::string& title, size_t rows, const std::string& html) {
    return std::string("<details") + (rows <= OPEN_ROWS ? " open" : "") + "><summary><h2>" +
           EscapeXml(title) + "</h2></summary>\n" + html + "</details>\n";
}

// The same for a table; nothing else than the title and a remark when it has no row.
std::string FoldedTable(const std::string& title, size_t rows, const HtmlTable& table) {
    return Folded(title + " (" + std::to_string(rows) + ')', rows,
                  table.IsEmpty() ? "<p class=\"empty\">none</p>\n" : table.Html());
}

}  // namespace

std::string ReportServices(const Snapshot& snapshot) {
    HtmlTable table("cards", {{"Name", "name"},
                              {"State", ""},
                              {"PID", "number minor"},
                              {"Starts", "number minor"},
                              {"Since", "number"},
                              {"CPU", "number minor"},
                              {"Memory", "number"},
                              {"Threads", "number minor"},
                              {"Remarks", "text"}});
    const std::vector<ServiceRow> rows = SortedRows(snapshot);
    for (const ServiceRow& row : rows) {
        AddService(snapshot, row, table);
    }
    return "<section><h2>Services and applications (" + std::to_string(rows.size()) + ")</h2>\n" +
           table.Html() + "</section>\n";
}

std::string ReportEvents(const Snapshot& snapshot) {
    HtmlTable table("cards", {{"Number", "number minor"},
                              {"Time", ""},
                              {"Name", "name"},
                              {"Change", ""},
                              {"Cause", "text"}});
    // The last one is at the top.
    for (auto event = snapshot.events.rbegin(); event != snapshot.events.rend(); ++event) {
        table.Add(std::to_string(event->number));
        table.Add(FormatWall(snapshot.clock, event->atNs));
        table.Add(event->name);
        const Ink ink = event->to == "RUNNING"      ? Ink::GOOD
                        : event->to == "TERMINATED" ? Ink::BAD
                                                    : Ink::BUSY;
        table.AddHtml(EscapeXml(event->from) + " → " + Badge(event->to, ink));
        table.Add(event->cause + (event->detail.empty() ? "" : ": " + event->detail));
    }
    return FoldedTable("Events, the last one first", snapshot.events.size(), table);
}

std::string ReportPipes(const Snapshot& snapshot) {
    HtmlTable table("", {{"Owner", "name"},
                         {"PID", "number"},
                         {"Pipe", ""},
                         {"Queued reports", "number"},
                         {"Queued states", "number"},
                         {"Missed", "number"}});
    for (const Pipe& pipe : snapshot.pipes) {
        table.Add(pipe.owner);
        table.Add(std::to_string(pipe.pid));
        table.AddHtml(pipe.isOpen ? Badge("open", Ink::GOOD) : Badge("closed", Ink::QUIET));
        table.Add(std::to_string(pipe.queuedReports));
        table.Add(std::to_string(pipe.queuedStates));
        table.Add(std::to_string(pipe.missed));
    }
    return FoldedTable("Pipes of owners", snapshot.pipes.size(), table);
}

std::string ReportFaults(const Snapshot& snapshot) {
    HtmlTable table("", {{"Name", "name"}, {"Node", ""}, {"Event", "number"}, {"Fault", "text"}});
    for (const Fault& fault : snapshot.faults) {
        table.Add(fault.name);
        table.Add(fault.node);
        table.Add(std::to_string(fault.event));
        table.AddHtml(Badge(fault.text, Ink::BAD));
    }
    return FoldedTable("Faults", snapshot.faults.size(), table);
}

std::string ReportCounters(const Snapshot& snapshot) {
    HtmlTable table("", {{"Counter", "text"}, {"Value", "number"}});
    for (const CounterField& field : COUNTER_FIELDS) {
        table.Add(field.meaning);
        table.Add(std::to_string(snapshot.counters.*field.value));
    }
    table.Add("Dropped log lines of the daemon");
    table.Add(std::to_string(snapshot.daemon.logLinesDropped));
    return FoldedTable("Counters", COUNTER_FIELDS.size() + 1, table);
}

}  // namespace ProcMgr::Pmctl
