// Adds the commands about the running daemon to the parser. One file for all of them: the header of
// the parser takes long to compile.
#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "pmctl/commands.h"
#include "pmctl/online.h"

namespace ProcMgr::Pmctl {
namespace {

// A text that may be given; an empty one is given as well.
struct OptionalText {
    CLI::Option* option = nullptr;
    std::string text;

    std::optional<std::string> Get() const {
        return option->count() > 0 ? std::optional(text) : std::nullopt;
    }
};

std::shared_ptr<OptionalText> AddText(CLI::App& command, const std::string& name,
                                      const std::string& help) {
    auto added = std::make_shared<OptionalText>();
    added->option = command.add_option(name, added->text, help);
    return added;
}

}  // namespace

void AddStatus(CLI::App& app, Context& context) {
    auto options = std::make_shared<StatusOptions>();
    CLI::App* command = app.add_subcommand("status", "Show what runs and what does not");
    const auto name =
        AddText(*command, "NAME", "Show all about this service; exit code 1 unless it runs");
    command->add_flag("-w,--watch", options->isWatch, "Draw the status anew every second")
        ->excludes(name->option);
    command->callback([&context, options, name] {
        options->name = name->Get();
        ShowStatus(context, *options);
    });

    app.add_subcommand("tree", "Show the services with the processes below each")
        ->callback([&context] { ShowTree(context); });
}

void AddEvents(CLI::App& app, Context& context) {
    auto options = std::make_shared<EventsOptions>();
    CLI::App* command = app.add_subcommand("events", "Show the last changes of states");
    const auto name = AddText(*command, "NAME", "Only of this service");
    command->add_flag("-f,--follow", options->isFollowing, "Go on with the events to come");
    command->add_option("--since", options->since, "Only events with a number above this one")
        ->check(CLI::NonNegativeNumber);
    command->callback([&context, options, name] {
        options->name = name->Get();
        ShowEvents(context, *options);
    });
}

void AddWhy(CLI::App& app, Context& context) {
    auto name = std::make_shared<std::string>();
    CLI::App* command =
        app.add_subcommand("why", "Explain why a service runs or not, and what happens next");
    command->add_option("NAME", *name, "The service")->required();
    command->callback([&context, name] { ExplainService(context, *name); });
}

void AddBoot(CLI::App& app, Context& context) {
    CLI::App* boot = app.add_subcommand("boot", "Show the time line of the start-up");
    const auto svg =
        AddText(*boot, "--svg", "Write it as a picture into this file (-: standard output)");
    boot->callback([&context, svg] { ShowBoot(context, svg->Get()); });

    constexpr size_t LINES = 20;
    auto lines = std::make_shared<size_t>(LINES);
    CLI::App* blame = app.add_subcommand("blame", "Show what took longest in the start-up");
    blame->add_option("-n,--lines", *lines, "At most so many lines of each kind (0: all)")
        ->capture_default_str();
    blame->callback([&context, lines] { ShowBlame(context, *lines); });
}

void AddReport(CLI::App& app, Context& context) {
    auto html = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("report", "Write all that is known as one page");
    command->add_option("--html", *html, "The file (-: standard output)")->required();
    command->callback([&context, html] { WriteReport(context, *html); });
}

void AddMetrics(CLI::App& app, Context& context) {
    app.add_subcommand("metrics", "Write the figures as OpenMetrics text")->callback([&context] {
        ShowMetrics(context);
    });
}

}  // namespace ProcMgr::Pmctl
