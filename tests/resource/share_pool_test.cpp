// The share-pool groups, with files in a private /etc/sharepool and a fake device library.
#include "resource/share_pool.h"

#include <gmock/gmock.h>

#include "resource/device_worker.h"
#include "tests/resource/resource_fixture.h"

namespace ProcMgr {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

const std::string DIRECTORY = "/etc/sharepool/";

class SharePoolTest : public ResourceTest {
protected:
    static void Write(const std::string& file, const std::string& contents, mode_t mode = 0644) {
        WriteFile(DIRECTORY + file, contents, mode);
    }
    // The calls of the device library since the last time.
    static Texts TakeCalls() {
        DeviceWorker().Drain(SteadyTime::max());
        Texts calls = FakeDevice::Get().Calls();
        FakeDevice::Get().Reset();
        return calls;
    }
    static std::string Group(const std::string& name, const std::string& size = "4096",
                             const std::string& members = "[{app: cam, access: read}]") {
        return "  - {name: " + name + ", size: " + size + ", members: " + members + "}\n";
    }

    SharePool pool_{DeviceWorker()};
};

TEST_F(SharePoolTest, GroupsThatAreNotWellFormedOrKnownAlreadyAreSkipped) {
    const std::string longest(63, 'n');
    const Texts bad = {Group(longest + "n"),
                       Group("''"),
                       Group("'a,b'"),
                       Group("a/b"),
                       Group("a b"),
                       Group("\"a\\n\""),
                       "  - {size: 4096}\n",
                       "  - text\n",
                       "  - [list]\n",
                       "  - {name: none}\n",
                       Group("zero", "0"),
                       Group("below", "-1"),
                       Group("unit", "4k"),
                       Group("sign", "+1"),
                       Group("more", "18446744073709551616"),
                       Group("w", "1", "[{app: a, access: write}]"),
                       Group("no", "1", "[{app: a}]"),
                       Group("who", "1", "[{access: read}]"),
                       Group("second", "1", "[{app: a, access: read}, {app: b, access: READ}]")};
    std::string groups = "groups:\n" + Group(longest, "18446744073709551615");
    for (const std::string& group : bad) {
        groups += group;
    }
    Write("a.yaml", groups + "  - {name: bare, size: 1}\n");
    Write("b.yaml", "groups:\n" + Group("bare", "2", "[{app: late, access: read}]"));
    FakeDevice::Get().Push("halGrpCreate", 5);
    pool_.Load(DIRECTORY);
    EXPECT_THAT(TakeCalls(), ElementsAre("halGrpCreate bare 1",
                                         "halGrpCreate " + longest + " 18446744073709551615"));
    EXPECT_EQ(CountLines(LOG_ERR), std::ssize(bad) + 2)
        << "also for the second \"bare\", and for the failure of the device";
    EXPECT_EQ(pool_.MakePlan("late", {}).Names(), "");
}

TEST_F(SharePoolTest, FilesThatAreBrokenOrOthersMayWriteAreSkipped) {
    const std::string bad = "groups:\n" + Group("bad");
    Write("a.yaml", "groups: [\n");
    Write("b.yaml", "");
    Write("c.yaml", "\xff\xfe:\x01");
    Write("d.yaml", "group:\n" + Group("bad"));
    Write("e.yaml", bad, 0664);
    Write("f.yaml", bad, 0646);
    Write("g.yaml", bad);
    ASSERT_EQ(chown((DIRECTORY + "g.yaml").c_str(), 1000, 1000), 0);
    Write("target", bad, 0666);
    fs::create_symlink("target", DIRECTORY + "h.yaml");
    fs::create_symlink("nowhere", DIRECTORY + "i.yaml");
    fs::create_directory(DIRECTORY + "j.yaml");
    Write("k.yaml", "groups: 5\n");
    Write("l.yaml", "groups:\n" + Group("good"));
    pool_.Load(DIRECTORY);
    pool_.Load("/nowhere");
    EXPECT_THAT(TakeCalls(), ElementsAre("halGrpCreate good 4096"));
    EXPECT_EQ(CountLines(LOG_ERR), 10) << "one for each file from a to j";
}

TEST_F(SharePoolTest, PlanMergesManifestAndConfiguration) {
    Write("a.yaml", "groups:\n" + Group("a", "1", "[{app: cam, access: read-write}]") +
                        Group("b", "1", "[{app: view, access: read}, {app: cam, access: read}]"));
    pool_.Load(DIRECTORY);
    using Groups = std::vector<std::pair<std::string, std::string>>;  // with their access
    const auto plan = [this](const std::string& app, const Groups& manifest) {
        const SharePoolPlan made = pool_.MakePlan(app, manifest);
        std::string text = made.isPreconfigured ? "preconfigured " : "";
        for (const auto& group : made.groups) {
            text += group.name + "=" + group.access + " ";
        }
        return text + made.Names();
    };
    EXPECT_EQ(plan("nobody", {{"x", "read"}, {"x", "read-write"}}), "x=read x");
    EXPECT_EQ(plan("nobody", {{"a", "read"}, {"n,x", "read"}}), "a=read a");
    EXPECT_EQ(plan("view", {}), "preconfigured b=read b");
    EXPECT_EQ(plan("cam", {{"b", "read-write"}, {"x", "read"}}),
              "preconfigured a=read-write b=read x=read a,b,x");
}

TEST_F(SharePoolTest, AFailureToJoinIsLoggedAndTriedAgain) {
    const SharePoolPlan plan =
        pool_.MakePlan("cam", {{"a", "read"}, {"b", "read-write"}, {"c", "read"}});
    FakeDevice::Get().Push("halGrpAddProc", 0);
    FakeDevice::Get().Push("halGrpAddProc", 7);
    pool_.Join("cam", 41, plan);
    EXPECT_THAT(TakeCalls(), ElementsAre("halGrpAddProc a 41 read", "halGrpAddProc b 41 read-write",
                                         "halGrpAddProc c 41 read"));
    EXPECT_EQ(CountLines(LOG_ERR), 1);
    EXPECT_TRUE(LogCapture::ContainsPart(LOG_ERR, "group=b"));
    pool_.Join("cam", 41, plan);
    EXPECT_THAT(TakeCalls(), ElementsAre("halGrpAddProc b 41 read-write"));
    pool_.Join("cam", 41, plan);
    EXPECT_EQ(TakeCalls(), Texts{});

    // Another process has joined nothing, nor has a later process with the same pid.
    pool_.Forget(41);
    for (const int32_t pid : {42, 41}) {
        pool_.Join("cam", pid, plan);
        EXPECT_EQ(TakeCalls().size(), 3U);
    }
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
            pool_.Join("cam", 41, {{{to_string(group), "read"}}, true});
        }
    };
    std::thread other(join);
    join();
    other.join();
    EXPECT_EQ(TakeCalls().size(), GROUPS);
}

}  // namespace
}  // namespace ProcMgr
