// pmctl graph and pmctl plan: what a boot would do with the services of a file.
#include <CLI/CLI.hpp>
#include <array>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "main/common/log.h"
#include "pmctl/boot_forecast.h"
#include "pmctl/commands.h"
#include "pmctl/plan_text.h"
#include "pmctl/start_graph_text.h"

namespace ProcMgr::Pmctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t SNAPSHOT_SIZE_MAX = size_t{64} << 20;

struct PlanOptions {
    std::string file;
    std::string commandLine;
    std::string root;
    std::string times;
    std::string output;
    bool isCopy = false;  // --no-owner
    bool isSvg = false;
    bool isDot = false;
};

// The text, or the contents of FILE for "@FILE".
std::string CommandLineOf(const std::string& text) {
    if (!text.starts_with('@')) {
        return text;
    }
    std::ifstream file(text.substr(1));
    std::string line;
    if (!std::getline(file, line)) {
        throw CommandError(EXIT_NO, "the boot command line cannot be read from " + text.substr(1));
    }
    return line;
}

BootPlan PlanOf(const PlanOptions& options) {
    SwitchLogOff();
    std::string file = options.file;
    if (!options.root.empty() && file.starts_with(options.root + '/')) {
        file.erase(0, options.root.size());
    }
    return MakeBootPlan({file, CommandLineOf(options.commandLine), options.root, !options.isCopy});
}

Snapshot ReadSnapshot(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    std::array<char, 65536> part{};
    while (text.size() <= SNAPSHOT_SIZE_MAX &&
           (file.read(part.data(), part.size()) || file.gcount() > 0)) {
        text.append(part.data(), static_cast<size_t>(file.gcount()));
    }
    if (text.empty() || text.size() > SNAPSHOT_SIZE_MAX) {
        throw CommandError(EXIT_NO, path +
                                        " is not a status document that can be read: make one "
                                        "with pmctl --json status");
    }
    return ParseSnapshot(text);
}

// Writes to --output, or where all data goes.
void Write(const std::string& text, const PlanOptions& options, const Context& context) {
    if (options.output.empty()) {
        context.out << text;
        return;
    }
    std::ofstream file(options.output, std::ios::binary);
    file << text << std::flush;
    if (!file) {
        throw CommandError(EXIT_NO, "cannot write " + options.output);
    }
}

std::string Dumped(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json ToJson(const PlannedService& service) {
    return {{"name", service.name},
            {"file", service.file},
            {"batch", service.batch},
            {"depends", service.depends},
            {"reporting", service.isReporting},
            {"outcome", FateName(service.fate)},
            {"why", service.why}};
}

Json ToJson(const Forecast& forecast) {
    Json steps = Json::array();
    for (const ForecastStep& step : forecast.steps) {
        steps.push_back({{"name", step.name},
                         {"released_ms", step.released},
                         {"started_ms", step.started},
                         {"running_ms", step.running},
                         {"waited_for", step.isWaitedFor},
                         {"guess", step.isGuess}});
    }
    Json critical = Json::array();
    for (const CriticalPart& part : CriticalPath(forecast)) {
        critical.push_back({{"what", part.what}, {"ms", part.milliseconds}});
    }
    return {{"end_ms", forecast.end}, {"services", steps}, {"critical_path", critical}};
}

Json ToJson(const BootPlan& plan) {
    Json apps = Json::array();
    for (const PriorityApp& app : plan.priorityApps) {
        apps.push_back({{"name", app.name}, {"priority", app.priority}});
    }
    Json services = Json::array();
    for (const PlannedService& service : plan.services) {
        services.push_back(ToJson(service));
    }
    return {{"file", plan.file},
            {"notes", plan.notes},
            {"priority_applications", apps},
            {"services", services},
            {"cycles", plan.cycles}};
}

void RunPlan(const PlanOptions& options, Context& context) {
    if (options.isSvg && options.times.empty()) {
        throw CommandError(EXIT_USAGE, "plan --svg needs --times: for the graph see pmctl graph");
    }
    const BootPlan plan = PlanOf(options);
    const auto forecast = options.times.empty()
                              ? std::nullopt
                              : std::optional(MakeForecast(plan, ReadSnapshot(options.times)));
    if (options.isSvg) {
        Write(DrawTimeline(TimelineOf(plan, *forecast), SvgKind::STANDALONE), options, context);
    } else if (context.isJson) {
        Json json = ToJson(plan);
        json["forecast"] = forecast ? ToJson(*forecast) : Json(nullptr);
        Write(Dumped(json), options, context);
    } else {
        Write(PlanText(plan) + (forecast ? ForecastText(*forecast) : ""), options, context);
    }
}

void RunGraph(const PlanOptions& options, Context& context) {
    const BootPlan plan = PlanOf(options);
    if (options.isSvg) {
        Write(DrawGraph(GraphOf(plan), SvgKind::STANDALONE), options, context);
    } else if (options.isDot) {
        Write(GraphDot(plan), options, context);
    } else if (context.isJson) {
        Write(Dumped(ToJson(plan)), options, context);
    } else {
        Write(GraphText(plan), options, context);
    }
}

// The options that both commands have.
CLI::App* AddPlanCommand(CLI::App& app, PlanOptions& options, const char* name, const char* text) {
    CLI::App* command = app.add_subcommand(name, text);
    command->add_option("FILE", options.file, "The manifest of the base services")->required();
    command->add_option("--cmdline", options.commandLine,
                        "The kernel's boot command line, by default empty; @FILE reads it, as in "
                        "@/proc/cmdline");
    command->add_option("--root", options.root, "A directory that is / on the board")
        ->check(CLI::ExistingDirectory);
    command->add_flag("--no-owner", options.isCopy,
                      "A copy of the file: do not check who owns and may write it");
    command->add_option("-o,--output", options.output, "Write to this file");
    return command;
}

}  // namespace

void AddGraphAndPlan(CLI::App& app, Context& context) {
    const auto graph = std::make_shared<PlanOptions>();
    CLI::App* command = AddPlanCommand(app, *graph, "graph", "Show which service waits for which");
    CLI::Option* svg = command->add_flag("--svg", graph->isSvg, "A picture");
    command->add_flag("--dot", graph->isDot, "For Graphviz")->excludes(svg);
    command->callback([graph, &context] { RunGraph(*graph, context); });

    const auto plan = std::make_shared<PlanOptions>();
    command = AddPlanCommand(app, *plan, "plan", "Show what a boot would do, without running it");
    command->add_option("--times", plan->times,
                        "Predict the times from this status document of an earlier boot");
    command->add_flag("--svg", plan->isSvg, "A picture of the predicted times");
    command->callback([plan, &context] { RunPlan(*plan, context); });
}

}  // namespace ProcMgr::Pmctl
