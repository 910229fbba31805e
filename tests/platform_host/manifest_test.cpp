#include "platform/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/diagnostics.h"
#include "platform/host/manifest_keys.h"
#include "tests/support/private_mounts.h"

namespace ProcMgr {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

// Names in the order in which rounds of free vertices come out; "|" between rounds.
std::string Order(DependGraph graph) {
    std::string order;
    for (auto free = graph.GetNoDependVertices(); !free.empty();
         free = graph.GetNoDependVertices()) {
        order += order.empty() ? "" : "|";
        for (const std::string& name : std::set<std::string>(free.begin(), free.end())) {
            order += name;
            graph.Pop(name);
        }
    }
    return order + (graph.IsEmpty() ? "" : "!");
}

// What the library says, with levels.
class DiagnosticCapture {
public:
    DiagnosticCapture() {
        Clear();
        SetDiagnosticSink([](int level, const char* text) { lines.emplace_back(level, text); });
    }
    ~DiagnosticCapture() { SetDiagnosticSink(nullptr); }
    DiagnosticCapture(const DiagnosticCapture&) = delete;
    DiagnosticCapture& operator=(const DiagnosticCapture&) = delete;

    static void Clear() { lines.clear(); }
    static std::vector<std::string> Lines() { return LinesAt(-1); }
    static std::vector<std::string> LinesAt(int wanted) {
        std::vector<std::string> found;
        for (const auto& [level, text] : lines) {
            found.insert(found.end(), wanted == -1 || level == wanted ? 1 : 0, text);
        }
        return found;
    }

private:
    static inline std::vector<std::pair<int, std::string>> lines;
};

class ManifestTest : public testing::Test {
protected:
    void SetUp() override {
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

    void ExpectRefused(const std::string& path, const std::string& problem) {
        sink_.Clear();
        EXPECT_FALSE(Parse(path));
        EXPECT_THAT(sink_.LinesAt(LOG_ERR), ElementsAre(HasSubstr(problem))) << path;
    }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const ApplicationManifest& manifest : manifests_) {
            names.push_back(manifest.GetAppName());
        }
        return names;
    }

    // The graph of `names`, or of all the services, as Order() has it.
    std::string OrderOf(const std::vector<std::pair<std::string, std::string>>& services,
                        std::vector<std::string> names = {}) {
        std::string text = "services:\n";
        for (const auto& [name, depends] : services) {
            text += "- {name: " + name + ", bin: /b, depends: [" + depends + "]}\n";
        }
        EXPECT_TRUE(Parse(Write("main.yaml", text)));
        DependGraph graph;
        graph.Add("left over", {"from before"});
        EXPECT_EQ(parser_.GetStartGraph(names.empty() ? Names() : names, graph), 0);
        return Order(graph);
    }

    DiagnosticCapture sink_;
    std::string directory_;
    ParseAndDepend parser_;
    std::vector<ApplicationManifest> manifests_;
    std::set<std::string> scratch_;
};

TEST_F(ManifestTest, EntryWithoutOptionalKeysHasTheDefaults) {
    ASSERT_TRUE(ParseService(""));
    ASSERT_THAT(Names(), ElementsAre("a"));
    const ApplicationManifest& manifest = manifests_[0];
    EXPECT_EQ(manifest.GetManifestList(), ManifestList::SERVICES);
    EXPECT_EQ(manifest.GetCfgPath(), directory_ + "/main.yaml");
    EXPECT_EQ(manifest.GetRestart(), "no");
    EXPECT_EQ(manifest.GetTermTimeOut(), 5000U);
    EXPECT_TRUE(manifest.GetIsForceTerm());
    EXPECT_EQ(manifest.GetStartupPriority(), -1);
    EXPECT_EQ(manifest.GetVfId(), -1);
    EXPECT_FALSE(manifest.GetIsReporting() || manifest.GetIsDelayCoreAffinity() ||
                 manifest.GetHeartBeatSwitch() || manifest.GetIsDynamicPara());
    EXPECT_THAT(sink_.Lines(), IsEmpty());
}

