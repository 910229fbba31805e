#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "main/common/proc_mgr_env.h"
#include "resource/affinity_check.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/cpu_num.h"
#include "resource/cpuset_file.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

namespace fs = std::filesystem;
using Cores = std::vector<uint32_t>;
using Fakes::LogCapture;
using Lines = std::vector<Fakes::LogLine>;
using std::to_string;

const std::string ROOT = "/sys/fs/cgroup/";
constexpr int32_t NO_PID = INT32_MAX;  // of no process, ever

void WriteFile(const std::string& path, const std::string& contents) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << contents;
}

void LayCpuset(const std::string& name, const std::string& cores) {
    WriteFile(ROOT + "cpuset/" + name + "/cpuset.cpus", cores + "\n");
}

Cores CoresOf(int32_t id) {
    cpu_set_t mask{};
    sched_getaffinity(id, sizeof(mask), &mask);
    Cores cores;
    for (uint32_t core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &mask)) {
            cores.push_back(core);
        }
    }
    return cores;
}

void Pin(int32_t id, uint32_t core) {
    cpu_set_t mask{};
    CPU_SET(core, &mask);
    ASSERT_EQ(sched_setaffinity(id, sizeof(mask), &mask), 0);
}

// A thread of this process that does nothing.
class Sleeper {
public:
    explicit Sleeper(const std::string& name = "sleeper") {
        thread_ = std::thread([this, name] {
            prctl(PR_SET_NAME, name.c_str());
            tid_ = gettid();
            tid_.notify_all();
            isEnd_.wait(false);
        });
        tid_.wait(0);
    }
    ~Sleeper() { End(); }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    int32_t Tid() const { return tid_; }
    std::string Ids() const { return ", pid:" + to_string(getpid()) + ", tid:" + to_string(tid_); }
    // Returns when the thread is gone from /proc, too.
    void End() {
        if (thread_.joinable()) {
            isEnd_ = true;
            isEnd_.notify_all();
            thread_.join();
            while (fs::exists("/proc/self/task/" + to_string(tid_))) {
                std::this_thread::yield();
            }
        }
    }

private:
    std::atomic<int32_t> tid_{0};
    std::atomic<bool> isEnd_{false};
    std::thread thread_;
};

class CoreAffinityTest : public testing::Test {
protected:
    void SetUp() override {
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "no private mount namespace here";
        }
        MountTmpfs("/sys/fs/cgroup");
        for (const uint32_t core : CoresOf(0)) {
            if (core < CPU_NUM) {
                usable_.push_back(core);
            }
        }
        if (usable_.empty()) {
            GTEST_SKIP() << "none of the cores of this process counts as a core of the system";
        }
        LogCapture::Clear();
    }

    uint32_t StoreAndSet(int32_t pid, int32_t tid, const Cores& cores) {
        std::string error;
        return mgr_.StoreAndSetCoreAffinity(pid, tid, cores, error);
    }

    CgroupMgr cgroups_;
    CoreAffinityMgr mgr_;
    Cores usable_;  // where this process may run
};

TEST(CpusetFile, Lines) {
    const std::pair<Cores, std::vector<std::string>> cases[] = {
        {{}, {"", "x", "99999999999", "3-1", "5-"}},
        {{0}, {"0-x", "-"}},
        {{7}, {" 7", "7x", " 7-7"}},
        {{0, 1, 2}, {"0,1,2", "x-2", "0-2,8", "8,0-2", "100-2"}},
        {{0, 0, 1, 2}, {"0--2"}},
        {{0, 1, 4, 5}, {"0-1,4-5"}},
        {{100, 3, 100}, {"100,3,100,"}},
        {{8, 9, 10, 11}, {"8-11", "08-114"}},
        {{10, 11, 12}, {"10-12"}},
        {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {"100-101"}},
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
    mgr_.LoadCoreLists();
    EXPECT_FALSE(mgr_.CheckIsCtrlCpu("app", {0}));
    LayCpuset("CtrlCPU", "\n7");
    mgr_.LoadCoreLists();
    EXPECT_FALSE(mgr_.CheckIsCtrlCpu("app", {7}));
    EXPECT_TRUE(mgr_.CheckIsCtrlCpu("app", {}));
    for (const std::string line : {"0,1,2\n7", "4"}) {
        LayCpuset("CtrlCPU", line);
        mgr_.LoadCoreLists();
    }
    LogCapture::Clear();
    EXPECT_TRUE(mgr_.CheckIsCtrlCpu("app", {2, 0, 1, 0}));
    EXPECT_FALSE(mgr_.CheckIsCtrlCpu("app", {1, 7, 4}));
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{LOG_ERR, "CheckIsCtrlCpu app=app, coreId=7 is not in CtrlCpu"}}));
}

