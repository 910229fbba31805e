// start, stop, restart, query, load and reload on the command line.
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>

#include "pmctl/commands.h"
#include "pmctl/control.h"

namespace ProcMgr::Pmctl {
namespace {

using Console::Command;

CLI::App* AddCommand(CLI::App& app, Context& context, Command command, const std::string& help,
                     const std::shared_ptr<ControlOptions>& options) {
    CLI::App* added = app.add_subcommand(Console::NameOf(command), help);
    added->add_flag("--wait{30}", options->wait,
                    "Wait for the outcome, 30 s or --wait=SECONDS; exit status 6 when it does not "
                    "come");
    added->callback(
        [command, options, &context] { RunControl(MakeRequest(command, *options), context); });
    return added;
}

void AddNamed(CLI::App& app, Context& context, Command command, const std::string& help) {
    const auto options = std::make_shared<ControlOptions>();
    CLI::App* added = AddCommand(app, context, command, help, options);
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
    CLI::App* added = AddCommand(app, context, command, help, options);
    added->add_option("FILE", options->file, "A manifest with applications")->required();
    added->add_option("MATCH", options->match,
                      "KEY=VALUE: entries with \"match\" are taken when all their pairs are here");
}

}  // namespace

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

}  // namespace ProcMgr::Pmctl
