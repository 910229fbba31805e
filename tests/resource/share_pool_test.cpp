// The share-pool groups, with files in a private /etc/sharepool and a fake device library.
#include "resource/share_pool.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "resource/device_worker.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/files.h"
#include "tests/support/private_mounts.h"

namespace ProcMgr {
namespace {

namespace fs = std::filesystem;
using Fakes::FakeDevice;
using Fakes::LogCapture;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Texts = std::vector<std::string>;

const std::string DIRECTORY = "/etc/sharepool/";

class SharePoolTest : public testing::Test {
protected:
    void SetUp() override {
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "no private mount namespace here";
        }
        Clear();
    }
    static void Clear() {
        MountTmpfs(DIRECTORY.substr(0, DIRECTORY.size() - 1));
        FakeDevice::Get().Reset();
        LogCapture::Clear();
    }
    static void Write(const std::string& file, const std::string& contents, mode_t mode = 0644) {
        Tests::WriteFile(DIRECTORY + file, contents, mode);
    }
    // The calls of the device library since the last time.
    static Texts TakeCalls() {
        DeviceWorker().Drain(SteadyTime::max());
        Texts calls = FakeDevice::Get().Calls();
        FakeDevice::Get().Reset();
        return calls;
    }
    static long Errors() {
        const auto lines = LogCapture::Lines();
        return std::count_if(lines.begin(), lines.end(),
                             [](const auto& line) { return line.level == LOG_ERR; });
    }
    static std::string Group(const std::string& name, const std::string& size = "4096",
                             const std::string& members = "[{app: cam, access: read}]") {
        return "  - {name: " + name + ", size: " + size + ", members: " + members + "}\n";
    }

    SharePool pool_{DeviceWorker()};
};

TEST_F(SharePoolTest, GroupsThatAreNotWellFormedAreSkipped) {
    const std::string longest(63, 'n');
    struct Case {
        std::string groups;
        Texts created;  // without the good groups before and after them
        long errors;
    };
    const Case cases[] = {
        {Group(longest, "18446744073709551615"),
         {"halGrpCreate " + longest + " 18446744073709551615"},
         0},
        {"  - {name: bare, size: 1}\n", {"halGrpCreate bare 1"}, 0},
        {Group(longest + "n") + Group("''") + Group("'a,b'") + Group("a/b") + Group("a b") +
             Group("\"a\\n\""),
         {},
         6},
        {"  - {size: 4096}\n  - text\n  - [list]\n  - 5\n", {}, 4},
        {"  - {name: none}\n" + Group("zero", "0") + Group("below", "-1") + Group("unit", "4k") +
             Group("sign", "+1") + Group("more", "18446744073709551616"),
         {},
         6},
        {Group("w", "1", "[{app: a, access: write}]") + Group("no", "1", "[{app: a}]") +
             Group("who", "1", "[{access: read}]") +
             Group("last", "1", "[{app: a, access: read}, {app: b, access: READ}]"),
         {},
         4},
    };
    for (const auto& [groups, created, errors] : cases) {
        Clear();
        Write("a.yaml", "groups:\n" + Group("first") + groups + Group("last"));
        SharePool(DeviceWorker()).Load(DIRECTORY);
        Texts expected = created;
        expected.insert(expected.end(), {"halGrpCreate first 4096", "halGrpCreate last 4096"});
        EXPECT_THAT(TakeCalls(), testing::UnorderedElementsAreArray(expected)) << groups;
        EXPECT_EQ(Errors(), errors) << groups;
    }
}

TEST_F(SharePoolTest, FilesThatAreBrokenOrOthersMayWriteAreSkipped) {
    const std::string bad = "groups:\n" + Group("bad");
    struct Case {
        std::string contents;
        mode_t mode;
        uid_t owner;
    };
    const Case cases[] = {{"groups: [\n", 0644, 0},
                          {"", 0644, 0},
                          {"\xff\xfe:\x01", 0644, 0},
                          {bad, 0664, 0},
                          {bad, 0646, 0},
                          {bad, 0644, 1000},
                          {"group:\n" + Group("bad"), 0644, 0}};
    for (const auto& [contents, mode, owner] : cases) {
        Clear();
        Write("a.yaml", contents, mode);
        ASSERT_EQ(chown((DIRECTORY + "a.yaml").c_str(), owner, owner), 0);
        Write("b.yaml", "groups:\n" + Group("good"));
        SharePool(DeviceWorker()).Load(DIRECTORY);
        EXPECT_EQ(TakeCalls(), Texts{"halGrpCreate good 4096"}) << contents << mode << owner;
        EXPECT_EQ(Errors(), 1) << contents << mode << owner;
    }

    Clear();
    Write("target", bad, 0666);
    fs::create_symlink("target", DIRECTORY + "a.yaml");
    fs::create_symlink("nowhere", DIRECTORY + "b.yaml");
    fs::create_directory(DIRECTORY + "c.yaml");
    Write("d.yaml", "groups: 5\n");
    pool_.Load(DIRECTORY);
    pool_.Load("/nowhere");
    EXPECT_EQ(TakeCalls(), Texts{});
}

TEST_F(SharePoolTest, AGroupIsCreatedOnce) {
    Write("b.yaml", "groups:\n" + Group("twice", "2", "[{app: late, access: read}]"));
    Write("a.yaml", "groups:\n" + Group("twice", "1") + Group("once", "3"));
    FakeDevice::Get().Push("halGrpCreate", 5);
    pool_.Load(DIRECTORY);
    EXPECT_THAT(TakeCalls(), UnorderedElementsAre("halGrpCreate twice 1", "halGrpCreate once 3"));
    EXPECT_EQ(Errors(), 2) << "the second \"twice\", and the failure of the device";
    EXPECT_EQ(pool_.MakePlan("late", {}).Names(), "");
}

TEST_F(SharePoolTest, PlanMergesManifestAndConfiguration) {
    Write("a.yaml", "groups:\n" + Group("a", "1", "[{app: cam, access: read-write}]") +
                        Group("b", "1", "[{app: view, access: read}, {app: cam, access: read}]"));
    pool_.Load(DIRECTORY);
    struct Case {
        std::string app;
        std::vector<std::pair<std::string, std::string>> manifest;
        Texts groups;  // "NAME ACCESS", by name
        std::string names;
        bool isPreconfigured;
    };
    const Case cases[] = {
        {"nobody", {{"x", "read"}, {"x", "read-write"}}, {"x read"}, "x", false},
        {"nobody", {{"a", "read"}, {"n,x", "read"}}, {"a read"}, "a", false},
        {"view", {}, {"b read"}, "b", true},
        {"cam",
         {{"b", "read-write"}, {"x", "read"}},
         {"a read-write", "b read", "x read"},
         "a,b,x",
         true},
    };
    for (const auto& [app, manifest, groups, names, isPreconfigured] : cases) {
        const SharePoolPlan plan = pool_.MakePlan(app, manifest);
        Texts found;
        for (const auto& group : plan.groups) {
            found.push_back(group.name + " " + group.access);
        }
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, groups) << app;
        EXPECT_EQ(plan.Names(), names) << app;
        EXPECT_EQ(plan.isPreconfigured, isPreconfigured) << app;
    }
}

