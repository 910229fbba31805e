// pmctl COMMAND: shows the state of the daemon and its services, checks manifests before a boot,
// and passes commands for general applications on to the daemon.
#include <exception>
#include <iostream>

#include "pmctl/command_line.h"
#include "pmctl/people.h"

int main(int argc, char** argv) {
    using namespace ProcMgr::Pmctl;
    Context context{.out = std::cout};
    context.hasColours = MayUseColours();
    try {
        if (const auto code = RunCommandLine(argc, argv, context)) {
            return *code;
        }
        std::cout.flush();
        return std::cout.good() ? context.exitCode : EXIT_NO;
    } catch (const CommandError& error) {
        std::cout.flush();
        std::cerr << "pmctl: " << Printable(error.what()) << '\n';
        return error.GetCode();
    } catch (const std::exception& error) {
        std::cerr << "pmctl: " << Printable(error.what()) << '\n';
        return EXIT_NO;
    }
}