TEST_F(CoreAffinityTest, SetCoreAffinity) {
    const Sleeper sleeper;
    const uint32_t core = usable_.back();
    const Cores before = CoresOf(sleeper.Tid());
    std::string error = "before;";
    EXPECT_EQ(mgr_.SetCoreAffinity(sleeper.Tid(), {}, error), AFFINITY_NO_CORES);
    EXPECT_EQ(error, "before;default ctrl cpu is null;");
    LayCpuset("CtrlCPU", to_string(core));
    mgr_.LoadCoreLists();
    const std::pair<Cores, Cores> cases[] = {
        // as asked for and as set; none: the kernel refuses
        {{CPU_NUM, 1023, 1024, 5000, UINT32_MAX}, {}},
        {{}, {core}},
        {{core, CPU_NUM, usable_[0], 1024, UINT32_MAX, core},
         core == usable_[0] ? Cores{core} : Cores{usable_[0], core}},
        {{usable_[0]}, {usable_[0]}},
    };
    for (const auto& [cores, expected] : cases) {
        error = "before;";
        const bool isRefused = expected.empty();
        EXPECT_EQ(mgr_.SetCoreAffinity(sleeper.Tid(), cores, error),
                  isRefused ? AFFINITY_REFUSED : AFFINITY_OK);
        const std::string refused =
            "SetCoreAffinity fail pid=" + to_string(sleeper.Tid()) + ", errno=22;";
        EXPECT_EQ(error, "before;" + (isRefused ? refused : ""));
        EXPECT_EQ(CoresOf(sleeper.Tid()), isRefused ? before : expected);
    }
    error = "";
    EXPECT_EQ(mgr_.SetCoreAffinity(NO_PID, {core}, error), AFFINITY_REFUSED);
    EXPECT_EQ(error, "SetCoreAffinity fail pid=2147483647, errno=3;");
}

TEST_F(CoreAffinityTest, EachAcceleratorCorePutsTheThreadIntoItsCpuset) {
    const Sleeper sleeper;
    const std::string tid = to_string(sleeper.Tid());
    const std::string tasks = ROOT + "cpuset/AICPU/tasks";
    const uint32_t core = usable_.back();
    LayCpuset("AICPU", to_string(core) + "," + to_string(CPU_NUM));
    mgr_.LoadCoreLists();
    std::string error;
    EXPECT_EQ(mgr_.SetCoreAffinity(sleeper.Tid(), {core, CPU_NUM, core}, error), AFFINITY_OK);
    EXPECT_EQ(CoresOf(sleeper.Tid()), Cores{core});
    EXPECT_EQ(LogCapture::Lines(),
              Lines(2, {LOG_ERR, "WriteTidToAIcpuSet failed tid: " + tid + ", aicpuSet: " + tasks +
                                     " is not existed"}));
    WriteFile(tasks, "1\n");
    EXPECT_EQ(mgr_.SetCoreAffinity(sleeper.Tid(), {core, CPU_NUM, core}, error), AFFINITY_OK);
    EXPECT_EQ(mgr_.SetCoreAffinity(sleeper.Tid(), {CPU_NUM}, error), AFFINITY_REFUSED);
    EXPECT_EQ(ReadFile(tasks), "1\n" + tid + "\n" + tid + "\n");
}

