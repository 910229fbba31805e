// The manifest library: the parsing of manifests with their errors, the dependency graph, patterns
// and the reader of other YAML files.
#include "platform/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/diagnostics.h"
#include "platform/host/manifest_keys.h"
#include "platform/manifest_output.h"
#include "tests/support/files.h"
#include "tests/support/private_mounts.h"

namespace ProcMgr {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class ManifestTest : public testing::Test {
protected:
    ManifestTest() {
        SetDiagnosticSink([](int level, const char* text) {
            logged_.push_back(std::to_string(level) + ' ' + text);
        });
    }
    ~ManifestTest() override { SetDiagnosticSink(nullptr); }

    std::string Write(const std::string& name, const std::string& text) const {
        Tests::WriteFile(directory_ / name, text);
        return directory_ / name;
    }
    bool Parse(const std::string& path) {
        logged_.clear();
        manifests_.clear();
        return parser_.ParseYaml(0, path, manifests_, scratch_) == 0;
    }
    bool ParseText(const std::string& text) { return Parse(Write("main.yaml", text)); }
    // One service with name (line 2), bin (line 3) and the given further lines.
    static std::string Service(const std::string& more) {
        return "services:\n- name: a\n  bin: /bin/a\n" + more;
    }
    // `path` leads to one line in the log: an error that begins with `start`.
    void ExpectRefused(const std::string& path, const std::string& start,
                       const std::string& problem) {
        EXPECT_FALSE(Parse(path));
        EXPECT_THAT(logged_, ElementsAre(AllOf(StartsWith("3 " + start), HasSubstr(problem))));
    }
    // As above for a text; `where` begins with the line of the error.
    void ExpectTextRefused(const std::string& text, const std::string& where,
                           const std::string& problem) {
        ExpectRefused(Write("main.yaml", text), directory_ / "main.yaml:" + where, problem);
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const ApplicationManifest& manifest : manifests_) {
            names.push_back(manifest.GetAppName());
        }
        return names;
    }
    // The names of the graph of `names`, or of all the services, in the order in which rounds of
    // free vertices come out; "|" between rounds, "!" when vertices are left that never become
    // free.
    std::string OrderOf(const std::vector<std::pair<std::string, std::string>>& services,
                        std::vector<std::string> names = {}) {
        std::string text = "services:\n";
        for (const auto& [name, depends] : services) {
            text += "- {name: " + name + ", bin: /b, depends: [" + depends + "]}\n";
        }
        EXPECT_TRUE(ParseText(text));
        DependGraph graph;
        graph.Add("left over", {"from before"});
        EXPECT_EQ(parser_.GetStartGraph(names.empty() ? Names() : names, graph), 0);
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

    // What the library has logged since the last call of Parse, each line with its level.
    static inline std::vector<std::string> logged_;
    const Tests::TempDirectory directory_;
    ParseAndDepend parser_;
    std::vector<ApplicationManifest> manifests_;
    std::set<std::string> scratch_;
};

// All values of a manifest except its name, list and path.
std::string ValuesOf(const ApplicationManifest& m) {
    const OutputConfig output = GetManifestOutput(m);
    return testing::PrintToString(std::tuple(
        m.GetBinPath(), m.GetArguments(), m.GetEnvArgv(), m.GetUid(), m.GetGid(), m.GetDependList(),
        m.GetIsReporting(), m.GetRestart(), m.GetTermTimeOut(), m.GetIsForceTerm(), m.GetNice(),
        m.GetCoreAffinity(), m.GetIsDelayCoreAffinity(), m.GetResGroupName(), m.GetCpuset(),
        m.GetBlkioGroupName(), m.GetCGroupPath(), m.GetSetRtPrio(), m.GetSetRtType(),
        m.GetSecurityCon(), m.GetNodeType(), m.GetNumaType(), m.GetStartupPriority(),
        m.GetStartupEntryPath(), m.GetHeartBeatSwitch(), m.GetSharepoolGroups(), m.GetVfId(),
        m.GetVfIdPattern(), m.GetIsDynamicPara(), m.GetMatchData(), static_cast<int>(output.kind),
        output.file, output.size));
}

// Each value differs from its default and from its neighbours, so that a swapped key is found.
TEST_F(ManifestTest, EveryKeyReachesItsGetterAndHasItsDefault) {
    ASSERT_TRUE(ParseText(R"yaml(applications: [{
  name: app, bin: match(/usr/bin/(x|y)), args: [--level, 7, "", 'match([0-9]+)'],
  env: {HOME: /root, LEVEL: 3, FREE: "match(.*)"}, uid: 4294967294, gid: 0x10,
  depends: [b, a, b], reporting: yes, restart: on-until-succeed, term_timeout: 4294967295,
  force_term: false, nice: -20, core_affinity: [255, 3, 1023], delay_core_affinity: on,
  resource_group: rg, cpuset: cs, blkio_group: bg, cgroups: {memory: m, cpu: c},
  set_rt_prio: 50, set_rt_type: SCHED_RR, security_context: sc, node_type: 1538, numa_type: 2,
  startup_priority: 7, startup_entry: /entry, heartbeat: TRUE,
  sharepool_groups: [{group: g1, access: read}, {access: read-write, group: g2}],
  vf_id: 5, dynamic: true, match: {slot: 1, mode: fast},
  output: {size: 4096, file: /var/log/app.log}}]
)yaml"));
    ASSERT_THAT(logged_, IsEmpty());
    ASSERT_THAT(Names(), ElementsAre("app"));
    EXPECT_EQ(manifests_[0].GetManifestList(), ManifestList::APPLICATIONS);
    EXPECT_EQ(
        ValuesOf(manifests_[0]),
        "(\"match(/usr/bin/(x|y))\", { \"--level\", \"7\", \"\", \"match([0-9]+)\" }, "
        "{ (\"FREE\", \"match(.*)\"), (\"HOME\", \"/root\"), (\"LEVEL\", \"3\") }, "
        "4294967294, 16, { \"a\", \"b\" }, true, \"on-until-succeed\", 4294967295, false, -20, "
        "{ 255, 3, 1023 }, true, \"rg\", \"cs\", \"bg\", "
        "{ (\"cpu\", \"c\"), (\"memory\", \"m\") }, \"50\", \"SCHED_RR\", \"sc\", 1538, 2, 7, "
        "\"/entry\", true, { (\"g1\", \"read\"), (\"g2\", \"read-write\") }, 5, \"\", true, "
        "{ (\"mode\", \"fast\"), (\"slot\", \"1\") }, 3, \"/var/log/app.log\", 4096)");
    ASSERT_TRUE(ParseText(Service("  vf_id: match([0-9])\n")));
    ASSERT_THAT(logged_, IsEmpty());
    EXPECT_EQ(manifests_[0].GetManifestList(), ManifestList::SERVICES);
    EXPECT_EQ(manifests_[0].GetCfgPath(), directory_ / "main.yaml");
    EXPECT_EQ(
        ValuesOf(manifests_[0]),
        "(\"/bin/a\", {}, {}, 0, 0, {}, false, \"no\", 5000, true, 0, {}, false, \"\", \"\", \"\", "
        "{}, \"\", \"\", \"\", 0, 0, -1, \"\", false, {}, -1, \"match([0-9])\", false, {}, "
        "0, \"\", 1048576)");
    // A new key needs its line above and in the manual.
    EXPECT_THAT(PlatformHost::ManifestKeys(), SizeIs(31));
}