TEST_F(ManifestTest, GroupIsThePrimaryOneOfTheUserUnlessGiven) {
    if (!EnterPrivateMountNamespace()) {
        GTEST_SKIP() << "no private mount namespace here";
    }
    // The record of the first user is longer than any buffer that one would start with.
    BindFile("root:x:0:5::/:/bin/sh\nlong:x:1001:2002:" + std::string(9000, 'l') +
                 ":/:/bin/sh\nother:x:1002:3003::/:/bin/sh\n",
             "/etc/passwd");
    const std::pair<const char*, uint32_t> cases[] = {
        {"  uid: 1001\n", 2002},        {"  uid: 1002\n", 3003},
        {"  uid: 1003\n", 0},           {"", 5},
        {"  gid: 0\n  uid: 1001\n", 0}, {"  uid: 1001\n  gid: 7\n", 7}};
    for (const auto& [lines, group] : cases) {
        ASSERT_TRUE(ParseService(lines));
        EXPECT_EQ(manifests_[0].GetGid(), group) << lines;
    }
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
  startup_priority: 7
  startup_entry: /entry
  heartbeat: TRUE
  sharepool_groups: [{group: g1, access: read}, {access: read-write, group: g2}]
  vf_id: 5
  dynamic: true
  match: {slot: 1, mode: fast}
)yaml")));
    ASSERT_THAT(sink_.Lines(), IsEmpty());
    ASSERT_THAT(Names(), ElementsAre("app"));
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
    EXPECT_EQ(manifest.GetStartupPriority(), 7);
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
    // A key that is added needs its line above and in the manual.
    EXPECT_THAT(PlatformHost::ManifestKeys(), SizeIs(30));
}

TEST_F(ManifestTest, WrongValuesAreOneErrorWithFileLineAndKey) {
    const struct {
        std::string lines;  // behind name (line 2) and bin (line 3)
        std::string where;
        std::string problem;
    } cases[] = {
        {"  uid: -1\n", "4: key 'uid': ", "from 0 to 4294967294"},
        {"  uid: 010\n", "4: key 'uid': ", "whole number"},
        {"  uid: [0]\n", "4: key 'uid': ", "got a list"},
        {"  term_timeout: 4294967296\n", "4: key 'term_timeout': ", "to 4294967295"},
        {"  startup_priority: -2\n", "4: key 'startup_priority': ", "from -1 to 2147483647"},
        {"  core_affinity: [1, 1024]\n", "4: key 'core_affinity': ", "element 2: "},
        // Messages cannot forge lines, nor fill the log.
        {"  restart: \"x\\n<0>PANIC\"\n", "4: key 'restart': ", "'x?<0>PANIC'"},
        {"  restart: " + std::string(100000, 'x') + "\n", "4: key 'restart': ", "xxx...'"},
        {"  reporting: maybe\n", "4: key 'reporting': ", "true or false"},
        {"  env: {A=B: c}\n", "4: key 'env': ", "no '='"},
        {"  args: ['match(a)|(b)']\n", "4: key 'args': ", "unusable pattern"},
        {"  args: ['match((((a{255}){255}){255}))']\n", "4: key 'args': ", "too much"},
        {"  depends: [ok, 'a b']\n", "4: key 'depends': ", "element 2: a name holds no"},
        {"  sharepool_groups: [{group: g}]\n", "4: key 'sharepool_groups': ", "'access'"},
        {"  uid: 1\n  uid: 2\n", "5: near key 'uid': ", "stands twice"},
        {"- bin: /bin/b\n", "4: key 'name': ", "missing"},
        {"- name: b\n  bin: relative\n", "5: key 'bin': ", "absolute path"},
        {"- {name: " + std::string(128, 'n') + ", bin: /b}\n", "4: key 'name': ", "1 to 127"},
        {"- name: \"a\\nFORGED\"\n  bin: /b\n", "4: key 'name': ", "holds no"},
        {"applications:\n- name: a\n  bin: /b\n", "5: key 'name': ", "main.yaml:2"},
    };
    for (const auto& [lines, where, problem] : cases) {
        SCOPED_TRACE(lines);
        sink_.Clear();
        EXPECT_FALSE(ParseService(lines));
        EXPECT_THAT(sink_.Lines(), ElementsAre(AllOf(StartsWith(directory_ + "/main.yaml:" + where),
                                                     HasSubstr(problem))));
    }
}

TEST_F(ManifestTest, BrokenFilesAreOneErrorAndNeverMore) {
    const std::string deep(20000, '[');
    std::string bomb = "x:\n- &a0 y\n";
    for (int i = 1; i < 12; ++i) {
        bomb += "- &a" + std::to_string(i) + " [";
        for (int j = 0; j < 10; ++j) {
            bomb += "*a" + std::to_string(i - 1) + ", ";
        }
        bomb += "]\n";
    }
    const std::vector<std::pair<std::string, std::string>> cases{
        {"services: [", "invalid YAML"},
        {"services: []\n---\nservices: []\n", "2: near key 'services': more than one document"},
        {deep, "nested too deeply"},
        {bomb, "too large"},
        {"services: &s [*s]", "inside its own anchor"},
        {"? [a]\n: b\n", "a key is not text"},
        {"services: []\nservices: []\n", "stands twice"},
        {std::string("services: []\n\0x", 15), "2: not a text file"},
        {"services: [{name: \"a\\0b\", bin: /b}]", "NUL"},
        {"text", "1: expected a mapping"},
    };
    for (const auto& [text, problem] : cases) {
        ExpectRefused(Write("main.yaml", text), problem);
    }
    for (const char* empty : {"", "# nothing yet\n", "services: []"}) {
        EXPECT_TRUE(Parse(Write("main.yaml", empty))) << empty;
    }
    const std::string fifo = directory_ + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const auto& [path, problem] :
         {std::pair{directory_, "it is a directory"},
          {fifo, "not a regular file"},
          {Write("big.yaml", std::string((size_t{1} << 20) + 1, '#')), "larger than"}}) {
        ExpectRefused(path, problem);
    }
}

