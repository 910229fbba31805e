#include "platform/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "platform/host/manifest_keys.h"
#include "tests/support/syslog_sink.h"

namespace ProcMgr {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

class ManifestTest : public testing::Test {
protected:
    void SetUp() override {
        if (!sink_.IsReady()) {
            GTEST_SKIP() << sink_.Error();
        }
        char path[] = "/tmp/manifest-test-XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        directory_ = path;
    }
    void TearDown() override {
        if (!directory_.empty()) {
            std::filesystem::remove_all(directory_);
        }
    }

    std::string Write(const std::string& name, const std::string& text) {
        const std::filesystem::path path = std::filesystem::path(directory_) / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
        EXPECT_EQ(chmod(path.c_str(), 0644), 0);
        return path.string();
    }

    bool Parse(const std::string& path) {
        manifests_.clear();
        return parser_.ParseYaml(0, path, manifests_, scratch_) == 0;
    }
    // One service with name, bin and the given further lines.
    bool ParseService(const std::string& lines) {
        return Parse(Write("main.yaml", "services:\n- name: a\n  bin: /bin/a\n" + lines));
    }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const ApplicationManifest& manifest : manifests_) {
            names.push_back(manifest.GetAppName());
        }
        return names;
    }

    SyslogSink sink_;
    std::string directory_;
    ParseAndDepend parser_;
    std::vector<ApplicationManifest> manifests_;
    std::set<std::string> scratch_;
};

TEST_F(ManifestTest, EntryWithoutOptionalKeysHasTheDefaults) {
    ASSERT_TRUE(ParseService(""));
    ASSERT_THAT(manifests_, SizeIs(1));
    const ApplicationManifest& manifest = manifests_[0];
    EXPECT_EQ(manifest.GetManifestList(), ManifestList::SERVICES);
    EXPECT_EQ(manifest.GetCfgPath(), directory_ + "/main.yaml");
    EXPECT_EQ(manifest.GetAppName(), "a");
    EXPECT_EQ(manifest.GetBinPath(), "/bin/a");
    EXPECT_EQ(manifest.GetRestart(), "no");
    EXPECT_EQ(manifest.GetTermTimeOut(), 5000U);
    EXPECT_TRUE(manifest.GetIsForceTerm());
    EXPECT_EQ(manifest.GetStartupPriority(), -1);
    EXPECT_EQ(manifest.GetVfId(), -1);
    EXPECT_EQ(manifest.GetUid(), 0U);
    EXPECT_FALSE(manifest.GetIsReporting() || manifest.GetIsDelayCoreAffinity() ||
                 manifest.GetHeartBeatSwitch() || manifest.GetIsDynamicPara());
    EXPECT_THAT(manifest.GetArguments(), IsEmpty());
    EXPECT_THAT(sink_.Lines(), IsEmpty());
}

