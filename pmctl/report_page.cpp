#include "pmctl/report_page.h"

#include "pmctl/boot_model.h"
#include "pmctl/drawing.h"
#include "pmctl/health.h"
#include "pmctl/html_table.h"
#include "pmctl/people.h"
#include "pmctl/status_head.h"
#include "pmctl/svg.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

std::string Tile(std::string_view label, const std::string& value, std::string_view classes = "") {
    return "<div" + ClassAttribute("tile " + std::string(classes)) + "><b>" + EscapeXml(value) +
           "</b><span>" + EscapeXml(label) + "</span></div>\n";
}

// How many are running and failed is always there, the rest when there are some.
std::string HealthTiles(const Snapshot& snapshot) {
    const auto counts = CountHealths(snapshot);
    std::string tiles;
    for (size_t i = 0; i < counts.size(); ++i) {
        const auto health = static_cast<Health>(i);
        if (counts[i] > 0 || health == Health::RUNNING || health == Health::FAILED) {
            tiles += Tile(HealthName(health), std::to_string(counts[i]),
                          counts[i] > 0 ? InkClass(HealthInk(health)) : "");
        }
    }
    return tiles;
}

std::string Tiles(const Snapshot& snapshot, const BootModel& boot) {
    const DaemonStatus& daemon = snapshot.daemon;
    std::string tiles = "<div class=\"tiles\">\n" + HealthTiles(snapshot);
    if (boot.lastReady >= 0) {
        tiles += Tile(boot.isOver ? "start-up" : "start-up so far",
                      FormatDuration(static_cast<double>(boot.isOver ? boot.lastReady : boot.end)));
    }
    tiles += Tile("starts", std::to_string(snapshot.counters.starts));
    tiles += Tile("daemon memory", FormatKib(static_cast<double>(daemon.rssKib)));
    tiles += Tile("daemon CPU", FormatDuration(static_cast<double>(daemon.cpuMs) * NS_PER_MS));
    return tiles + "</div>\n";
}

std::string Head(const Snapshot& snapshot) {
    const DaemonStatus& daemon = snapshot.daemon;
    const int64_t begin = DaemonBeginNs(snapshot);
    std::string meta = "phase " + daemon.phase;
    if (begin > 0) {
        meta += " · up " + FormatDuration(static_cast<double>(snapshot.clock.monotonicNs - begin));
    }
    meta += " · pid " + std::to_string(daemon.pid) + " · " + Counted(daemon.threads, "thread");
    meta += daemon.isQuickStart ? " · quick start" : "";
    meta += " · " + daemon.config;
    return "<header><h1>process-manager <small>" + EscapeXml(daemon.version) +
           "</small></h1>\n<p class=\"meta\">" + EscapeXml(meta) + "</p>\n<p class=\"meta\">" +
           EscapeXml("as of " + FormatWall(snapshot.clock, snapshot.clock.monotonicNs)) +
           "</p></header>\n";
}

std::string ConfigError(const Snapshot& snapshot) {
    const std::string text = ConfigErrorText(snapshot.daemon);
    return text.empty() ? "" : "<p class=\"alarm\">" + EscapeXml(text) + "</p>\n";
}

std::string Picture(const std::string& title, const std::string& svg) {
    return "<section><h2>" + EscapeXml(title) + "</h2><div class=\"wide\">\n" + svg +
           "</div></section>\n";
}

Graph MakeGraph(const Snapshot& snapshot) {
    Graph graph;
    graph.title = "Dependencies";
    for (const Service& service : snapshot.services) {
        const bool isBad = HealthInk(HealthOf(snapshot, service)) == Ink::BAD;
        graph.nodes.push_back({.name = service.name,
                               .depends = service.depends,
                               .state = isBad ? "error" : service.state,
                               .note = RemarkOf(snapshot, service)});
    }
    return graph;
}

}  // namespace

std::string MakeReport(const Snapshot& snapshot) {
    const BootModel boot = MakeBootModel(snapshot);
    // The policy forbids everything but the page itself, whatever the names in it are.
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
        "style-src 'unsafe-inline'\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta name=\"color-scheme\" content=\"light dark\">\n"
        "<title>process-manager report</title>\n<style>";
    page += REPORT_STYLE;
    page += "</style>\n</head>\n<body>\n" + Head(snapshot) + "<main>\n";
    page += ConfigError(snapshot) + Tiles(snapshot, boot);
    page += ReportFaults(snapshot);
    page += ReportServices(snapshot);
    if (!boot.entries.empty()) {
        page += Picture("Start-up", DrawTimeline(MakeTimeline(boot), SvgKind::EMBEDDED));
    }
    if (!snapshot.services.empty()) {
        page += Picture("Dependencies", DrawGraph(MakeGraph(snapshot), SvgKind::EMBEDDED));
    }
    page += ReportEvents(snapshot) + ReportPipes(snapshot) + ReportCounters(snapshot);
    return page + "</main>\n</body>\n</html>\n";
}

}  // namespace ProcMgr::Pmctl
