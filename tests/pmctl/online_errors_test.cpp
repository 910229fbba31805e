// Every way in which the daemon may not answer or may answer something else: exit code and text.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <future>

#include "tests/pmctl/fake_daemon.h"

namespace ProcMgr {
namespace {

using namespace Tests;

class OnlineErrors : public PmctlTest {
protected:
    void Expect(int code, const std::string& text, const std::string& command = "status") const {
        const Outcome outcome = Run({command});
        EXPECT_EQ(outcome.code, code);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.error, "pmctl: " + text + "\n");
    }
    // The same when the daemon sends `answer`.
    void ExpectOf(const std::string& answer, int code, const std::string& text) {
        Serve([&answer](const std::string&) { return answer; });
        Expect(code, text);
    }

    const Document document_{"status.json"};
};

TEST_F(OnlineErrors, SocketIsMissingOrDead) {
    Expect(3,
           "the status endpoint of process-manager is off or the daemon does not run: set status: "
           "{enable: true} in /etc/vela/base-plat/process-manager/procmgr_cfg.yaml and restart it");
    WriteFile(Socket(), "");
    Expect(3, "the daemon does not answer on " + Socket() + ": is it running?");
    const std::string path(200, 'x');
    const std::string error = directory_ / "error";
    Child child([&] {
        dup2(open(error.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC), STDERR_FILENO);
        return ExecutePmctl(path, {"status"});
    });
    EXPECT_EQ(child.ExitCode(), 2);
    EXPECT_EQ(ReadFile(error), "pmctl: not a usable socket path: '" + path + "'\n");
}

TEST_F(OnlineErrors, PermissionNamesTheGroup) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    Serve([](const std::string&) { return ""; });
    chmod(directory_.Path().c_str(), 0755);
    const auto run = [this](mode_t mode) {
        chmod(Socket().c_str(), mode);
        const std::string error = directory_ / "error";
        WriteFile(error, "", 0666);
        Child child(65534, 65534, [&] {
            dup2(open(error.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC), STDERR_FILENO);
            return ExecutePmctl(Socket(), {"status"});
        });
        EXPECT_EQ(child.ExitCode(), 4);
        return ReadFile(error);
    };
    const std::string begin = "pmctl: no permission for " + Socket() + ": become root";
    EXPECT_EQ(run(0660), begin + " or a member of group root\n");
    EXPECT_EQ(run(0600), begin + "\n");
}

TEST_F(OnlineErrors, AnswerIsCut) {
    ExpectOf("", 3,
             "the daemon has closed the connection on " + Socket() +
                 " without an answer: it is busy or stops; try again");
    ExpectOf(document_.All().substr(0, 1000), 3,
             "the answer of the daemon on " + Socket() + " ends after 1000 bytes: try again");
    ExpectOf(std::string((16U << 20U) + 1, ' ') + "\n", 5,
             "the answer on " + Socket() + " is longer than 16 MiB");
}

TEST_F(OnlineErrors, DaemonIsSilent) {
    std::promise<void> end;
    Serve([&end](const std::string&) {
        end.get_future().wait();
        return "";
    });
    Expect(3, "the daemon does not answer on " + Socket() + " within 5 s: try again");
    end.set_value();
}

TEST_F(OnlineErrors, AnswerIsNotUnderstood) {
    ExpectOf(document_.With("\"version\": 1,", "\"version\": 2,"), 5,
             "the daemon speaks version 2 of the status protocol, this pmctl version 1: use the "
             "pmctl that belongs to the daemon");
    ExpectOf("{\"version\":1,\"error\":\"unknown\\u001b request\"}\n", 5,
             "the daemon refuses the request: unknown\\x1b request");
    ExpectOf("hello\n", 5,
             "the daemon's answer is no JSON: does the socket belong to another program?");
    ExpectOf(std::string(100000, '[') + "\n", 5, "the daemon's answer is nested too deeply");
    ExpectOf("[]\n", 5, "the daemon's answer is not a JSON object");
}

TEST_F(OnlineErrors, FieldsAreNamed) {
    const auto expect = [this](const std::string& from, const std::string& to,
                               const std::string& text) {
        ExpectOf(document_.With(from, to), 5, text);
    };
    expect("\"pid\":5000002,", "", "the daemon's answer has no field services[1].pid");
    expect("\"pid\":5000002,", "\"pid\":\"\",",
           "the field services[1].pid of the daemon's answer is not a whole number in range");
    expect("\"pid\":5000002,", "\"pid\":-2,",
           "the field services[1].pid of the daemon's answer is not a number from 0");
    expect("\"monotonic_ns\":7300000000000", "\"monotonic_ns\":4611686018427387904",
           "the field clock.monotonic_ns of the daemon's answer is not a whole number in range");
    expect("\"depends\":[\"network\"]", "\"depends\":[\"network\",7]",
           "the field services[3].depends[1] of the daemon's answer is not a text");
    expect("\"memory\":\"/ctl/log\"", "\"memory\":null",
           "the field services[0].groups.other.memory of the daemon's answer is not a text");
    expect("\"cause\":\"restart\"", "\"cause\":[]",
           "the field events[2].cause of the daemon's answer is not a text");
}

}  // namespace
}  // namespace ProcMgr