TEST_F(ManifestTest, GroupIsThePrimaryOneOfTheUserUnlessGiven) {
    if (!EnterPrivateMountNamespace()) {
        GTEST_SKIP() << "no private mount namespace here";
    }
    // The record of the user "long" needs a second call with a larger buffer.
    BindFile("root:x:0:5::/:/bin/sh\nlong:x:1001:2002:" + std::string(9000, 'l') +
                 ":/:/bin/sh\nother:x:1002:3003::/:/bin/sh\n",
             "/etc/passwd");
    const std::pair<const char*, uint32_t> cases[] = {
        {"  uid: 1001\n", 2002},        {"  uid: 1002\n", 3003},
        {"  uid: 1003\n", 0},           {"", 5},
        {"  gid: 0\n  uid: 1001\n", 0}, {"  uid: 1001\n  gid: 7\n", 7}};
    for (const auto& [lines, group] : cases) {
        ASSERT_TRUE(ParseText(Service(lines)));
        EXPECT_EQ(manifests_[0].GetGid(), group) << lines;
    }
}

TEST_F(ManifestTest, OutputIsAWordAPathOrAMapping) {
    const std::tuple<std::string, OutputKind, std::string> cases[] = {
        {"inherit", OutputKind::INHERIT, ""},       {"null", OutputKind::DISCARD, ""},
        {"'null'", OutputKind::DISCARD, ""},        {"syslog", OutputKind::SYSLOG, ""},
        {"/a b.log", OutputKind::FILE, "/a b.log"}, {"{file: /a}", OutputKind::FILE, "/a"}};
    for (const auto& [text, kind, file] : cases) {
        ASSERT_TRUE(ParseText(Service("  output: " + text + "\n"))) << text;
        const OutputConfig output = GetManifestOutput(manifests_[0]);
        EXPECT_EQ(output.kind, kind) << text;
        EXPECT_EQ(output.file, file);
        EXPECT_EQ(output.size, 1048576U);
    }
}