TEST_F(ManifestTest, QuotesThatAreNeverClosedAreErrorsWhereTheyOpen) {
    const std::pair<const char*, int> unclosed[] = {
        {"a: \"", 1},
        {"a: 1\nb: \"x\nc: d\n   ", 2},
        {"a: 'it''\n", 1},
        {"a: \"x\\\"\r\n", 1},
        {"a: [1, \"b\nc: d\n", 1},
        {"a: {b: 'c\nd: e\n", 1},
        {"a: 1\n\"b\nc\n", 2},
        {"# it's\na: |\n it's\n \"lone\nb: 'x # y\"\n", 5},
    };
    for (const auto& [text, line] : unclosed) {
        ExpectRefused(Write("main.yaml", text), "never closed");
        EXPECT_THAT(sink_.Lines()[0], HasSubstr("main.yaml:" + std::to_string(line) + ": "));
    }
    for (const char* end : {"args: ['it''s', \"\\\"\"] # don't\n", "env: {A: \"b\n  'c\"}",
                            "restart: no # '", "args: []\n  ", "cpuset: |+\n   it's \"\n\n",
                            "cpuset: >-\n   'x", "cpuset: a\"", "cpuset: it's\n", "cpuset: ''"}) {
        EXPECT_TRUE(ParseService(std::string("  ") + end)) << end;
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
    EXPECT_THAT(manifests_[0].GetMatchData(), IsEmpty());
    const std::string file = directory_ + "/main.yaml";
    EXPECT_THAT(sink_.LinesAt(LOG_WARNING),
                testing::UnorderedElementsAre(
                    file + ":1: key 'version': unknown key, ignored",
                    file + ":4: key 'colour': unknown key, ignored",
                    file + ":6: key 'match': not a key of a service, ignored",
                    file + ":7: key 'sharepool_groups': element 1: element 'size': unknown key, "
                           "ignored"));

    // Whoever takes a few lines only must get the error.
    sink_.Clear();
    EXPECT_FALSE(ParseService("  a: 1\n  b: 1\n  c: 1\n  d: 1\n  e: 1\n  f: 1\n  uid: x\n"));
    ASSERT_THAT(sink_.Lines(), SizeIs(6));
    EXPECT_THAT(sink_.Lines().front(), StartsWith(file + ":10: key 'uid': "));
    EXPECT_EQ(sink_.Lines().back(), file + ": 2 further warnings");
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
    EXPECT_THAT(scratch_, testing::AllOf(SizeIs(4), testing::Contains(main)));
}

TEST_F(ManifestTest, BrokenIncludesNameWhereTheyAreAskedFor) {
    const std::string main = directory_ + "/main.yaml";
    Write("loop.yaml", "include: [main.yaml]\n");
    Write("bad.yaml", "services:\n- name: b\n");
    Write("same.yaml", "applications: [{name: a, bin: /b}]\n");
    const std::vector<std::pair<std::string, std::string>> cases{
        {"loop.yaml", directory_ + "/loop.yaml:1: key 'include': " + directory_ +
                          "/main.yaml: the file includes itself"},
        {"none.yaml", main + ":3: key 'include': " + directory_ + "/none.yaml: cannot be opened"},
        {"bad.yaml", directory_ + "/bad.yaml:2: key 'bin': missing in the entry 'b'"},
        {"same.yaml", main + ":5: key 'name': 'a' is also the name of the entry at " + directory_ +
                          "/same.yaml:1"},
    };
    for (const auto& [include, error] : cases) {
        Write("main.yaml",
              "# main\ninclude:\n- " + include + "\nservices:\n- {name: a, bin: /b}\n");
        ExpectRefused(main, error);
    }
    for (int i = 0; i < 20; ++i) {
        Write("chain" + std::to_string(i) + ".yaml",
              "include: [chain" + std::to_string(i + 1) + ".yaml]\n");
    }
    ExpectRefused(directory_ + "/chain0.yaml", "nested more than 16 deep");
}

TEST_F(ManifestTest, OnlyRootMayDecideWhatRuns) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files away";
    }
    const std::string file = Write("main.yaml", "services: [{name: a, bin: /b}]\n");
    const std::string top = Write("top.yaml", "include: [main.yaml]\n");
    const std::tuple<mode_t, uid_t, const char*> cases[] = {
        {0664, 0, "it is writable by group or others"},
        {0646, 0, "it is writable by group or others"},
        {0644, 1000, "it belongs to uid 1000"},
    };
    for (const auto& [mode, owner, problem] : cases) {
        ASSERT_EQ(chmod(file.c_str(), mode), 0);
        ASSERT_EQ(chown(file.c_str(), owner, 0), 0);
        for (const std::string& main : {file, top}) {
            ExpectRefused(main, problem);
        }
    }
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
    const std::string open = directory_ + "/open";
    const std::string inOpen = Write("open/main.yaml", "services: []\n");
    const std::string link = directory_ + "/link.yaml";
    ASSERT_EQ(symlink(inOpen.c_str(), link.c_str()), 0);
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    for (const std::string& main : {inOpen, link}) {
        ExpectRefused(main, "directory " + open + " is writable by group or others");
    }
    ASSERT_EQ(chmod(open.c_str(), 01777), 0);
    EXPECT_TRUE(Parse(link)) << "what is root's in a sticky directory is left to root";
    ASSERT_EQ(chown(open.c_str(), 1000, 0), 0);
    ExpectRefused(link, "directory " + open + " belongs to uid 1000");
}