// What the table holds shows in what is forgotten.
TEST_F(CoreAffinityTest, StoredPinnings) {
    Sleeper gone;
    gone.End();
    const Sleeper sleeper;
    const std::string pid = to_string(getpid());
    const std::string tid = to_string(sleeper.Tid());
    EXPECT_EQ(StoreAndSet(getpid(), sleeper.Tid(), {usable_[0]}), AFFINITY_OK);
    EXPECT_EQ(CoresOf(sleeper.Tid()), Cores{usable_[0]});
    EXPECT_EQ(StoreAndSet(getpid(), sleeper.Tid(), {CPU_NUM}), AFFINITY_REFUSED);
    EXPECT_EQ(
        LogCapture::Lines().back(),
        (Fakes::LogLine{LOG_ERR, "SetCoreAffinityToOs fail" + sleeper.Ids() +
                                     ", errStr: SetCoreAffinity fail pid=" + tid + ", errno=22;"}));
    LogCapture::Clear();
    const std::string ids = "pid:" + pid + " tid:" + to_string(gone.Tid());
    EXPECT_EQ(StoreAndSet(getpid(), gone.Tid(), {usable_[0]}), AFFINITY_NO_THREAD_NAME);
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{LOG_INFO, "StoreAndSetCoreAffinity " + ids},
                     {LOG_ERR, "fopen /proc/" + pid + "/task/" + to_string(gone.Tid()) +
                                   "/status fail, errno: 2"},
                     {LOG_ERR, "GetThreadName fail, " + ids + ", errno: 2"}}));

    EXPECT_EQ(StoreAndSet(1, 1, {CPU_NUM}), AFFINITY_REFUSED);
    LogCapture::Clear();
    const std::string recycled = "RecycleThreadCoreInfo finished app: app, tid: ";
    for (const int32_t process : {getpid(), 1, 1}) {
        mgr_.RecycleThreadCoreInfo(process, "app");
    }
    EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_INFO, recycled + tid + ", pid: " + pid},
                                          {LOG_INFO, recycled + "1, pid: 1"}}));
}

TEST_F(CoreAffinityTest, WakeUpRecoverForgetsWhatIsNotThereAnyMore) {
    Sleeper dead;
    const Sleeper renamed("name with spac1");
    const Sleeper refused;
    const Sleeper kept(" ()\t\\:");
    for (const Sleeper* sleeper : {&std::as_const(dead), &renamed, &kept}) {
        EXPECT_EQ(StoreAndSet(getpid(), sleeper->Tid(), {usable_[0]}), AFFINITY_OK);
    }
    EXPECT_EQ(StoreAndSet(getpid(), refused.Tid(), {CPU_NUM}), AFFINITY_REFUSED);
    EXPECT_EQ(StoreAndSet(1, 1, {CPU_NUM}), AFFINITY_REFUSED);
    dead.End();
    WriteFile("/proc/self/task/" + to_string(renamed.Tid()) + "/comm", "name with spac2");

    const std::string begin = "CoreAffinityMgr WakeUpRecover CheckTidIsValid ";
    for (const size_t isFirst : {1U, 0U}) {
        LogCapture::Clear();
        EXPECT_TRUE(mgr_.WakeUpRecover({NO_PID, getpid()}));
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "opendir /proc/2147483647/task/ fail, errno: 2"));
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "CoreAffinityMgr GetTids fail, pid:2147483647"));
        for (const Sleeper* sleeper : {&std::as_const(dead), &renamed}) {
            EXPECT_EQ(LogCapture::Count(LOG_WARNING, begin + "fail" + sleeper->Ids()), isFirst);
        }
        for (const Sleeper* sleeper : {&kept, &refused}) {
            EXPECT_TRUE(LogCapture::Contains(LOG_INFO, begin + "success" + sleeper->Ids()));
        }
        EXPECT_TRUE(LogCapture::Contains(
            LOG_WARNING, "RecoverCoreAffinity SetCoreAffinityToOs failed" + refused.Ids() +
                             ", err=SetCoreAffinity fail pid=" + to_string(refused.Tid()) +
                             ", errno=22;"));
        EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "pid:1,"));
        const std::string last = LogCapture::Lines().back().text;
        EXPECT_TRUE(last.starts_with("CoreAffinityMgr WakeUpRecover tid:"));
        EXPECT_NE(last.find(to_string(kept.Tid())), std::string::npos);
        EXPECT_EQ(last.find(to_string(renamed.Tid())), std::string::npos);
    }
}