TEST_F(ManifestTest, WrongValuesAreOneErrorWithFileLineAndKey) {
    // The lines of the service from line 4 on, the place of the error, and its text.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"  uid: -1\n", "4: key 'uid': ", "from 0 to 4294967294"},
        {"  uid: 010\n", "4: key 'uid': ", "whole number"},
        {"  uid: [0]\n", "4: key 'uid': ", "got a list"},
        {"  core_affinity: [1, 1024]\n", "4: key 'core_affinity': ", "element 2: "},
        // Messages cannot forge lines, nor fill the log.
        {"  restart: \"x\\n<0>PANIC\"\n", "4: key 'restart': ", "'x?<0>PANIC'"},
        {"  restart: " + std::string(100000, 'x') + "\n", "4: key 'restart': ", "xxx...'"},
        {"  reporting: maybe\n", "4: key 'reporting': ", "true or false"},
        {"  env: {A=B: c}\n", "4: key 'env': ", "no '='"},
        {"  args: ['match(a)|(b)']\n", "4: key 'args': ", "unusable pattern"},
        {"  depends: [ok, 'a b']\n", "4: key 'depends': ", "element 2: a name holds no"},
        {"  sharepool_groups: [{group: g}]\n", "4: key 'sharepool_groups': ", "'access'"},
        {"  uid: 1\n  uid: 2\n", "5: near key 'uid': ", "stands twice"},
        {"  output: journal\n", "4: key 'output': ", "inherit, null, syslog"},
        {"  output:\n", "4: key 'output': ", "got nothing"},
        {"  output: [/a]\n", "4: key 'output': ", "got a list"},
        {"  output: {file: a.log}\n", "4: key 'output': ", "element 'file': expected the abs"},
        {"  output: /var/log/\n", "4: key 'output': ", "path of a file"},
        {"  output: /" + std::string(4094, 'x') + "\n", "4: key 'output': ", "path of a file"},
        {"  output: {size: 4096}\n", "4: key 'output': ", "with 'file'"},
        {"  output: {file: /a, size: 4095}\n", "4: key 'output': ", "from 4096 to 1073741824"},
        {"- bin: /bin/b\n", "4: key 'name': ", "missing"},
        {"- name: b\n  bin: relative\n", "5: key 'bin': ", "absolute path"},
        {"- {name: " + std::string(128, 'n') + ", bin: /b}\n", "4: key 'name': ", "1 to 127"},
        {"applications:\n- name: a\n  bin: /b\n", "5: key 'name': ", "main.yaml:2"},
    };
    for (const auto& [lines, where, problem] : cases) {
        ExpectTextRefused(Service(lines), where, problem);
    }
}

