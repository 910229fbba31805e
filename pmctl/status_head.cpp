#include "pmctl/status_head.h"

#include <algorithm>

#include "pmctl/faults.h"
#include "pmctl/health.h"
#include "pmctl/people.h"
#include "pmctl/svg.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t ITEMS_MAX = 8;  // of a line
constexpr size_t INDENT = 2;

std::string DaemonText(const Snapshot& snapshot) {
    const DaemonStatus& daemon = snapshot.daemon;
    std::string text = "process-manager " + daemon.version + ": phase " + daemon.phase;
    const int64_t begin = DaemonBeginNs(snapshot);
    if (begin > 0) {
        text += ", up " + FormatDuration(static_cast<double>(snapshot.clock.monotonicNs - begin));
    }
    return text;
}

std::string SummaryText(const Snapshot& snapshot) {
    const auto faults = static_cast<int64_t>(snapshot.faults.size());
    return HealthSummary(snapshot) + (faults == 0 ? "" : "; " + Counted(faults, "fault"));
}

// "2 reports queued, 17 applications missed"; empty when the owner has got everything.
std::string PipeText(const Pipe& pipe) {
    std::string text;
    if (pipe.queuedReports > 0) {
        text = Counted(pipe.queuedReports, "report") + " queued";
    }
    if (pipe.missed > 0) {
        text += (text.empty() ? "" : ", ") + Counted(pipe.missed, "application") + " missed";
    }
    return text;
}

// "Title: one; two and 3 more"; empty without items.
std::string ListText(const std::string& title, const std::vector<std::string>& items) {
    std::string text;
    for (size_t i = 0; i < std::min(items.size(), ITEMS_MAX); ++i) {
        text += (i == 0 ? title + ": " : "; ") + items[i];
    }
    return items.size() <= ITEMS_MAX
               ? text
               : text + " and " + std::to_string(items.size() - ITEMS_MAX) + " more";
}

// The rows of the others tell of their faults.
std::string FaultsText(const Snapshot& snapshot) {
    std::vector<std::string> items;
    for (const Fault* fault : FaultsOfOthers(snapshot)) {
        items.push_back(fault->name + ": " + fault->text);
    }
    return ListText("Faults", items);
}

std::string PipesText(const Snapshot& snapshot) {
    std::vector<std::string> items;
    for (const Pipe& pipe : snapshot.pipes) {
        const std::string text = PipeText(pipe);
        if (!text.empty()) {
            items.push_back(pipe.owner + ": " + text);
        }
    }
    return ListText("Pipes", items);
}

std::string CountersText(const Snapshot& snapshot) {
    std::string text;
    const auto add = [&text](int64_t number, const char* noun) {
        if (number > 0) {
            text += (text.empty() ? "Counters: " : ", ") + Counted(number, noun);
        }
    };
    for (const CounterField& field : COUNTER_FIELDS) {
        add(snapshot.counters.*field.value, field.noun);
    }
    add(snapshot.daemon.logLinesDropped, "dropped log line");
    return text;
}

// Adds the text as lines that fit the width; nothing for an empty text.
void AddLines(const std::string& text, size_t width, std::vector<std::string>& lines) {
    const std::string wrapped = Wrapped(Printable(text), width, INDENT);
    for (size_t begin = 0; begin < wrapped.size();) {
        const size_t end = std::min(wrapped.find('\n', begin), wrapped.size());
        lines.push_back(wrapped.substr(begin, end - begin));
        begin = end + 1;
    }
}

}  // namespace

std::vector<std::string> FormatHead(const Snapshot& snapshot, size_t width, bool hasColours) {
    const std::string daemon = Fitted(DaemonText(snapshot), width, TerminalGlyphs().ellipsis);
    const std::string summary = SummaryText(snapshot);
    std::vector<std::string> lines{daemon};
    if (TextColumns(daemon) + 2 + summary.size() <= width) {
        lines[0] += "; " + summary;
    }
    std::vector<std::string> errors;
    AddLines(ConfigErrorText(snapshot.daemon), width, errors);
    for (const std::string& line : errors) {
        lines.push_back(Painted(hasColours, Ink::BAD, line));
    }
    AddLines(lines[0] == daemon ? summary : "", width, lines);
    AddLines(FaultsText(snapshot), width, lines);
    AddLines(PipesText(snapshot), width, lines);
    AddLines(CountersText(snapshot), width, lines);
    return lines;
}

std::string ConfigErrorText(const DaemonStatus& daemon) {
    if (daemon.configError.empty()) {
        return "";
    }
    return "the base-service file was refused: " + daemon.configError + "; see pmctl check " +
           daemon.config;
}

}  // namespace ProcMgr::Pmctl
