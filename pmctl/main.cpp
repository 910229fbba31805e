// pmctl COMMAND: shows the state of the daemon and its services, checks manifests before a boot,
// and passes commands for general applications on to the daemon.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "pmctl/command_line.h"
#include "pmctl/people.h"

namespace {

void Complain(const std::string& text) {
    std::cerr << "pmctl: " << ProcMgr::Pmctl::Printable(text) << '\n';
}

// The exit code of a command that has ended, when all that it has written has come through. The
// reason is known when the last write has failed.
int Finish(int code) {
    errno = 0;
    std::cout.flush();
    if (std::fflush(stdout) == 0 && std::cout.good()) {
        return code;
    }
    const std::string reason = errno == 0 ? "" : std::string(": ") + strerror(errno);
    Complain("cannot write to standard output" + reason);
    return ProcMgr::Pmctl::EXIT_NO;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace ProcMgr::Pmctl;
    Context context{.out = std::cout};
    context.hasColours = MayUseColours();
    try {
        const auto code = RunCommandLine(argc, argv, context);
        return Finish(code ? *code : context.exitCode);
    } catch (const CommandError& error) {
        std::cout.flush();
        Complain(error.what());
        return error.GetCode();
    } catch (const std::exception& error) {
        Complain(error.what());
        return EXIT_NO;
    }
}
