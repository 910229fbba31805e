#include "pmctl/start_graph_text.h"

#include <map>
#include <vector>

#include "pmctl/people.h"

namespace ProcMgr::Pmctl {
namespace {

void AppendNames(std::string& text, const char* word, const std::vector<std::string>& names,
                 const BootPlan& plan) {
    const char* separator = word;
    for (const std::string& name : names) {
        text += separator + Printable(name) + (plan.Find(name) == nullptr ? " (missing)" : "");
        separator = ", ";
    }
}

// A quoted text of the language.
std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : Printable(text)) {
        quoted += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    }
    return quoted + '"';
}

std::string NoteOf(const PlannedService& service) {
    std::string note = service.isReporting ? "start-up waits for its report" : "";
    if (!service.why.empty()) {
        note += (note.empty() ? "" : "\n") + ("not started: " + service.why);
    }
    return note;
}

const char* StateOf(Fate fate) {
    switch (fate) {
        case Fate::STARTED:
            return "";
        case Fate::EXCLUDED:
            return "excluded";
        default:
            return "error";
    }
}

}  // namespace

std::string GraphText(const BootPlan& plan) {
    std::map<std::string, std::vector<std::string>> dependents;
    for (const PlannedService& service : plan.services) {
        for (const std::string& depend : service.depends) {
            dependents[depend].push_back(service.name);
        }
    }
    std::string text;
    for (const PlannedService& service : plan.services) {
        text += Printable(service.name);
        AppendNames(text, " after ", service.depends, plan);
        AppendNames(text, service.depends.empty() ? " before " : "; before ",
                    dependents[service.name], plan);
        text += service.why.empty() ? "\n" : " [" + Printable(service.why) + "]\n";
    }
    return text;
}

std::string GraphDot(const BootPlan& plan) {
    std::string text = "digraph " + Quoted(plan.file) + " {\n  rankdir=LR;\n  node [shape=box];\n";
    for (const PlannedService& service : plan.services) {
        const bool isStarted = service.fate == Fate::STARTED;
        text += "  " + Quoted(service.name);
        text += isStarted ? ";\n" : " [color=red, tooltip=" + Quoted(service.why) + "];\n";
        for (const std::string& depend : service.depends) {
            text += "  " + Quoted(depend) + " -> " + Quoted(service.name) + ";\n";
            if (plan.Find(depend) == nullptr) {
                text += "  " + Quoted(depend) + " [color=red, style=dashed];\n";
            }
        }
    }
    return text + "}\n";
}

Graph GraphOf(const BootPlan& plan) {
    Graph graph;
    graph.title = "Services of " + plan.file;
    for (const PlannedService& service : plan.services) {
        graph.nodes.push_back(
            {service.name, service.depends, StateOf(service.fate), NoteOf(service)});
    }
    return graph;
}

}  // namespace ProcMgr::Pmctl
