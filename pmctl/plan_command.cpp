// pmctl graph and pmctl plan: what a boot would do with the services of a file.
#include <array>
#include <fstream>

#include "main/common/log.h"
#include "pmctl/boot_forecast.h"
#include "pmctl/offline.h"
#include "pmctl/offline_json.h"
#include "pmctl/output_file.h"
#include "pmctl/plan_text.h"
#include "pmctl/start_graph_text.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t SNAPSHOT_SIZE_MAX = size_t{64} << 20;

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
    return MakeBootPlan({file, CommandLineOf(options.commandLine), options.root, !options.isCopy,
                         !options.isOrderOnly});
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
    WriteOutput(context, options.output.empty() ? "-" : options.output, text);
}

}  // namespace

void RunPlan(const PlanOptions& options, const Context& context) {
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
        Write(PlanJson(plan, forecast), options, context);
    } else {
        Write(PlanText(plan) + (forecast ? ForecastText(*forecast) : ""), options, context);
    }
}

void RunGraph(const PlanOptions& options, const Context& context) {
    const BootPlan plan = PlanOf(options);
    if (options.isSvg) {
        Write(DrawGraph(GraphOf(plan), SvgKind::STANDALONE), options, context);
    } else if (options.isDot) {
        Write(GraphDot(plan), options, context);
    } else if (context.isJson) {
        Write(PlanJson(plan), options, context);
    } else {
        Write(GraphText(plan), options, context);
    }
}

}  // namespace ProcMgr::Pmctl