TEST_F(SharePoolTest, AFailureToJoinIsLoggedAndTriedAgain) {
    const SharePoolPlan plan =
        pool_.MakePlan("cam", {{"a", "read"}, {"b", "read-write"}, {"c", "read"}});
    FakeDevice::Get().Push("halGrpAddProc", 0);
    FakeDevice::Get().Push("halGrpAddProc", 7);
    pool_.Join("cam", 41, plan);
    EXPECT_THAT(TakeCalls(), ElementsAre("halGrpAddProc a 41 read", "halGrpAddProc b 41 read-write",
                                         "halGrpAddProc c 41 read"));
    EXPECT_EQ(Errors(), 1);
    EXPECT_TRUE(LogCapture::ContainsPart(LOG_ERR, "group=b"));
    pool_.Join("cam", 41, plan);
    EXPECT_THAT(TakeCalls(), ElementsAre("halGrpAddProc b 41 read-write"));
    pool_.Join("cam", 41, plan);
    EXPECT_EQ(TakeCalls(), Texts{});

    // Another process has joined nothing, nor has a later process with the same pid.
    pool_.Join("cam", 42, plan);
    EXPECT_EQ(TakeCalls().size(), 3U);
    pool_.Forget(41);
    pool_.Join("cam", 41, plan);
    EXPECT_EQ(TakeCalls().size(), 3U);
}

// The launcher and the registration of the process may ask at the same time.
TEST_F(SharePoolTest, JoinsAtOnceAddAProcessOnce) {
    constexpr size_t GROUPS = 1000;
    std::atomic<size_t> arrived{0};
    const auto join = [&] {
        for (size_t group = 0; group < GROUPS; ++group) {
            ++arrived;
            while (arrived < 2 * (group + 1)) {
                // Without a pause, so that both threads go on at the same moment.
            }
            pool_.Join("cam", 41, {{{std::to_string(group), "read"}}, true});
        }
    };
    std::thread other(join);
    join();
    other.join();
    EXPECT_EQ(TakeCalls().size(), GROUPS);
}

}  // namespace
}  // namespace ProcMgr
