// CoreAffinityMgr on threads of this process, the reading of cpusets, and AffinityCheck.
#include <gmock/gmock.h>

#include <fstream>

#include "main/common/proc_mgr_env.h"
#include "resource/affinity_check.h"
#include "resource/cpu_num.h"
#include "resource/cpuset_file.h"
#include "tests/resource/resource_fixture.h"

namespace ProcMgr {
namespace {

using List = std::vector<uint32_t>;

constexpr int32_t NO_PID = INT32_MAX;  // above every pid of the kernel

class CoreAffinityTest : public PinningTest {
protected:
    uint32_t Set(int32_t tid, const List& cores) {
        return affinity_.SetCoreAffinity(tid, cores, error_);
    }
    uint32_t StoreAndSet(int32_t pid, int32_t tid, const List& cores) {
        return affinity_.StoreAndSetCoreAffinity(pid, tid, cores, error_);
    }
    static std::string Refusal(int32_t tid) {
        return "SetCoreAffinity fail pid=" + to_string(tid) + ", errno=22;";
    }

    std::string error_ = "before;";
};

TEST(CpusetFile, Lines) {
    const std::pair<List, Texts> cases[] = {
        {{}, {"", "x", "99999999999", "3-1", "5-"}},
        {{0}, {"0-x", "-"}},
        {{7}, {" 7", "7x", " 7-7"}},
        {{0, 1, 2}, {"0,1,2", "x-2", "0-2,8", "8,0-2", "100-2"}},
        {{0, 1, 4, 5}, {"0-1,4-5"}},
        {{100, 3, 100}, {"100,3,100,"}},
        {{8, 9, 10, 11}, {"8-11", "08-114"}},
    };
    for (const auto& [cores, lines] : cases) {
        for (const std::string& line : lines) {
            EXPECT_EQ(ParseCpusetLine(line, "p"), cores) << line;
        }
    }
    LogCapture::Clear();
    ParseCpusetLine("8-11,14-15", "/p");
    ParseCpusetLine("8,9", "/p");
    EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_INFO, "path:/p position:1 CpuCore size:10"},
                                          {LOG_INFO, "path:/p position before:8 after:11"},
                                          {LOG_INFO, "path:/p position before:14 after:15"}}));
}

TEST_F(CoreAffinityTest, CoreListsAreReadUntilTheyAreKnown) {
    affinity_.LoadCoreLists();
    EXPECT_FALSE(affinity_.CheckIsCtrlCpu("app", {0}));
    for (const std::string line : {"\n7", "0,1,2\n7", "4"}) {
        MakeCpuset("CtrlCPU", line);
        affinity_.LoadCoreLists();
    }
    LogCapture::Clear();
    EXPECT_TRUE(affinity_.CheckIsCtrlCpu("app", {2, 0, 1, 0}));
    EXPECT_FALSE(affinity_.CheckIsCtrlCpu("app", {1, 7, 4}));
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{LOG_ERR, "CheckIsCtrlCpu app=app, coreId=7 is not in CtrlCpu"}}));
}

TEST_F(CoreAffinityTest, EachAcceleratorCorePutsTheThreadIntoItsCpuset) {
    const IdleThread idle;
    const int32_t tid = idle.Tid();
    EXPECT_EQ(Set(tid, {}), AFFINITY_NO_CORES);
    MakeCpuset("CtrlCPU", "0");
    MakeCpuset("AICPU", "1," + to_string(CPU_NUM));
    affinity_.LoadCoreLists();
    EXPECT_EQ(Set(tid, {}), AFFINITY_OK);
    EXPECT_EQ(CoresOf(tid), Cores{0});
    LogCapture::Clear();
    EXPECT_EQ(Set(tid, {1, CPU_NUM, 0, 1024, UINT32_MAX, 1}), AFFINITY_OK);
    EXPECT_EQ(CoresOf(tid), BOTH);
    const std::string tasks = CGROUPS + "cpuset/AICPU/tasks";
    EXPECT_EQ(LogCapture::Lines(),
              Lines(2, {LOG_ERR, "WriteTidToAIcpuSet failed tid: " + to_string(tid) +
                                     ", aicpuSet: " + tasks + " is not existed"}));
    WriteFile(tasks, "1\n");
    EXPECT_EQ(Set(tid, {1, CPU_NUM, 1}), AFFINITY_OK);
    EXPECT_EQ(Set(tid, {CPU_NUM, 1023, 1024, 5000, UINT32_MAX}), AFFINITY_REFUSED);
    EXPECT_EQ(CoresOf(tid), Cores{1});
    EXPECT_EQ(ReadFile(tasks), "1\n" + to_string(tid) + "\n" + to_string(tid) + "\n");
    EXPECT_EQ(error_, "before;default ctrl cpu is null;" + Refusal(tid));
}