TEST_F(ManifestTest, BrokenFilesAreOneErrorAndNeverMore) {
    const std::string bomb = "- &a " + std::string(500000, 'x') +
                             "\n- &b [*a, *a, *a, *a, *a, *a, *a, *a]\n"
                             "- [*b, *b, *b, *b, *b, *b, *b, *b]\n";
    const std::string unclosed = "the quote that opens here is never closed";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"services: []\n---\nservices: []\n", "2: ", "more than one document"},
        {std::string(20000, '['), "1: ", "nested too deeply"},
        {bomb, "3: ", "too large"},
        {"services: &s [*s]", "1: ", "inside its own anchor"},
        {"? [a]\n: b\n", "1: ", "a key is not text"},
        {"services: []\nservices: []\n", "2: ", "stands twice"},
        {std::string("services: []\n\0x", 15), "2: ", "not a text file"},
        {"services: [{name: \"a\\0b\", bin: /b}]", "1: ", "NUL"},
        {"text", "1: ", "expected a mapping"},
        {"a: \"", "1: ", unclosed},
        {"a: 1\nb: \"x\nc: d\n   ", "2: ", unclosed},
        {"a: 'it''\n", "1: ", unclosed},
        {"a: \"x\\\"\r\n", "1: ", unclosed},
        {"a: [1, \"b\nc: d\n", "1: ", unclosed},
        {"a: 1\n\"b\nc\n", "2: ", unclosed},
        {"# it's\na: |\n it's\n \"lone\nb: 'x # y\"\n", "5: ", unclosed},
    };
    for (const auto& [text, line, problem] : cases) {
        ExpectTextRefused(text, line, problem);
    }
    ExpectRefused(directory_.Path(), "", "it is a directory");
    ExpectRefused(Write("big.yaml", std::string((size_t{1} << 20) + 1, '#')), "", "larger than");
    for (const char* empty : {"", "# nothing yet\n", "services: []"}) {
        EXPECT_TRUE(ParseText(empty)) << empty;
    }
    for (const char* end : {"args: ['it''s', \"\\\"\"] # don't\n", "env: {A: \"b\n  'c\"}",
                            "restart: no # '", "args: []\n  ", "cpuset: |+\n   it's \"\n\n",
                            "cpuset: >-\n   'x", "cpuset: a\"", "cpuset: it's\n", "cpuset: ''"}) {
        EXPECT_TRUE(ParseText(Service(std::string("  ") + end))) << end;
    }
}

TEST_F(ManifestTest, UnknownKeysAreWarningsAndIgnored) {
    ASSERT_TRUE(
        ParseText("version: 2\n" + Service("  colour: blue\n  match: {x: y}\n  sharepool_groups:\n"
                                           "  - {group: g, access: read, size: 1}\n")));
    EXPECT_THAT(manifests_[0].GetMatchData(), IsEmpty());
    const std::string file = "4 " + directory_ / "main.yaml";
    EXPECT_THAT(logged_, testing::UnorderedElementsAre(
                             file + ":1: key 'version': unknown key, ignored",
                             file + ":5: key 'colour': unknown key, ignored",
                             file + ":6: key 'match': not a key of a service, ignored",
                             file + ":8: key 'sharepool_groups': element 1: element 'size': "
                                    "unknown key, ignored"));

    // The error comes first, because the receiver of the lines may accept a few only.
    EXPECT_FALSE(ParseText(Service("  a: 1\n  b: 1\n  c: 1\n  d: 1\n  e: 1\n  f: 1\n  uid: x\n")));
    ASSERT_THAT(logged_, SizeIs(6));
    EXPECT_THAT(logged_.front(), StartsWith("3 " + directory_ / "main.yaml:10: key 'uid': "));
    EXPECT_EQ(logged_.back(), file + ": 2 further warnings");
}