// The memory of a process that must not be looked into is root's to look at, but says what the
// process likes.
TEST_F(ManifestTest, PseudoFilesAreNotRead) {
    const pid_t attacker = fork();
    if (attacker == 0) {
        const bool isHidden = setresuid(1000, 1000, 1000) == 0 && prctl(PR_SET_DUMPABLE, 0) == 0;
        raise(isHidden ? SIGSTOP : SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(attacker, &status, WUNTRACED), attacker);
    ASSERT_TRUE(WIFSTOPPED(status));
    const std::string its = "/proc/" + std::to_string(attacker);
    ExpectRefused(its + "/cmdline", "directory " + its + " belongs to uid 1000");
    // To read it is to wait for the kernel's next message.
    ExpectRefused("/proc/kmsg", "it lies on a pseudo file system");
    KvsTypeYaml top;
    EXPECT_FALSE(top.InitYamlNode("/dev/tty"));
    kill(attacker, SIGKILL);
    EXPECT_EQ(waitpid(attacker, nullptr, 0), attacker);
}

TEST_F(ManifestTest, FailureLeavesEverythingAsItWas) {
    const std::string good =
        Write("good.yaml", "services: [{name: a, bin: /b, depends: [b]}, {name: b, bin: /b}]\n");
    // "a" without its dependency, and then an error.
    const std::string bad =
        Write("bad.yaml", "services: [{name: a, bin: /b}, {name: x, bin: /b, uid: x}]\n");
    ASSERT_EQ(parser_.ParseYaml(0, good, manifests_, scratch_), 0);
    EXPECT_NE(parser_.ParseYaml(0, bad, manifests_, scratch_), 0);
    EXPECT_THAT(Names(), ElementsAre("a", "b"));
    EXPECT_THAT(scratch_, ElementsAre(good));
    DependGraph graph;
    ASSERT_EQ(parser_.GetStartGraph({"a", "b"}, graph), 0);
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("b"));
}

TEST_F(ManifestTest, EdgesAreDependenciesAmongTheGivenNamesAndCyclesAreReportedOnce) {
    const std::vector<std::pair<std::string, std::string>> services{
        {"d", "b, c"}, {"c", "a"}, {"b", "a"}, {"a", ""}, {"e", "missing"}};
    EXPECT_EQ(OrderOf(services), "ae|bc|d");
    EXPECT_EQ(OrderOf(services, {"d", "a", "a"}), "ad");
    EXPECT_EQ(OrderOf({{"a", "b"}, {"b", "a"}}, {"a"}), "a") << "half a cycle is none";
    EXPECT_THAT(sink_.Lines(), IsEmpty());
    // "o" is behind a cycle, and named before it, but not on it.
    EXPECT_EQ(OrderOf({{"o", "p"}, {"p", "q"}, {"q", "p, x"}, {"s", "s"}, {"x", ""}}), "x!");
    EXPECT_THAT(sink_.LinesAt(LOG_ERR),
                ElementsAre(testing::EndsWith(": p -> q -> p"), testing::EndsWith(": s -> s")));
}

}  // namespace
}  // namespace ProcMgr