TEST_F(CoreAffinityTest, WakeUpRecoverForgetsThreadsThatHaveEndedOrChangedTheirName) {
    IdleThread dead;
    const IdleThread renamed("name with spac1");
    const IdleThread refused;
    const IdleThread kept(" ()\t\\:");
    for (const IdleThread* idle : {&std::as_const(dead), &renamed, &kept}) {
        EXPECT_EQ(StoreAndSet(getpid(), idle->Tid(), {0}), AFFINITY_OK);
        EXPECT_EQ(CoresOf(idle->Tid()), Cores{0});
    }
    EXPECT_EQ(StoreAndSet(1, 1, {CPU_NUM}), AFFINITY_REFUSED);
    EXPECT_EQ(StoreAndSet(getpid(), refused.Tid(), {CPU_NUM}), AFFINITY_REFUSED);
    dead.End();
    EXPECT_EQ(StoreAndSet(getpid(), dead.Tid(), {0}), AFFINITY_NO_THREAD_NAME);
    const std::string pid = to_string(getpid());
    const std::string tid = to_string(dead.Tid());
    for (const std::string& line :
         {"SetCoreAffinityToOs fail" + refused.Ids() + ", errStr: " + Refusal(refused.Tid()),
          "fopen /proc/" + pid + "/task/" + tid + "/status fail, errno: 2",
          "GetThreadName fail, pid:" + pid + " tid:" + tid + ", errno: 2"}) {
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
    }
    std::ofstream("/proc/self/task/" + to_string(renamed.Tid()) + "/comm") << "name with spac2";

    const std::string begin = "CoreAffinityMgr WakeUpRecover CheckTidIsValid ";
    const auto recover = [this] {
        LogCapture::Clear();
        EXPECT_TRUE(affinity_.WakeUpRecover({NO_PID, getpid()}));
        return LogCapture::Lines();
    };
    EXPECT_THAT(recover(),
                testing::IsSupersetOf(Lines{{LOG_WARNING, begin + "fail" + dead.Ids()},
                                            {LOG_WARNING, begin + "fail" + renamed.Ids()}}));
    const auto [low, high] = std::minmax({kept.Tid(), refused.Tid()});
    const Lines expected = {
        {LOG_ERR, "opendir /proc/2147483647/task/ fail, errno: 2"},
        {LOG_ERR, "CoreAffinityMgr GetTids fail, pid:2147483647"},
        {LOG_INFO, begin + "success" + kept.Ids()},
        {LOG_INFO, begin + "success" + refused.Ids()},
        {LOG_WARNING, "RecoverCoreAffinity SetCoreAffinityToOs failed" + refused.Ids() +
                          ", err=" + Refusal(refused.Tid())},
        {LOG_INFO, "CoreAffinityMgr WakeUpRecover tid:" + to_string(low) + "," + to_string(high)}};
    EXPECT_THAT(recover(), testing::UnorderedElementsAreArray(expected));

    LogCapture::Clear();
    for (const int32_t process : {getpid(), 1, 1}) {
        affinity_.RecycleThreadCoreInfo(process, "app");
    }
    const std::string recycled = "RecycleThreadCoreInfo finished app: app, tid: ";
    EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_INFO, recycled + to_string(low) + ", pid: " + pid},
                                          {LOG_INFO, recycled + to_string(high) + ", pid: " + pid},
                                          {LOG_INFO, recycled + "1, pid: 1"}}));
}

TEST_F(CoreAffinityTest, WakeUpRecoverPinsAgain) {
    const IdleThread stored;
    const IdleThread stray;
    const IdleThread unknown;
    EXPECT_EQ(StoreAndSet(getpid(), stored.Tid(), {0}), AFFINITY_OK);
    SetCores(unknown.Tid(), {0});
    affinity_.StoreStrays(getpid(), {0});  // all threads but `unknown`, which has its cores
    for (const IdleThread* idle : {&stored, &stray, &unknown}) {
        SetCores(idle->Tid(), {1});
        EXPECT_FALSE(affinity_.IsPinned(idle->Tid(), {0}));
    }
    EXPECT_TRUE(affinity_.WakeUpRecover({getpid()}));
    EXPECT_EQ(CoresOf(stored.Tid()), Cores{0});
    EXPECT_EQ(CoresOf(stray.Tid()), Cores{0});
    EXPECT_EQ(CoresOf(unknown.Tid()), Cores{1});
    EXPECT_TRUE(affinity_.IsPinned(stored.Tid(), {0, 1}));
}

// The applications of these tests all have the process of the test.
class AffinityCheckTest : public CoreAffinityTest {
protected:
    void Load(const std::string& ctrlCores, const Texts& groups) {
        ProcMgrEnv::GetInstance().StorePid();
        MakeCpuset("CtrlCPU", ctrlCores);
        affinity_.LoadCoreLists();
        for (const std::string& group : groups) {
            WriteFile(CGROUPS + group + "/tasks", "");
        }
    }
    // How often the thread was written into the group.
    static long Written(const std::string& group, int32_t tid) {
        std::ifstream file(CGROUPS + group + "/tasks");
        return std::count(std::istream_iterator<int32_t>(file), {}, tid);
    }

    FakeApps apps_;
    AffinityCheck check_{cgroups_, affinity_, apps_};
};