TEST_F(ManifestTest, IncludesComeFirstAndOnceAndAFailureChangesNothing) {
    Write("common.yaml", "services: [{name: common, bin: /b}]\n");
    Write("sub/one.yaml", "include: [../common.yaml]\nservices: [{name: one, bin: /b}]\n");
    const std::string two =
        Write("two.yaml", "applications: [{name: two, bin: /b}]\ninclude: [common.yaml]\n");
    ASSERT_TRUE(
        ParseText("applications: [{name: last, bin: /b}]\n"
                  "services: [{name: main, bin: /b, depends: [one]}]\n"
                  "include: [sub/one.yaml, " +
                  two + ", sub/../two.yaml]\n"));
    EXPECT_EQ(manifests_[1].GetCfgPath(), directory_ / "sub/one.yaml");
    // "main" without its dependency, and then an error.
    const std::string bad =
        Write("bad.yaml", "services: [{name: main, bin: /b}, {name: x, bin: /b, uid: x}]\n");
    EXPECT_NE(parser_.ParseYaml(0, bad, manifests_, scratch_), 0);
    EXPECT_THAT(Names(), ElementsAre("common", "one", "two", "last", "main"));
    EXPECT_THAT(scratch_, AllOf(SizeIs(4), testing::Contains(directory_ / "main.yaml")));
    DependGraph graph;
    ASSERT_EQ(parser_.GetStartGraph({"main", "one"}, graph), 0);
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("one"));
}

TEST_F(ManifestTest, TheSecondLoadOfAFileIsTheFirstUnlessAFileHasChanged) {
    const std::string more = Write("more.yaml", "services: [{name: b, bin: /bin/b}]\n");
    const std::string path = Write("main.yaml", Service("include: [more.yaml]\n"));
    for (const char* name : {"b", "c"}) {
        const pid_t child = fork();  // the first load of a process is kept for its second
        if (child == 0) {
            const bool isParsed = Parse(path);
            Write("more.yaml", std::string("services: [{name: ") + name + ", bin: /bin/b}]\n");
            const bool isParsedAgain = Parse(path);
            _exit(isParsed && isParsedAgain && Names() == std::vector<std::string>{name, "a"} ? 0
                                                                                              : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << name;
    }
}

TEST_F(ManifestTest, BrokenIncludesAreErrorsWithTheirPosition) {
    const std::string here = directory_.Path();
    Write("loop.yaml", "include: [main.yaml]\n");
    Write("bad.yaml", "services:\n- name: b\n");
    Write("same.yaml", "applications: [{name: a, bin: /b}]\n");
    const std::pair<std::string, std::string> cases[] = {
        {"loop", "/loop.yaml:1: key 'include': " + here + "/main.yaml: the file includes itself"},
        {"none", "/main.yaml:3: key 'include': " + here + "/none.yaml: cannot be opened"},
        {"bad", "/bad.yaml:2: key 'bin': missing in the entry 'b'"},
        {"same",
         "/main.yaml:5: key 'name': 'a' is also the name of the entry at " + here + "/same.yaml:1"},
    };
    for (const auto& [include, error] : cases) {
        ExpectRefused(Write("main.yaml", "# main\ninclude:\n- " + include +
                                             ".yaml\nservices:\n- {name: a, bin: /b}\n"),
                      here + error, "");
    }
    for (int i = 0; i < 20; ++i) {
        Write("chain" + std::to_string(i) + ".yaml",
              "include: [chain" + std::to_string(i + 1) + ".yaml]\n");
    }
    ExpectRefused(here + "/chain0.yaml", here + "/chain15.yaml:1: ", "nested more than 16 deep");
}

TEST_F(ManifestTest, FilesThatOthersMayChangeAreRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to change owners";
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
        ExpectRefused(file, "", problem);
        ExpectRefused(top, "", problem);
    }
    const std::string open = directory_ / "open";
    const std::string inOpen = Write("open/main.yaml", "services: []\n");
    const std::string link = directory_ / "link.yaml";
    ASSERT_EQ(symlink(inOpen.c_str(), link.c_str()), 0);
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    ExpectRefused(inOpen, "", "directory " + open + " is writable by group or others");
    ExpectRefused(link, "", "directory " + open + " is writable by group or others");
    ASSERT_EQ(chmod(open.c_str(), 01777), 0);
    EXPECT_TRUE(Parse(link)) << "only root can replace a file of root in a sticky directory";
    ASSERT_EQ(chown(open.c_str(), 1000, 0), 0);
    ExpectRefused(link, "", "directory " + open + " belongs to uid 1000");
}

TEST_F(ManifestTest, EdgesAreDependenciesAmongTheGivenNamesAndCyclesAreReportedOnce) {
    const std::vector<std::pair<std::string, std::string>> services{
        {"d", "b, c"}, {"c", "a"}, {"b", "a"}, {"a", ""}, {"e", "missing"}};
    EXPECT_EQ(OrderOf(services), "ae|bc|d");
    EXPECT_EQ(OrderOf(services, {"d", "a", "a"}), "ad");
    EXPECT_EQ(OrderOf({{"a", "b"}, {"b", "a"}}, {"a"}), "a") << "half a cycle is no cycle";
    EXPECT_THAT(logged_, IsEmpty());
    // "o" waits for a cycle and comes before it in the order of names, but is not on it.
    EXPECT_EQ(OrderOf({{"o", "p"}, {"p", "q"}, {"q", "p, x"}, {"s", "s"}, {"x", ""}}), "x!");
    const std::string problem = "3 dependency cycle, none of these can start: ";
    EXPECT_THAT(logged_, ElementsAre(problem + "p -> q -> p", problem + "s -> s"));
}

TEST(DependGraphTest, PopReleasesOnlyWhatWaited) {
    DependGraph graph;
    graph.Add("c", {"a", "b"});
    graph.Add("a", {});
    graph.Add("b", {"a"});
    graph.Pop("unknown");
    graph.Pop("b");  // before its turn: "c" still waits for "a"
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("a"));
    graph.Pop("a");
    graph.Pop("a");
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("c"));
    graph.Pop("c");
    EXPECT_TRUE(graph.IsEmpty());
}

