// All that needs the header of the parser, which takes long to compile.
#include "pmctl/command_line.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>
#include <optional>
#include <string>

#include "pmctl/control.h"
#include "pmctl/offline.h"
#include "pmctl/online.h"
#include "pmctl/people.h"

namespace ProcMgr::Pmctl {
namespace {

using Console::Command;

// Each function Add...() adds one command, or a few that belong together, to the parser. The
// command runs when the command line names it.

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

void AddCheck(CLI::App& app, Context& context) {
    const auto options = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Check manifests, settings, env.cfg and hash files, or directories of them");
    command->add_option("FILE", options->files, "The files and directories")->required();
    command->add_option("--as", options->kind, "What the files are; recognised by default")
        ->check(CLI::IsMember({"manifest", "settings", "env", "hash"}));
    command
        ->add_option("--root", options->root,
                     "A directory that is / on the board: programs and users are those in it")
        ->check(CLI::ExistingDirectory);
    command->add_flag("--no-owner", options->isCopy,
                      "Copies of the files: do not check who owns and may write them");
    command->add_flag("--strict", options->isStrict, "Exit with 1 after warnings, too");
    command->callback([options, &context] { RunCheck(*options, context); });
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
    command->add_flag("--no-programs", options.isOrderOnly,
                      "Do not check programs and users: those of the board are not here");
    command->add_option("-o,--output", options.output, "Write to this file (-: standard output)");
    return command;
}

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

CLI::App* AddControlCommand(CLI::App& app, Context& context, Command command,
                            const std::string& help,
                            const std::shared_ptr<ControlOptions>& options) {
    CLI::App* added = app.add_subcommand(Console::NameOf(command), help);
    added->add_flag(std::string("--wait{") + WAIT_ALONE + "}", options->wait,
                    "Wait for the outcome, 30 s or --wait=SECONDS; exit status 6 when it does not "
                    "come");
    added->callback(
        [command, options, &context] { RunControl(MakeRequest(command, *options), context); });
    return added;
}

void AddNamed(CLI::App& app, Context& context, Command command, const std::string& help) {
    const auto options = std::make_shared<ControlOptions>();
    CLI::App* added = AddControlCommand(app, context, command, help, options);
    added->add_option("NAME", options->names, "General applications")->required();
    if (!Console::IsLaunch(command)) {
        return;
    }
    const std::string dynamic = " of an application with patterns (dynamic: true)";
    added->add_option("--arg", options->args, "An argument" + dynamic + "; may be repeated")
        ->allow_extra_args(false);
    added->add_option("--exec", options->exec, "The program" + dynamic);
    added->add_option("--env", options->env, "KEY=VALUE" + dynamic + "; may be repeated")
        ->allow_extra_args(false);
    added->add_option("--vf-id", options->vfId, "The virtual function" + dynamic);
}

void AddFile(CLI::App& app, Context& context, Command command, const std::string& help) {
    const auto options = std::make_shared<ControlOptions>();
    CLI::App* added = AddControlCommand(app, context, command, help, options);
    added->add_option("FILE", options->file, "A manifest with applications")->required();
    added->add_option("MATCH", options->match,
                      "KEY=VALUE: entries with \"match\" are taken when all their pairs are here");
}

void AddControl(CLI::App& app, Context& context) {
    AddNamed(app, context, Command::START, "Start general applications");
    AddNamed(app, context, Command::STOP, "End general applications");
    AddNamed(app, context, Command::RESTART, "End and start general applications");
    AddNamed(app, context, Command::QUERY,
             "Ask whether general applications run; exit status 1 when one does not");
    AddFile(app, context, Command::LOAD, "Make the applications of a file known to the daemon");
    AddFile(app, context, Command::RELOAD,
            "As load, but forget the file's earlier applications first");
}

}  // namespace

std::optional<int> RunCommandLine(int argc, const char* const* argv, Context& context) {
    CLI::App app{"Shows and steers the services of process-manager.", "pmctl"};
    app.require_subcommand(1);
    app.fallthrough();
    app.add_flag("--json", context.isJson, "Write one JSON document instead of text");
    app.add_option("--socket", context.statusSocket, "The status socket")->capture_default_str();
    app.add_option("--console", context.consoleSocket, "The socket of pm-console")
        ->capture_default_str();
    AddCheck(app, context);
    AddGraphAndPlan(app, context);
    AddStatus(app, context);
    AddEvents(app, context);
    AddWhy(app, context);
    AddBoot(app, context);
    AddReport(app, context);
    AddMetrics(app, context);
    AddControl(app, context);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return "pmctl: " + Printable(error.what()) + " (see pmctl --help)\n";
    });
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
    }
}

}  // namespace ProcMgr::Pmctl