TEST_F(AffinityCheckTest, NewThreadsArePlaced) {
    Load("0", {"cpuset/CtrlCPU", "cpu/OTHER", "cpuset/set", "cpu/group"});
    const IdleThread early;
    EXPECT_FALSE(check_.Run());
    EXPECT_EQ(ReadFile(CGROUPS + "cpu/OTHER/tasks"), "");
    check_.Start();
    EXPECT_EQ(CoresOf(getpid()), Cores{0});
    apps_.apps = {{"own", getpid(), {}, {0}, "set", "group", "io", false},
                  {"default", getpid(), {}, {}, "", "", "", false},
                  {"delayed", getpid(), {}, {CPU_NUM}, "no", "group", "", true},
                  {"lost", getpid(), {}, {CPU_NUM}, "no", "none", "", false}};
    check_.Run();
    const IdleThread late;
    check_.Run();
    check_.Run();
    EXPECT_EQ(CoresOf(late.Tid()), Cores{0});
    for (const int32_t tid : {early.Tid(), late.Tid()}) {
        // Once as a thread of the daemon, so that nothing is left to write for "default".
        EXPECT_EQ(Written("cpuset/CtrlCPU", tid), 1);
        EXPECT_EQ(Written("cpu/OTHER", tid), 1);
        EXPECT_EQ(Written("cpuset/set", tid), 1);
        EXPECT_EQ(Written("cpu/group", tid), 2);
    }
    EXPECT_GT(Written("cpuset/set", getpid()), 0);

    apps_.apps.clear();
    std::filesystem::remove_all(CGROUPS + "cpu");
    const IdleThread last;
    check_.Run();
    const std::string missing =
        " cgroup tasks failed, errinfo=add to group failed, cgroup path=" + CGROUPS;
    const std::string noGroup =
        "add to group failed, cgroup path=" + CGROUPS + "cpu/none/tasks is not existed;";
    const std::string noSet = "Add priority app to" + missing + "cpuset/no/tasks is not existed;";
    const std::string tid = ", tid=" + to_string(late.Tid());
    for (const std::string& line :
         {noSet + tid, noSet + noGroup + tid,
          "Add pm tids to" + missing +
              "cpu/OTHER/tasks is not existed;, tid=" + to_string(last.Tid()),
          "priority app SetCoreAffinityToOs failed, errinfo=" + Refusal(late.Tid()) +
              ", app=lost"}) {
        EXPECT_EQ(LogCapture::Count(LOG_WARNING, line), 1U) << line;
    }
    // The kernel would have refused the cores of "delayed" as it refused those of "lost".
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_WARNING, "app=delayed"));
    EXPECT_EQ(LogCapture::Count(LOG_ERR, "app=lost, pid=" + to_string(getpid()) +
                                             ", core affinity is not in ctrlcpu"),
              3U);
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_ERR, "app=own"));
}

TEST_F(AffinityCheckTest, IsWantedWhileThereIsSomethingToPlaceOrToRestore) {
    EXPECT_TRUE(check_.IsWanted()) << "nobody has looked yet";
    check_.Start();
    EXPECT_FALSE(check_.IsWanted());
    AffinityCheck pinning(cgroups_, affinity_, apps_);
    pinning.Start();
    apps_.apps = {{"own", getpid(), {}, {}, "", "", "", false}};
    check_.Run();
    EXPECT_TRUE(check_.IsWanted());
    apps_.apps.clear();
    check_.Run();
    EXPECT_FALSE(check_.IsWanted());
    WriteFile(CGROUPS + "cpu/OTHER/tasks", "");
    check_.Run();
    EXPECT_TRUE(check_.IsWanted());
    EXPECT_FALSE(pinning.IsWanted());
    Set(getpid(), {0});
    EXPECT_TRUE(pinning.IsWanted());
}

TEST_F(AffinityCheckTest, OnlyAProcessThatWasMovedIsMovedBack) {
    MakeCpuset("AICPU", "1");
    Load("0", {"cpuset/CtrlCPU", "cpuset/AICPU", "cpu/OTHER"});
    apps_.apps = {{"ai", getpid(), {}, {1}, "", "", "", false}};
    check_.Start();
    std::optional<IdleThread> replaced(std::in_place);
    for (int pass = 0; pass < 3; ++pass) {
        check_.Run();
        EXPECT_EQ(CoresOf(getpid()), Cores{1}) << pass;
        SetCores(getpid(), pass == 0 ? Cores{0} : Cores{1});
    }
    // The pinning to accelerator cores has put it into their cpuset, where it stays.
    EXPECT_EQ(Written("cpuset/AICPU", getpid()), 2);
    EXPECT_EQ(Written("cpuset/CtrlCPU", getpid()), 2);
    EXPECT_EQ(Written("cpu/OTHER", getpid()), 1);
    replaced.reset();
    const IdleThread late;
    check_.Run();
    EXPECT_EQ(CoresOf(late.Tid()), Cores{1});
}

}  // namespace
}  // namespace ProcMgr
