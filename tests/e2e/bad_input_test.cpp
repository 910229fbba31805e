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
        harness_.Log().Clear();
        Start(arguments);
        const auto status = harness_.WaitForExit(PATIENCE);
        ASSERT_TRUE(status);
        EXPECT_TRUE(WIFEXITED(*status));
        EXPECT_EQ(WEXITSTATUS(*status), 255);
        EXPECT_THAT(MaskedLines(), ElementsAre("3 " + line));
        harness_.KillAll();
    }
}

struct UnusableFile {
    const char* name;
    std::string yaml;
    std::vector<std::string> parts;  // of one error line
};

void PrintTo(const UnusableFile& file, std::ostream* out) {
    *out << file.name;
}

class UnusableFileTest : public E2e, public testing::WithParamInterface<UnusableFile> {};

TEST_P(UnusableFileTest, IsNamedAndTheDaemonStaysUp) {
    const auto& [name, yaml, parts] = GetParam();
    WriteFile(BASE_YAML, yaml);
    Start({BASE_YAML});
    ASSERT_TRUE(WaitForLine("PROCMGR : ParseYamlFile failed, ProcMgr return"));
    std::vector<std::string> errors;
    for (const std::string& line : harness_.Log().LinesAt(LOG_ERR)) {
        if (line.find(BASE_YAML) != std::string::npos) {
            errors.push_back(line);
        }
    }
    const std::vector<std::string>& wanted = parts;
    EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [&](const std::string& error) {
        return std::all_of(wanted.begin(), wanted.end(), [&](const std::string& part) {
            return error.find(part) != std::string::npos;
        });
    })) << testing::PrintToString(errors);
    EXPECT_TRUE(harness_.IsRunning());
    EXPECT_EQ(harness_.Log().Count(START_UP_END), 0U);
    EXPECT_EQ(harness_.Log().Count("Start baseApp"), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, UnusableFileTest,
    testing::Values(
        UnusableFile{"BrokenYaml",
                     "services:\n  - {name: a, bin: /bin/true}\n  - {name: b, bin: [/bin/true}\n",
                     {"base.yaml:3", "bin"}},
        UnusableFile{"OpenQuote",
                     "services:\n  - {name: a, bin: /bin/true}\n  - name: b\n    bin: '/bin/true\n"
                     "  - {name: c, bin: /bin/true}\n",
                     {"base.yaml:4"}},
        UnusableFile{
            "LoneQuote",
            "services:\n  - {name: a, bin: /bin/true}\n\"\n  - {name: b, bin: /bin/true}\n",
            {"base.yaml:3"}},
        UnusableFile{"MissingKey",
                     "services:\n  - {name: a, bin: /bin/true}\n\n  - name: b\n    uid: 1\n",
                     {"base.yaml:4", "bin"}},
        UnusableFile{"MissingName", "services:\n  - bin: /bin/true\n", {"base.yaml:2", "name"}},
        UnusableFile{"WrongType",
                     "services:\n  - name: a\n    bin: /bin/true\n    uid: many\n",
                     {"base.yaml:4", "uid"}},
        UnusableFile{"NameTwice",
                     "services:\n  - {name: a, bin: /bin/true}\n  - {name: a, bin: /bin/true}\n",
                     {"base.yaml:3", "name", "a"}}),
    [](const auto& file) { return std::string(file.param.name); });

TEST_F(BadInput, AFileThatOthersMayWriteIsNotUsed) {
    WriteFile(BASE_YAML, "services:\n" + Entry("a"));
    ASSERT_EQ(chmod(BASE_YAML, 0666), 0);
    Start({BASE_YAML});
    ASSERT_TRUE(WaitForLine("PROCMGR : ParseYamlFile failed, ProcMgr return"));
    EXPECT_THAT(harness_.Log().LinesAt(LOG_ERR), Contains(HasSubstr(BASE_YAML)));
}

TEST_F(BadInput, ACycleAndAnUnknownDependencyLeaveTheRestRunning) {
    Boot(Entry("free", "touch, " + In("free") + ", stay") +
         Entry("lone", "stay", "depends: [ghost]") + Entry("ring1", "stay", "depends: [ring2]") +
         Entry("ring2", "stay", "depends: [ring1]"));
    ASSERT_TRUE(WaitForLine("PROCMGR : EnableWatchDog flag=0"));
    const auto lines = MaskedLines();
    EXPECT_THAT(lines, Contains(AllOf(StartsWith("3 "), HasSubstr("ring1"), HasSubstr("ring2"))));
    EXPECT_THAT(lines, Contains("3 PROCMGR : lone 's dependcy ghost not find,"));
    EXPECT_THAT(lines, Contains("3 process-manager cur time:STAMP, start baseApp=lone failed"));
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists(In("free")); }));
    EXPECT_EQ(harness_.Log().Count("Start baseApp success"), 1U);
}

TEST_F(BadInput, AProgramThatCannotRunIsNamed) {
    WriteFile(In("plain_file"), "no program");
    WriteFile(In("broken"), "no program");
    ASSERT_EQ(chmod(In("broken").c_str(), 0755), 0);
    Boot(std::string("  - {name: absent, bin: /run/e2e/none}\n  - {name: plain, bin: "
                     "/run/e2e/plain_file}\n") +
         "  - {name: broken, bin: /run/e2e/broken}\n" + Entry("shelly", "\"a;b\"") +
         Entry("nobody", "stay", "uid: 4711") + Entry("next", "stay", "depends: [other]") +
         Entry("other"));
    ASSERT_TRUE(WaitForLine("PROCMGR : EnableWatchDog flag=0"));
    const auto lines = MaskedLines();
    for (const char* line :
         {"3 PROCMGR : Start App=absent failed, binPath=/run/e2e/none is not existed !!!",
          "3 PROCMGR : Start App=plain failed, cfg uid is root, but binPath=/run/e2e/plain_file "
          "uid=0 not have x permission !!",
          "3 PROCMGR : Start App=nobody failed, cfg uid=4711, but binPath=/run/e2e/test_service "
          "uid=0, gid=0 not have x permission !!",
          "3 PROCMGR : CheckChildProParas App=shelly arguments include illegal str",
          "3 process-manager cur time:STAMP, start baseApp=absent failed"}) {
        EXPECT_THAT(lines, Contains(line));
    }
    // What is no program after all is found out by the child.
    EXPECT_TRUE(WaitForLine("app=broken,pid="));
    EXPECT_TRUE(WaitForLine("execv failed, execPath_=/run/e2e/broken, errno=8;"));
    EXPECT_TRUE(WaitForLine("PROCMGR : STARTING to RUNNING appName=next"));
}

TEST_F(BadInput, ARunDirectoryThatCannotBeMadeIsNamed) {
    WriteFile("/run/muxa", "in the way");
    Boot(Entry("reporter", "stay", "reporting: true") + Entry("zz", "touch, " + In("zz")));
    ASSERT_TRUE(WaitForLine("PROCMGR : EnableWatchDog flag=0"));
    const auto lines = MaskedLines();
    EXPECT_THAT(lines, Contains("3 PROCMGR : procname=reporter RegisterService failed"));
    EXPECT_THAT(lines, Contains(StartsWith("3 PROCMGR : RegServiceCallBack failed!! ret=-20")));
    EXPECT_THAT(lines, Contains(AllOf(StartsWith("3 "), HasSubstr("/run/muxa"))));
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists(In("zz")); }));
}

}  // namespace
