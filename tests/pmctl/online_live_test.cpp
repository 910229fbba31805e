// Commands that look at running processes or go on until a signal ends them.
#include <gtest/gtest.h>
#include <pty.h>

#include <atomic>

#include "tests/pmctl/fake_daemon.h"
#include "tests/support/wait.h"

namespace ProcMgr {
namespace {

using namespace Tests;

class OnlineLive : public PmctlTest {
protected:
    std::string Out() const { return ReadFile(directory_ / "out"); }
    bool WaitFor(const std::string& text) const {
        return WaitUntil([&] { return Out().find(text) != std::string::npos; });
    }

    const Document document_{"status.json"};
};

TEST_F(OnlineLive, TreeShowsTheProcessesBelowAService) {
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    Child service([&ready] {
        const pid_t below = fork();
        if (below == 0) {
            prctl(PR_SET_NAME, "odd) \x1b name");
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const pid_t self = getpid();
            return write(ready[1], &self, sizeof(self)) > 0 ? Pause() : 1;
        }
        return Pause();
    });
    pid_t below = 0;
    ASSERT_EQ(read(ready[0], &below, sizeof(below)), static_cast<ssize_t>(sizeof(below)));
    const std::string pid = std::to_string(service.Pid());
    Serve([&](const std::string&) { return document_.With("5000002", pid); });

    const std::string out = Run({"tree"}).out;
    const std::string expected = "├─network(" + pid + ")\n│ └─odd) \\x1b name(" +
                                 std::to_string(below) + ")\n├─crasher: TERMINATED";
    EXPECT_NE(out.find(expected), std::string::npos) << out;
    close(ready[0]);
    close(ready[1]);
}

TEST_F(OnlineLive, FollowTellsOfSkippedEventsAndOfAnotherDaemon) {
    struct {
        bool isJson;
        std::string first, missed, renewed;
    } const cases[] = {
        {false, "    45  2026-11-22 11:37:13.023  x\\x1b[2J\\x0ay",
         "-- 4 events were missed\n    50  ",
         "-- process-manager has been restarted, pid 5999999\n-- 40 events were missed\n    41  "},
        {true, "{\"number\":45,", "{\"missed\":4}\n{\"number\":50,",
         "{\"daemon_pid\":5999999}\n{\"missed\":40}\n{\"number\":41,"},
    };
    for (const auto& one : cases) {
        std::atomic<int> step{0};
        Serve([&](const std::string& request) {
            if (step == 2) {
                return document_.With("\"pid\":5000000,", "\"pid\":5999999,");
            }
            return step == 1 && request == "events 45"
                       ? Replaced(document_.Since(44), "\"number\":45", "\"number\":50")
                       : document_.Answer(request);
        });
        std::vector<std::string> arguments{"events", "--follow", "--since", "44"};
        if (one.isJson) {
            arguments.emplace_back("--json");
        }
        Child pmctl = Start(arguments);
        EXPECT_TRUE(WaitFor(one.first));
        step = 1;
        EXPECT_TRUE(WaitFor(one.missed));
        step = 2;
        EXPECT_TRUE(WaitFor(one.renewed));
        kill(pmctl.Pid(), SIGTERM);
        EXPECT_EQ(WTERMSIG(pmctl.Wait()), SIGTERM);
        EXPECT_EQ(ReadFile(directory_ / "error"), "");
    }
}

TEST_F(OnlineLive, WatchWritesADocumentEachSecond) {
    std::atomic<bool> isAway{false};
    Serve([&](const std::string&) { return isAway ? "" : document_.All(); });
    Child pmctl = Start({"status", "--watch", "--json"});
    EXPECT_TRUE(WaitFor(document_.All()));
    isAway = true;
    EXPECT_TRUE(WaitFor("\n{\"version\":1,\"error\":\"the daemon has closed the connection"));
    isAway = false;
    EXPECT_TRUE(WaitFor("try again\"}\n" + document_.All()));
}

TEST_F(OnlineLive, WatchMarksChangesAndGoesOnWithoutTheDaemon) {
    std::atomic<int> step{0};
    Serve([&](const std::string&) {
        return step == 0 ? document_.All() : step == 1 ? document_.With("5000002", "5000022") : "";
    });
    Child pmctl = Start({"status", "--watch"});
    EXPECT_TRUE(WaitFor("\n  network "));
    EXPECT_EQ(Out().find("\n* "), std::string::npos);
    step = 1;
    EXPECT_TRUE(WaitFor("\n* network "));
    EXPECT_EQ(Out().find("\n* log"), std::string::npos);
    step = 2;
    EXPECT_TRUE(WaitFor("without an answer"));
    EXPECT_TRUE(pmctl.IsRunning());
}

TEST_F(OnlineLive, WatchRestoresTheTerminal) {
    Serve([&](const std::string&) { return document_.All(); });
    int terminal = -1;
    winsize size{.ws_row = 12, .ws_col = 60, .ws_xpixel = 0, .ws_ypixel = 0};
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        _exit(ExecutePmctl(Socket(), {"status", "--watch"}));
    }
    const Wire::UniqueFd owner(terminal);
    std::string shown;
    const auto readUntil = [&](const std::string& text) {
        for (char c = 0; shown.find(text) == std::string::npos && IsReadable(terminal);) {
            if (read(terminal, &c, 1) != 1) {
                break;
            }
            shown += c;
        }
        return shown.find(text) != std::string::npos;
    };
    EXPECT_TRUE(readUntil("and 11 more"));
    EXPECT_NE(shown.find("\x1b[?1049h\x1b[?25l"), std::string::npos);
    kill(pid, SIGINT);
    EXPECT_TRUE(readUntil("\x1b[?25h\x1b[?1049l"));
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(WTERMSIG(status), SIGINT);
}

}  // namespace
}  // namespace ProcMgr