// Each value differs from its default and from its neighbours, so that a swapped key is seen.
TEST_F(ManifestTest, EveryKeyReachesItsGetter) {
    ASSERT_TRUE(Parse(Write("main.yaml", R"yaml(applications:
- name: app
  bin: match(/usr/bin/(x|y))
  args: [--level, 7, "", 'match([0-9]+)']
  env: {HOME: /root, LEVEL: 3, FREE: "match(.*)"}
  uid: 4294967294
  gid: 0x10
  depends: [b, a, b]
  reporting: yes
  restart: on-until-succeed
  term_timeout: 4294967295
  force_term: false
  nice: -20
  core_affinity: [255, 3, 1023]
  delay_core_affinity: on
  resource_group: rg
  cpuset: cs
  blkio_group: bg
  cgroups: {memory: m, cpu: c}
  set_rt_prio: 50
  set_rt_type: SCHED_RR
  security_context: sc
  node_type: 1538
  numa_type: 2
  startup_priority: -7
  startup_entry: /entry
  heartbeat: TRUE
  sharepool_groups: [{group: g1, access: read}, {access: read-write, group: g2}]
  vf_id: 5
  dynamic: true
  match: {slot: 1, mode: fast}
)yaml")));
    ASSERT_THAT(sink_.Lines(), IsEmpty());
    ASSERT_THAT(manifests_, SizeIs(1));
    const ApplicationManifest& manifest = manifests_[0];
    EXPECT_EQ(manifest.GetManifestList(), ManifestList::APPLICATIONS);
    EXPECT_EQ(manifest.GetBinPath(), "match(/usr/bin/(x|y))");
    EXPECT_THAT(manifest.GetArguments(), ElementsAre("--level", "7", "", "match([0-9]+)"));
    EXPECT_THAT(manifest.GetEnvArgv(),
                ElementsAre(Pair("FREE", "match(.*)"), Pair("HOME", "/root"), Pair("LEVEL", "3")));
    EXPECT_EQ(manifest.GetUid(), 4294967294U);
    EXPECT_EQ(manifest.GetGid(), 16U);
    EXPECT_THAT(manifest.GetDependList(), ElementsAre("a", "b"));
    EXPECT_TRUE(manifest.GetIsReporting());
    EXPECT_EQ(manifest.GetRestart(), "on-until-succeed");
    EXPECT_EQ(manifest.GetTermTimeOut(), std::numeric_limits<uint32_t>::max());
    EXPECT_FALSE(manifest.GetIsForceTerm());
    EXPECT_EQ(manifest.GetNice(), -20);
    EXPECT_THAT(manifest.GetCoreAffinity(), ElementsAre(255U, 3U, 1023U));
    EXPECT_TRUE(manifest.GetIsDelayCoreAffinity());
    EXPECT_EQ(manifest.GetResGroupName(), "rg");
    EXPECT_EQ(manifest.GetCpuset(), "cs");
    EXPECT_EQ(manifest.GetBlkioGroupName(), "bg");
    EXPECT_THAT(manifest.GetCGroupPath(), ElementsAre(Pair("cpu", "c"), Pair("memory", "m")));
    EXPECT_EQ(manifest.GetSetRtPrio(), "50");
    EXPECT_EQ(manifest.GetSetRtType(), "SCHED_RR");
    EXPECT_EQ(manifest.GetSecurityCon(), "sc");
    EXPECT_EQ(manifest.GetNodeType(), 1538U);
    EXPECT_EQ(manifest.GetNumaType(), 2U);
    EXPECT_EQ(manifest.GetStartupPriority(), -7);
    EXPECT_EQ(manifest.GetStartupEntryPath(), "/entry");
    EXPECT_TRUE(manifest.GetHeartBeatSwitch());
    EXPECT_THAT(manifest.GetSharepoolGroups(),
                ElementsAre(Pair("g1", "read"), Pair("g2", "read-write")));
    EXPECT_EQ(manifest.GetVfId(), 5);
    EXPECT_EQ(manifest.GetVfIdPattern(), "");
    EXPECT_TRUE(manifest.GetIsDynamicPara());
    EXPECT_THAT(manifest.GetMatchData(), ElementsAre(Pair("mode", "fast"), Pair("slot", "1")));

    ASSERT_TRUE(ParseService("  vf_id: match([0-9])\n"));
    EXPECT_EQ(manifests_[0].GetVfIdPattern(), "match([0-9])");
    EXPECT_EQ(manifests_[0].GetVfId(), -1);
}

TEST_F(ManifestTest, TableOfKeysIsWhole) {
    // A key that is added needs its line in EveryKeyReachesItsGetter and in the manual.
    EXPECT_THAT(ManifestKeys(), SizeIs(30));
    EXPECT_EQ(FindManifestKey("match", ManifestList::SERVICES), nullptr);
    EXPECT_NE(FindManifestKey("match", ManifestList::APPLICATIONS), nullptr);
}

struct WrongEntry {
    const char* lines;    // behind name (line 2) and bin (line 3)
    const char* where;    // "LINE: key 'KEY': " or what stands in its place
    const char* problem;  // part of the message
};

TEST_F(ManifestTest, WrongValuesAreOneErrorWithFileLineAndKey) {
    const std::string longName(128, 'n');
    const std::string withLongName = "- {name: " + longName + ", bin: /b}\n";
    const std::vector<WrongEntry> cases{
        {"  uid: -1\n", "4: key 'uid': ", "from 0 to 4294967294"},
        {"  uid: 4294967295\n", "4: key 'uid': ", "from 0 to 4294967294"},
        {"  gid: 99999999999999999999999\n", "4: key 'gid': ", "from 0 to 4294967294"},
        {"  uid: 010\n", "4: key 'uid': ", "whole number"},
        {"  uid: 1.5\n", "4: key 'uid': ", "whole number"},
        {"  uid: 0x\n", "4: key 'uid': ", "whole number"},
        {"  uid: +-1\n", "4: key 'uid': ", "whole number"},
        {"  uid: root\n", "4: key 'uid': ", "whole number"},
        {"  uid:\n  gid: 1\n", "4: key 'uid': ", "got nothing"},
        {"  uid: [0]\n", "4: key 'uid': ", "got a list"},
        {"  nice: 20\n", "4: key 'nice': ", "from -20 to 19"},
        {"  nice: -21\n", "4: key 'nice': ", "from -20 to 19"},
        {"  term_timeout: 4294967296\n", "4: key 'term_timeout': ", "to 4294967295"},
        {"  startup_priority: 2147483648\n", "4: key 'startup_priority': ", "to 2147483647"},
        {"  vf_id: first\n", "4: key 'vf_id': ", "whole number"},
        {"  core_affinity: [1, 1024]\n", "4: key 'core_affinity': ", "element 2: "},
        {"  core_affinity: 1\n", "4: key 'core_affinity': ", "expected a list, got text"},
        {"  reporting: maybe\n", "4: key 'reporting': ", "true or false"},
        {"  reporting: 1\n", "4: key 'reporting': ", "true or false"},
        {"  restart: always\n", "4: key 'restart': ", "on-until-succeed"},
        {"  args: --verbose\n", "4: key 'args': ", "expected a list"},
        {"  args:\n  - ok\n  - [x]\n", "6: key 'args': ", "element 2: expected text"},
        {"  env: [A=1]\n", "4: key 'env': ", "expected a mapping"},
        {"  env: {A: {B: c}}\n", "4: key 'env': ", "element 'A': expected text"},
        {"  env: {A=B: c}\n", "4: key 'env': ", "no '='"},
        {"  env: {A: 'match([)'}\n", "4: key 'env': ", "unusable pattern"},
        {"  args: ['match(a)|(b)']\n", "4: key 'args': ", "unusable pattern"},
        {"  vf_id: match([0-)\n", "4: key 'vf_id': ", "unusable pattern"},
        {"  args: ['match((((a{255}){255}){255}))']\n", "4: key 'args': ", "too much"},
        {"  depends: [ok, 'a b']\n", "4: key 'depends': ", "element 2: a name holds no"},
        {"  sharepool_groups: [{group: g}]\n", "4: key 'sharepool_groups': ", "'access'"},
        {"  sharepool_groups: [g]\n", "4: key 'sharepool_groups': ", "expected a mapping"},
        {"  uid: 1\n  uid: 2\n", "5: near key 'uid': ", "stands twice"},
        {"- bin: /bin/b\n", "4: key 'name': ", "missing"},
        {"- name: b\n", "4: key 'bin': ", "missing"},
        {"- name: b\n  bin: relative\n", "5: key 'bin': ", "absolute path"},
        {"- name: b\n  bin: match(\n", "5: key 'bin': ", "absolute path"},
        {"- name: ''\n  bin: /b\n", "4: key 'name': ", "1 to 127"},
        {withLongName.c_str(), "4: key 'name': ", "1 to 127"},
        {"- name: a/b\n  bin: /b\n", "4: key 'name': ", "holds no"},
        {"- name: \"a\\x7fb\"\n  bin: /b\n", "4: key 'name': ", "holds no"},
        {"- name: \"a\\x85b\"\n  bin: /b\n", "4: key 'name': ", "holds no"},
        {"- name: \"a\\nFORGED\"\n  bin: /b\n", "4: key 'name': ", "holds no"},
        {"- name: a\n  bin: /b\n", "4: key 'name': ", "main.yaml:2"},
        {"- text\n", "4: key 'services': ", "element 2: expected a mapping"},
        {"applications:\n- name: a\n  bin: /b\n", "5: key 'name': ", "main.yaml:2"},
    };
    for (const WrongEntry& wrong : cases) {
        SCOPED_TRACE(wrong.lines);
        sink_.Clear();
        EXPECT_FALSE(ParseService(wrong.lines));
        EXPECT_THAT(manifests_, IsEmpty());
        EXPECT_THAT(sink_.Lines(), SizeIs(1));
        EXPECT_THAT(sink_.LinesAt(LOG_ERR),
                    ElementsAre(AllOf(StartsWith(directory_ + "/main.yaml:" + wrong.where),
                                      HasSubstr(wrong.problem))));
    }
}

TEST_F(ManifestTest, BrokenFilesAreOneErrorAndNeverMore) {
    const std::string deep(20000, '[');
    std::string bomb = "x:\n- &a0 [y, y, y, y, y, y, y, y, y, y]\n";
    for (int i = 1; i < 12; ++i) {
        const std::string last = "*a" + std::to_string(i - 1);
        bomb += "- &a" + std::to_string(i) + " [" + last;
        for (int j = 1; j < 10; ++j) {
            bomb += ", " + last;
        }
        bomb += "]\n";
    }
    const std::vector<std::pair<std::string, std::string>> cases{
        {"services: [", "invalid YAML"},
        {"services:\n\t- x", "invalid YAML"},
        {"services: *nowhere", "invalid YAML"},
        {"services: []\n]", "2: near key 'services': invalid YAML"},
        {"services: []\n---\nservices: []\n", "2: near key 'services': more than one document"},
        {deep, "nested too deeply"},
        {std::string(20000, '{'), ""},
        {bomb, "too large"},
        {"services: &s [*s]", "inside its own anchor"},
        {"? [a]\n: b\n", "a key is not text"},
        {"services: []\nservices: []\n", "stands twice"},
        {std::string("services: []\n\0x", 15), "2: not a text file"},
        {"services: []\n\x04- x", "2: not a text file"},
        {"services: [{name: \"a\\0b\", bin: /b}]", "NUL"},
        {"- a\n", "1: expected a mapping"},
        {"text", "1: expected a mapping"},
        {"services: text", "1: key 'services': expected a list"},
        {"services:\n", "1: key 'services': expected a list, got nothing"},
        {"include: other.yaml", "1: key 'include': expected a list"},
        {"include: [{a: b}]", "1: key 'include': element 1: expected text"},
    };
    for (const auto& [text, problem] : cases) {
        SCOPED_TRACE(text.substr(0, 60));
        sink_.Clear();
        EXPECT_FALSE(Parse(Write("main.yaml", text)));
        EXPECT_THAT(sink_.Lines(), SizeIs(1));
        EXPECT_THAT(sink_.LinesAt(LOG_ERR), ElementsAre(HasSubstr(problem)));
    }
    for (const char* empty : {"", "# nothing yet\n", "---\n...\n", "{}", "services: []"}) {
        sink_.Clear();
        EXPECT_TRUE(Parse(Write("main.yaml", empty))) << empty;
        EXPECT_THAT(sink_.Lines(), IsEmpty());
    }
}

TEST_F(ManifestTest, UnknownKeysAreWarningsAndIgnored) {
    ASSERT_TRUE(Parse(Write("main.yaml", R"yaml(version: 2
services:
- name: a
  colour: blue
  bin: /bin/a
  match: {x: y}
  sharepool_groups: [{group: g, access: read, size: 1}]
)yaml")));
    EXPECT_THAT(Names(), ElementsAre("a"));
    EXPECT_THAT(manifests_[0].GetMatchData(), IsEmpty());
    const std::string file = directory_ + "/main.yaml";
    EXPECT_THAT(sink_.LinesAt(LOG_WARNING),
                testing::UnorderedElementsAre(
                    file + ":1: key 'version': unknown key, ignored",
                    file + ":4: key 'colour': unknown key, ignored",
                    file + ":6: key 'match': not a key of a service, ignored",
                    file + ":7: key 'sharepool_groups': element 1: element 'size': unknown key, "
                           "ignored"));
    EXPECT_THAT(sink_.Lines(), SizeIs(4));
}

TEST_F(ManifestTest, AliasesStandForTheirAnchors) {
    ASSERT_TRUE(Parse(Write("main.yaml", R"yaml(services:
- name: a
  bin: /bin/a
  env: &common {PATH: /bin}
- {name: b, bin: /bin/b, env: *common}
)yaml")));
    ASSERT_THAT(Names(), ElementsAre("a", "b"));
    EXPECT_THAT(manifests_[1].GetEnvArgv(), ElementsAre(Pair("PATH", "/bin")));
}

TEST_F(ManifestTest, IncludesComeFirstAndOnce) {
    Write("common.yaml", "services: [{name: common, bin: /b}]\n");
    Write("sub/one.yaml", "include: [../common.yaml]\nservices: [{name: one, bin: /b}]\n");
    const std::string two =
        Write("two.yaml", "applications: [{name: two, bin: /b}]\ninclude: [common.yaml]\n");
    const std::string main = Write("main.yaml",
                                   "applications: [{name: last, bin: /b}]\n"
                                   "services: [{name: main, bin: /b}]\n"
                                   "include: [sub/one.yaml, " +
                                       two + ", sub/../two.yaml]\n");
    ASSERT_TRUE(Parse(main));
    EXPECT_THAT(Names(), ElementsAre("common", "one", "two", "last", "main"));
    EXPECT_EQ(manifests_[1].GetCfgPath(), directory_ + "/sub/one.yaml");
    EXPECT_EQ(manifests_[2].GetCfgPath(), two);
    EXPECT_EQ(manifests_[2].GetManifestList(), ManifestList::APPLICATIONS);
    EXPECT_EQ(manifests_[3].GetCfgPath(), main);
    EXPECT_THAT(scratch_, SizeIs(4));
    EXPECT_TRUE(scratch_.contains(main));
    // What the caller's set holds from before changes nothing.
    ASSERT_TRUE(Parse(main));
    EXPECT_THAT(manifests_, SizeIs(5));
}

TEST_F(ManifestTest, BrokenIncludesNameWhereTheyAreAskedFor) {
    const std::string main = directory_ + "/main.yaml";
    Write("loop.yaml", "include: [main.yaml]\n");
    Write("bad.yaml", "services:\n- name: b\n");
    Write("same.yaml", "applications: [{name: a, bin: /b}]\n");
    ASSERT_TRUE(std::filesystem::create_directory(directory_ + "/dir"));
    struct Case {
        const char* include;
        std::string error;
    };
    const std::vector<Case> cases{
        {"loop.yaml", directory_ + "/loop.yaml:1: key 'include': " + directory_ +
                          "/main.yaml: the file includes itself"},
        {"main.yaml", main + ":3: key 'include': " + main + ": the file includes itself"},
        {"none.yaml", main + ":3: key 'include': " + directory_ + "/none.yaml: cannot be opened"},
        {"dir", main + ":3: key 'include': " + directory_ + "/dir: it is a directory"},
        {"''", main + ":3: key 'include': element 1: expected text that is not empty"},
        {"bad.yaml", directory_ + "/bad.yaml:2: key 'bin': missing in the entry 'b'"},
        {"same.yaml", main + ":5: key 'name': 'a' is also the name of the entry at " + directory_ +
                          "/same.yaml:1"},
    };
    for (const Case& wrong : cases) {
        SCOPED_TRACE(wrong.include);
        sink_.Clear();
        Write("main.yaml", "# main\ninclude:\n- " + std::string(wrong.include) +
                               "\nservices:\n- {name: a, bin: /b}\n");
        EXPECT_FALSE(Parse(main));
        EXPECT_THAT(sink_.Lines(), ElementsAre(HasSubstr(wrong.error)));
    }
    for (int i = 0; i < 40; ++i) {
        Write("chain" + std::to_string(i) + ".yaml",
              "include: [chain" + std::to_string(i + 1) + ".yaml]\n");
    }
    sink_.Clear();
    EXPECT_FALSE(Parse(directory_ + "/chain0.yaml"));
    EXPECT_THAT(sink_.Lines(), ElementsAre(HasSubstr("nested more than 16 deep")));
}

TEST_F(ManifestTest, OnlyRootMayDecideWhatRuns) {
    const std::string file = Write("main.yaml", "services: [{name: a, bin: /b}]\n");
    struct Case {
        mode_t mode;
        uid_t owner;
        const char* problem;  // null: accepted
    };
    const std::vector<Case> cases{{0644, 0, nullptr},
                                  {0600, 0, nullptr},
                                  {0664, 0, "writable by group or others"},
                                  {0646, 0, "writable by group or others"},
                                  {0644, 1000, "belongs to uid 1000"}};
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files away";
    }
    for (const bool included : {false, true}) {
        const std::string main = included ? Write("top.yaml", "include: [main.yaml]\n") : file;
        for (const Case& wanted : cases) {
            SCOPED_TRACE(testing::Message() << std::oct << wanted.mode << " " << wanted.owner);
            sink_.Clear();
            ASSERT_EQ(chmod(file.c_str(), wanted.mode), 0);
            ASSERT_EQ(chown(file.c_str(), wanted.owner, 0), 0);
            EXPECT_EQ(Parse(main), wanted.problem == nullptr);
            if (wanted.problem != nullptr) {
                EXPECT_THAT(sink_.LinesAt(LOG_ERR), ElementsAre(HasSubstr(wanted.problem)));
            }
        }
        ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
    }
}

TEST_F(ManifestTest, UnreadableFilesAreErrors) {
    const std::string fifo = directory_ + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string big = Write("big.yaml", std::string((size_t{1} << 20) + 1, '#'));
    for (const auto& [path, problem] :
         std::vector<std::pair<std::string, std::string>>{{directory_ + "/none", "No such file"},
                                                          {"", "No such file"},
                                                          {directory_, "it is a directory"},
                                                          {fifo, "not a regular file"},
                                                          {big, "larger than"}}) {
        sink_.Clear();
        EXPECT_FALSE(Parse(path));
        EXPECT_THAT(sink_.LinesAt(LOG_ERR), ElementsAre(HasSubstr(problem)));
    }
}

TEST_F(ManifestTest, FailureLeavesEverythingAsItWas) {
    const std::string good =
        Write("good.yaml", "services: [{name: a, bin: /b, depends: [b]}, {name: b, bin: /b}]\n");
    // "a" without its dependency, and then an error.
    const std::string bad =
        Write("bad.yaml", "services: [{name: a, bin: /b}, {name: x, bin: /b, uid: x}]\n");
    ASSERT_EQ(parser_.ParseYaml(0, good, manifests_, scratch_), 0);
    const std::set<std::string> files = scratch_;
    EXPECT_NE(parser_.ParseYaml(0, bad, manifests_, scratch_), 0);
    EXPECT_THAT(Names(), ElementsAre("a", "b"));
    EXPECT_EQ(scratch_, files);
    DependGraph graph;
    ASSERT_EQ(parser_.GetStartGraph({"a", "b"}, graph), 0);
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("b"));
    // A second load appends.
    const std::string more = Write("more.yaml", "services: [{name: c, bin: /b}]\n");
    ASSERT_EQ(parser_.ParseYaml(0, more, manifests_, scratch_), 0);
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c"));
}

TEST_F(ManifestTest, MessagesCannotForgeLines) {
    EXPECT_FALSE(ParseService("  restart: \"x\\n<0>PANIC\"\n"));
    EXPECT_THAT(sink_.Lines(), ElementsAre(HasSubstr("'x?<0>PANIC'")));
    sink_.Clear();
    EXPECT_FALSE(ParseService("  restart: " + std::string(100000, 'x') + "\n"));
    EXPECT_THAT(sink_.Lines(), ElementsAre(HasSubstr("xxx...'")));
}

}  // namespace
}  // namespace ProcMgr
