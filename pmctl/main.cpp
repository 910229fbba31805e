// pmctl COMMAND: shows the state of the daemon and its services, checks manifests before a boot,
// and passes commands for general applications on to the daemon.
#include <CLI/CLI.hpp>
#include <iostream>

#include "pmctl/commands.h"

namespace {

using namespace ProcMgr::Pmctl;

// The help goes to standard output, a wrong command line to standard error.
int ExitOfParsing(const CLI::App& app, const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
    Context context{.out = std::cout};
    context.hasColours = MayUseColours();
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
    try {
        app.parse(argc, argv);
        std::cout.flush();
        return std::cout.good() ? context.exitCode : EXIT_NO;
    } catch (const CLI::ParseError& error) {
        return ExitOfParsing(app, error);
    } catch (const CommandError& error) {
        std::cout.flush();
        std::cerr << "pmctl: " << error.what() << '\n';
        return error.GetCode();
    } catch (const std::exception& error) {
        std::cerr << "pmctl: " << error.what() << '\n';
        return EXIT_NO;
    }
}