TEST_F(CoreAffinityTest, WakeUpRecoverPinsAgain) {
    if (usable_.size() < 2) {
        GTEST_SKIP() << "needs two cores";
    }
    const uint32_t own = usable_[0];
    const uint32_t elsewhere = usable_[1];
    const Sleeper stored;
    const Sleeper stray;
    const Sleeper unknown;
    EXPECT_EQ(StoreAndSet(getpid(), stored.Tid(), {own}), AFFINITY_OK);
    Pin(unknown.Tid(), own);
    mgr_.StoreStrays(getpid(), {own});  // all but the last one, that is where it should be
    for (const Sleeper* sleeper : {&stored, &stray, &unknown}) {
        Pin(sleeper->Tid(), elsewhere);
        EXPECT_FALSE(mgr_.IsPinned(sleeper->Tid(), {own}));
    }
    EXPECT_TRUE(mgr_.WakeUpRecover({getpid()}));
    EXPECT_EQ(CoresOf(stored.Tid()), Cores{own});
    EXPECT_EQ(CoresOf(stray.Tid()), Cores{own});
    EXPECT_EQ(CoresOf(unknown.Tid()), Cores{elsewhere});
    EXPECT_TRUE(mgr_.IsPinned(stored.Tid(), {own, elsewhere}));

    mgr_.RecycleThreadCoreInfo(getpid(), "app");
    Pin(stored.Tid(), elsewhere);
    EXPECT_TRUE(mgr_.WakeUpRecover({getpid()}));
    EXPECT_EQ(CoresOf(stored.Tid()), Cores{elsewhere});
}

// Applications that all have the process of the test.
class FakeManagedApps : public ManagedApps {
public:
    std::vector<ManagedApp> GetManagedApps(ManagedFilter filter) override {
        return filter == ManagedFilter::RUNNING_PRIORITY ? apps_ : std::vector<ManagedApp>{};
    }
    bool IsPresent(const ManagedApp&) override { return true; }
    void NoteTids(const ManagedApp& app, const std::set<int32_t>& tids) override {
        for (ManagedApp& noted : apps_) {
            noted.notedTids = noted.name == app.name ? tids : noted.notedTids;
        }
    }
    std::optional<std::string> GetNameOf(int32_t) override { return std::nullopt; }
    bool HasProcess(const std::string&) override { return true; }
    bool IsKnown(const std::string&) override { return true; }

    std::vector<ManagedApp> apps_;
};

// How often each id was written into a group.
std::map<int32_t, int> Written(const std::string& group) {
    std::map<int32_t, int> counts;
    std::ifstream file(ROOT + group + "/tasks");
    for (int32_t tid = 0; file >> tid;) {
        ++counts[tid];
    }
    return counts;
}

