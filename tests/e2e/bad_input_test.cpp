// Arguments, manifests and programs that the daemon cannot use: each is named in the log.
#include "tests/e2e/e2e_fixture.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

using BadInput = E2e;

TEST_F(BadInput, ArgumentErrorsEndTheDaemon) {
    const std::string longPath(4097, '/');
    const struct {
        std::vector<std::string> arguments;
        std::string line;
    } cases[] = {
        {{}, "ProcMgr: intput argc num is < 2, please input baseService yaml config path"},
        {{"/run/e2e/absent.yaml"},
         "ProcMgr: StandardizationPath failed, path: /run/e2e/absent.yaml"},
        {{longPath}, "ProcMgr: StandardizationPath failed, path: " + longPath},
        {{""}, "ProcMgr: StandardizationPath failed, path: "},
    };
    for (const auto& [arguments, line] : cases) {
        harness_.Start(arguments);
        const auto status = harness_.WaitForExit();
        ASSERT_TRUE(status);
        EXPECT_TRUE(WIFEXITED(*status));
        EXPECT_EQ(WEXITSTATUS(*status), 255);
        EXPECT_THAT(MaskedLines(), ElementsAre("3 " + line));
        EndRun();
    }
}

TEST_F(BadInput, AnUnusableFileIsNamedAndTheDaemonStaysUp) {
    WriteFile(BASE_YAML, "services:\n" + Entry("a") + "\n  - name: b\n    uid: 1\n");
    harness_.Start({BASE_YAML});
    ASSERT_TRUE(WaitForLine("PROCMGR : ParseYamlFile failed, ProcMgr return"));
    EXPECT_THAT(MaskedLines(),
                Contains(AllOf(StartsWith("3 "), HasSubstr("base.yaml:4"), HasSubstr("bin"))));
    EXPECT_EQ(Log().Count(START_UP_END), 0U);
    EXPECT_EQ(Log().Count("Start baseApp"), 0U);
}

TEST_F(BadInput, ServicesThatCannotRunAreNamedAndLeaveTheRestRunning) {
    WriteFile(In("broken"), "no program", 0755);
    Boot(std::string("  - {name: absent, bin: /run/e2e/none}\n") +
         "  - {name: broken, bin: /run/e2e/broken}\n" + Entry("shelly", "\"a;b\"") +
         Entry("lone", "stay", "depends: [ghost]") + Entry("ring1", "stay", "depends: [ring2]") +
         Entry("ring2", "stay", "depends: [ring1]") + Entry("next", "stay", "depends: [other]") +
         Entry("other"));
    ASSERT_TRUE(WaitForLine("PROCMGR : EnableWatchDog flag=0"));
    const auto lines = MaskedLines();
    for (const char* line :
         {"3 PROCMGR : Start App=absent failed, binPath=/run/e2e/none is not existed !!!",
          "3 process-manager cur time:STAMP, start baseApp=absent failed",
          "3 PROCMGR : CheckChildProParas App=shelly arguments include illegal str",
          "3 PROCMGR : lone 's dependcy ghost not find,",
          "3 process-manager cur time:STAMP, start baseApp=lone failed"}) {
        EXPECT_THAT(lines, Contains(line));
    }
    EXPECT_THAT(lines, Contains(AllOf(StartsWith("3 "), HasSubstr("ring1"), HasSubstr("ring2"))));
    // Only the child finds that a file with the x permission is no program.
    EXPECT_TRUE(WaitForLine("app=broken,pid="));
    EXPECT_TRUE(WaitForLine("execv failed, execPath_=/run/e2e/broken, errno=8;"));
    EXPECT_TRUE(WaitForLine("PROCMGR : STARTING to RUNNING appName=next"));
    EXPECT_EQ(Log().Count("Start baseApp success"), 3U) << "broken, next and other";
}

TEST_F(BadInput, ARunDirectoryThatCannotBeMadeIsNamed) {
    WriteFile("/run/muxa", "in the way");
    Boot(Entry("reporter", "stay", "reporting: true") + Entry("zz", "touch, " + In("zz")));
    ASSERT_TRUE(WaitForLine("PROCMGR : EnableWatchDog flag=0"));
    const auto lines = MaskedLines();
    EXPECT_THAT(lines, Contains("3 PROCMGR : procname=reporter RegisterService failed"));
    EXPECT_THAT(lines, Contains(StartsWith("3 PROCMGR : RegServiceCallBack failed!! ret=-20")));
    EXPECT_THAT(lines, Contains(AllOf(StartsWith("3 "), HasSubstr("/run/muxa"))));
    EXPECT_TRUE(WaitForFile("zz"));
}

}  // namespace
