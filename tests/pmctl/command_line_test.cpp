// What pmctl refuses before it asks pm-console: each as one line, with its exit code.
#include <gtest/gtest.h>

#include "tests/pmctl/fake_daemon.h"

namespace ProcMgr {
namespace {

using namespace Tests;

class CommandLine : public PmctlTest {
protected:
    // "EXIT CODE|STANDARD ERROR" of a run in which pm-console does not run.
    std::string ErrorOf(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"--console", directory_ / "none"});
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.out, "");
        return std::to_string(outcome.code) + "|" + outcome.error;
    }
    const std::string noConsole_ =
        "3|pmctl: pm-console does not run: start it as a base service, see docs/pmctl.md\n";
};

TEST_F(CommandLine, MistakesAreOneLine) {
    EXPECT_EQ(ErrorOf({}), "2|pmctl: A subcommand is required (see pmctl --help)\n");
    EXPECT_EQ(ErrorOf({"status", "--wach"}),
              "2|pmctl: The following argument was not expected: --wach (see pmctl --help)\n");
    const std::string error = ErrorOf({"check", "a", "--as", "x\ny"});
    EXPECT_EQ(error.find('\n'), error.size() - 1) << error;
    EXPECT_EQ(ErrorOf({"start", "--wait", "5", "web"}),
              "2|pmctl: the seconds of --wait follow a '=': --wait=5\n");
    EXPECT_EQ(ErrorOf({"start", "--wait=5", "5"}), noConsole_);
    EXPECT_EQ(ErrorOf({"start", "--wait", "web"}), noConsole_);
}

TEST_F(CommandLine, OutputThatIsLost) {
    const Document document("status.json");
    Serve([&document](const std::string& request) { return document.Answer(request); });
    for (const char* word : {"--help", "metrics"}) {
        Child child([&] {
            dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            dup2(open((directory_ / "lost").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                 STDERR_FILENO);
            return ExecutePmctl(Socket(), {word});
        });
        EXPECT_EQ(child.ExitCode(), 1);
        const std::string error = ReadFile(directory_ / "lost");
        EXPECT_TRUE(error.starts_with("pmctl: cannot write to standard output")) << error;
        EXPECT_EQ(error.find('\n'), error.size() - 1);
    }
}

TEST_F(CommandLine, BaseServicesAreNoApplications) {
    const Document document("status.json");
    Serve([&document](const std::string& request) { return document.Answer(request); });
    const std::string refusal =
        "1|pmctl: network is a base service: only general applications can be started, stopped, "
        "restarted and queried\n";
    EXPECT_EQ(ErrorOf({"stop", "network"}), refusal);
    EXPECT_EQ(ErrorOf({"query", "worker", "network"}), refusal);
    EXPECT_EQ(ErrorOf({"stop", "log"}), noConsole_) << "also the name of an application";
    EXPECT_EQ(ErrorOf({"stop", "nosuch"}), noConsole_) << "may be one that was never started";
    Serve([](const std::string&) { return "hello\n"; });
    EXPECT_EQ(ErrorOf({"stop", "network"}), noConsole_) << "nothing is known";
}

TEST_F(CommandLine, FilesThatAreNotThere) {
    EXPECT_EQ(ErrorOf({"load", directory_ / "none.yaml"}),
              "1|pmctl: " + (directory_ / "none.yaml: No such file or directory\n"));
    EXPECT_EQ(ErrorOf({"reload", directory_.Path()}),
              "1|pmctl: " + directory_.Path() + ": not a regular file\n");
    WriteFile(directory_ / "there.yaml", "");
    EXPECT_EQ(ErrorOf({"load", directory_ / "there.yaml"}), noConsole_);
}

}  // namespace
}  // namespace ProcMgr