TEST_F(CoreAffinityTest, NewThreadsArePlacedByTheCheck) {
    ProcMgrEnv::GetInstance().StorePid();
    LayCpuset("CtrlCPU", to_string(usable_[0]));
    mgr_.LoadCoreLists();
    for (const std::string group : {"cpuset/CtrlCPU", "cpu/OTHER", "cpuset/set", "cpu/group"}) {
        WriteFile(ROOT + group + "/tasks", "");
    }
    FakeManagedApps apps;
    AffinityCheck check(cgroups_, mgr_, apps);
    const Sleeper early;
    check.Run();
    EXPECT_TRUE(Written("cpu/OTHER").empty());
    check.Start();
    EXPECT_EQ(CoresOf(getpid()), Cores{usable_[0]});
    apps.apps_ = {{"own", getpid(), {}, {usable_[0]}, "set", "group", "io", false},
                  {"default", getpid(), {}, {}, "", "", "", false},
                  {"delayed", getpid(), {}, {CPU_NUM}, "no", "group", "", true},
                  {"lost", getpid(), {}, {CPU_NUM}, "no", "none", "", false}};
    check.Run();
    const Sleeper late;
    check.Run();
    check.Run();
    EXPECT_EQ(CoresOf(late.Tid()), Cores{usable_[0]});
    for (const int32_t tid : {early.Tid(), late.Tid()}) {
        EXPECT_EQ(Written("cpuset/CtrlCPU")[tid], 1);  // the daemon's, so "default" has it
        EXPECT_EQ(Written("cpu/OTHER")[tid], 1);
        EXPECT_EQ(Written("cpuset/set")[tid], 1);
        EXPECT_EQ(Written("cpu/group")[tid], 2);
    }
    EXPECT_TRUE(Written("cpuset/set").contains(getpid()));

    const std::string missing = "add to group failed, cgroup path=" + ROOT;
    const std::string noSet = missing + "cpuset/no/tasks is not existed;";
    const std::string noGroup = missing + "cpu/none/tasks is not existed;";
    const std::string tid = to_string(late.Tid());
    // A delayed one is not pinned: the kernel would have refused its cores, like those of "lost".
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_WARNING, "app=delayed"));
    EXPECT_TRUE(LogCapture::Contains(
        LOG_WARNING, "priority app SetCoreAffinityToOs failed, errinfo=SetCoreAffinity fail pid=" +
                         tid + ", errno=22;, app=lost"));
    for (const std::string& error : {noSet, noSet + noGroup}) {
        EXPECT_EQ(LogCapture::Count(
                      LOG_WARNING,
                      "Add priority app to cgroup tasks failed, errinfo=" + error + ", tid=" + tid),
                  1U);
    }
    for (const std::string name : {"own", "default", "delayed", "lost"}) {
        const size_t checks = name == "delayed" || name == "lost" ? 3 : 0;
        EXPECT_EQ(LogCapture::Count(LOG_ERR, "app=" + name + ", pid=" + to_string(getpid()) +
                                                 ", core affinity is not in ctrlcpu"),
                  checks);
        EXPECT_EQ(LogCapture::Count(LOG_ERR, "CheckIsCtrlCpu app=" + name + ", coreId=" +
                                                 to_string(CPU_NUM) + " is not in CtrlCpu"),
                  checks);
    }
    apps.apps_.clear();
    fs::remove_all(ROOT + "cpu");
    const Sleeper last;
    check.Run();
    EXPECT_EQ(
        LogCapture::Lines().back(),
        (Fakes::LogLine{LOG_WARNING,
                        "Add pm tids to cgroup tasks failed, errinfo=" + missing +
                            "cpu/OTHER/tasks is not existed;, tid=" + to_string(last.Tid())}));
}

TEST_F(CoreAffinityTest, TheCheckMovesBackWhoWasMovedAndWritesNobodyWhoIsInPlace) {
    if (usable_.size() < 2) {
        GTEST_SKIP() << "needs two cores";
    }
    ProcMgrEnv::GetInstance().StorePid();
    LayCpuset("CtrlCPU", to_string(usable_[0]));
    LayCpuset("AICPU", to_string(usable_[1]));
    mgr_.LoadCoreLists();
    for (const std::string group : {"cpuset/CtrlCPU", "cpuset/AICPU", "cpu/OTHER"}) {
        WriteFile(ROOT + group + "/tasks", "");
    }
    FakeManagedApps apps;
    apps.apps_ = {{"ai", getpid(), {}, {usable_[1]}, "", "", "", false}};
    AffinityCheck check(cgroups_, mgr_, apps);
    check.Start();
    std::optional<Sleeper> replaced(std::in_place);
    for (int pass = 0; pass < 3; ++pass) {
        check.Run();
        EXPECT_EQ(CoresOf(getpid()), Cores{usable_[1]}) << pass;
        Pin(getpid(), usable_[pass == 0 ? 0 : 1]);
    }
    // To be pinned to these cores takes it to their cpuset: that is its place.
    EXPECT_EQ(Written("cpuset/AICPU")[getpid()], 2);
    EXPECT_EQ(Written("cpuset/CtrlCPU")[getpid()], 2);
    EXPECT_EQ(Written("cpu/OTHER")[getpid()], 1);
    replaced.reset();
    const Sleeper late;
    Pin(late.Tid(), usable_[0]);
    check.Run();
    EXPECT_EQ(CoresOf(late.Tid()), Cores{usable_[1]});
}

}  // namespace
}  // namespace ProcMgr