TEST(PatternTest, ValueMatchesAsAWhole) {
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"match(abc)", "abcd", false},
        {"match(ab)", "xab", false},
        {"match((a|ab)(c|bcd))", "abcd", true},
        {"match(/usr/bin/[^/]+)", "/usr/bin/../sh", false},
        {"match(a)", "a\n", false},
        {"match(.*)", std::string(4096, 'x'), true},
        {"match(.*)", std::string(4097, 'x'), false},
        {"match(.*)", std::string("a\0b", 3), false},
        // Would compile, and match too much, inside "^(...)$".
        {"match(a)|(b)", "a", false},
        {"match(((a{255}){255}){255})", "a", false},
        {"match((((((((((((((((a+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)", "a", false},
        {"match(" + std::string(2000, '(') + std::string(2000, ')') + ")", "", false},
        {"a", "a", false},  // no pattern
    };
    for (const auto& [pattern, value, matches] : cases) {
        EXPECT_EQ(ParseAndDepend::IsDynamicParaMatch(pattern, value), matches) << pattern;
    }
}

TEST_F(ManifestTest, ANodeOfAnotherYamlFileOutlivesItsTop) {
    KvsTypeYaml top;
    KvsTypeYaml node;
    ASSERT_TRUE(top.InitYamlNode(Write("file.yaml", "list: [a, {b: c}]\n")));
    ASSERT_TRUE(top.GetSubKvs("list", node));
    EXPECT_EQ(node.GetSize(), 2U);
    EXPECT_FALSE(node.GetElement(2, top));
    // A node may be replaced by its own child.
    ASSERT_TRUE(node.GetElement(1, node));
    ASSERT_TRUE(node.GetSubKvs("b", node));
    EXPECT_FALSE(top.InitYamlNode(Write("file.yaml", "a: [")));
    EXPECT_FALSE(top.InitYamlNode("/dev/null")) << "not a regular file";
    EXPECT_FALSE(top.GetSubKvs("list", top));
    EXPECT_EQ(node.GetString(), "c");
}

}  // namespace
}  // namespace ProcMgr
