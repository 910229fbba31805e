// CgroupMgr on files in the place of the control groups and of the host resource file.
#include "resource/cpu_num.h"
#include "tests/resource/resource_fixture.h"

namespace ProcMgr {
namespace {

namespace fs = std::filesystem;

const std::string CFG = "/usr/bin/vela/env.cfg";
const std::string CPU = CGROUPS + "cpu/";
const std::string QUOTA = "/cpu.cfs_quota_us";
const std::string PERIOD = "/cpu.cfs_period_us";
const std::string QUOTA_BEFORE = "18446744073709551615\n";  // longer than every quota
const std::string HUNDRED = to_string(CPU_NUM * 100000);    // percent of every core

void MakeGroup(const std::string& group, const std::string& period = "100000\n") {
    WriteFile(CPU + group + PERIOD, period);
    WriteFile(CPU + group + QUOTA, QUOTA_BEFORE);
}

std::string Quota(const std::string& group) {
    return ReadFile(CPU + group + QUOTA);
}

// The lines since the last call, each as its level and its text without the common beginning.
Texts Log() {
    const std::string begin = "PROCMGR: CgroupMgr ";
    Texts texts;
    for (const auto& [level, text] : LogCapture::Lines()) {
        EXPECT_EQ(text.substr(0, begin.size()), begin);
        texts.push_back(to_string(level) + " " + text.substr(begin.size()));
    }
    LogCapture::Clear();
    return texts;
}

// The summary of a read file. `switches` has a digit each for hostCpuSwitch, BlkIoSwitch,
// BufferIoSwitch and isCfgOk.
Texts Summary(const std::string& switches, const Texts& policies = {}) {
    Texts texts{"6 CPU_NUM=" + to_string(CPU_NUM) + ", hostCpuSwitch=" + switches[0] +
                ", BlkIoSwitch=" + switches[1] + ", BufferIoSwitch=" + switches[2] +
                ", isCfgOk=" + switches[3]};
    for (const std::string& policy : policies) {
        texts.push_back("6 cfg: policy " + policy);
    }
    return texts;
}

CgroupPolicyInfo Policy(const std::string& group, uint8_t type, uint8_t isEnable) {
    CgroupPolicyInfo policy{{}, type, isEnable};
    group.copy(policy.groupName, sizeof(policy.groupName) - 1);
    return policy;
}

const std::string BEGIN = "6 UpdateCgroup begin, groupName=";

class CgroupMgrTest : public ResourceTest {
protected:
    static void Read(CgroupMgr& mgr, const std::string& contents) {
        WriteFile(CFG, contents);
        mgr.ReadCfg();
    }

    CgroupMgr mgr_;
};

TEST_F(CgroupMgrTest, ReadsSetsAndSkipsLinesThatAreNotWellFormed) {
    const std::string longest = "L=g:" + std::string(506, '0') + "7";
    const std::pair<std::string, Texts> cases[] = {
        {"", {}},
        {"S=\"ctrl:40;user:20\"\nT='a:1'\n", {"S=ctrl:40;user:20;", "T=a:1;"}},
        {"S=\"'a:1'\"\nT=\"a:1'\n", {"S='a:1;", "T=\"a:1;"}},
        {"S=\"\nS=''\nS=40\nS=:40\n", {}},
        {"b=z:1;A:2;_:3\nB/b=x:2\na=x:3", {"B/b=x:2;", "a=x:3;", "b=A:2;_:3;z:1;"}},
        {"S=a:1;b:1\nS=b:2;c:40;20\n", {"S=a:1;b:2;c:20;"}},
        {"S=a:b:4x\nT=a:2147483647\nU=a=b:1=\n", {"S=b:4;", "T=a:2147483647;", "U=a=b:1;"}},
        {"HOST_BLKIO_SWITCH=a:\nHOST_BLKIO_WRITE_BPS_SET=a:x\nHOST_BLKIO_READ_BPS_SET=;\n", {}},
        {"S =a:1\nS= a:1\nS=a:40.5\nS=a:-1\n#S=a:1\nS=a:1\t\nS=a:1\r\nS=\xe4:1\nT=a:7\n",
         {"T=a:7;"}},
        {"\n=a:1\nS=\nSa:1\n=\n\x7f\x02=\xff\xfe:1\nT=a:7\n", {"T=a:7;"}},
        {longest + "\nT=a:7\n#" + longest + "\nU=a:8\n", {"L=g:7;", "T=a:7;"}},
    };
    for (const auto& [contents, policies] : cases) {
        CgroupMgr mgr;
        Read(mgr, contents);
        EXPECT_EQ(Log(), Summary("1001", policies)) << contents;
    }
}

TEST_F(CgroupMgrTest, ARejectedValueEndsTheReading) {
    const std::string cases[][3] = {
        // the value, the rest of the error line, the groups that are stored all the same
        {"\"ctrl:40;user:\"", "(user) or value() is empty", "ctrl:40;"},
        {"a:1;b:x;c:1", "=b, value=x", "a:1;b:0;"},
        {"a:2147483648", "=a, value=2147483648", "a:0;"},
    };
    MakeGroup("a");
    for (const auto& [value, error, stored] : cases) {
        CgroupMgr mgr;
        Read(mgr, "A=a:100\nS=" + value + "\nT=a:1\nHOST_CPU_SWITCH=0\n");
        // Only UpdateCpuSet still sets the limits that were read before.
        EXPECT_EQ(mgr.UpdateCgroup(Policy("A", 0, 0)), CGROUP_FAILED);
        mgr.DisableCgroupCpu();
        Texts expected = Summary("1000", {"A=a:100;", "S=" + stored});
        expected.insert(expected.begin(), "3 cgroup set(S) config invalid, groupName" + error);
        expected.push_back(BEGIN + "A, type=0, isEnable=0, isCfgOk_=0");
        EXPECT_EQ(Log(), expected);
        EXPECT_EQ(mgr.UpdateCpuSet(Policy("A", 0, 1)), CGROUP_OK);
        EXPECT_EQ(Quota("a"), HUNDRED);
    }
    Read(mgr_, "S=:40;a:1\n");
    EXPECT_EQ(Log().front(), "3 cgroup set(S) config invalid, groupName() or value(40) is empty");
}

TEST_F(CgroupMgrTest, HostCpuSwitch) {
    MakeGroup("a");
    for (const std::string value : {"0", "'0'", "00", "\"0'", "'", "0\nHOST_CPU_SWITCH=1"}) {
        const bool isOn = value != "0" && value != "'0'";
        CgroupMgr mgr;
        Read(mgr, "HOST_CPU_SET=a:100\nHOST_CPU_SWITCH=" + value + "\n");
        LogCapture::Clear();
        mgr.EnableDefaultCpuSet();
        EXPECT_EQ(Quota("a"), isOn ? HUNDRED : QUOTA_BEFORE) << value;
        EXPECT_EQ(Log(), Texts{isOn ? "6 EnableDefaultCgroupCpu"
                                    : "6 EnableDefaultCpuSet hostCpuSwitch_=0"});
    }
}

TEST_F(CgroupMgrTest, ComputedQuota) {
    struct Case {
        std::string period;
        int32_t percentage;
        uint32_t perCore;  // 0: the least quota
    };
    const Case cases[] = {
        {"100000\n", 40, 40000},     {"100000\n", 0, 0},   {"50999\n", 3, 1529},
        {"1000", 2147483, 21474830}, {"1000", 2147484, 0}, {"99999999999\n", 1, 0},
        {"-100000\n", 40, 0},
    };
    for (const auto& [period, percentage, perCore] : cases) {
        MakeGroup("g/h", period);
        CgroupMgr mgr;
        Read(mgr, "S=g/h:" + to_string(percentage) + "\n");
        EXPECT_EQ(mgr.UpdateCpuSet(Policy("S", 0, 1)), CGROUP_OK);
        const uint64_t quota = uint64_t{perCore} * CPU_NUM;
        EXPECT_EQ(Quota("g/h"), to_string(quota > INT32_MAX || quota < 1000 ? 1000 : quota))
            << period << percentage;
    }
}

TEST_F(CgroupMgrTest, UpdateCgroup) {
    const std::string longest(63, 'S');
    Read(mgr_, longest + "=b:100\nT=a:100;b:100;c:0\n");
    MakeGroup("b");
    fs::create_directories(CPU + "c" + QUOTA);
    EXPECT_EQ(mgr_.UpdateCgroup(Policy("U", 1, 1)), CGROUP_FAILED);
    EXPECT_EQ(mgr_.UpdateCpuSet(Policy("U", 0, 1)), CGROUP_OK);  // adds the set to the table
    EXPECT_EQ(mgr_.UpdateCgroup(Policy("U", 0, 1)), CGROUP_OK);
    LogCapture::Clear();
    EXPECT_EQ(mgr_.UpdateCgroup(Policy("V", 1, 1)), CGROUP_FAILED);
    EXPECT_EQ(mgr_.UpdateCgroup(Policy("T", 255, 0)), CGROUP_FAILED);
    EXPECT_EQ(Quota("b"), QUOTA_BEFORE);
    EXPECT_EQ(mgr_.UpdateCgroup(Policy("T", 0, 1)), CGROUP_FAILED);
    EXPECT_EQ(Quota("b"), HUNDRED);
    EXPECT_EQ(mgr_.UpdateCgroup(Policy(longest, 0, 0)), CGROUP_OK);
    EXPECT_EQ(Quota("b"), "-1");
    const auto of = [](const std::string& group, const std::string& file) {
        return CPU + group + file + " fail";
    };
    EXPECT_EQ(
        Log(),
        (Texts{
            BEGIN + "V, type=1, isEnable=1, isCfgOk_=1", "3 UpdateCgroup name=V policy not found",
            BEGIN + "T, type=255, isEnable=0, isCfgOk_=1",
            "3 UpdateCgroup name=T policy type=255 invalid",
            BEGIN + "T, type=0, isEnable=1, isCfgOk_=1", "3 open " + of("a", PERIOD),
            "3 WriteToCgroup, access " + of("a", QUOTA) + ", errno=2",
            "3 UpdateCpuSet write file=" + of("a", QUOTA), "3 open " + of("c", PERIOD),
            "3 WriteToCgroup, open " + of("c", QUOTA),
            "3 UpdateCpuSet write file=" + of("c", QUOTA), "6 UpdateCgroup finish, ret=15794959",
            BEGIN + longest + ", type=0, isEnable=0, isCfgOk_=1", "6 UpdateCgroup finish, ret=0"}));
}

TEST_F(CgroupMgrTest, DisableCgroupCpuVisitsTheFirstLevelOnly) {
    mgr_.DisableCgroupCpu();
    for (const std::string group : {"a", ".b", "a/sub", "../elsewhere", "."}) {
        MakeGroup(group);
    }
    fs::create_directories(CPU + "bare");
    fs::create_directory_symlink(CGROUPS + "elsewhere", CPU + "link");
    mgr_.DisableCgroupCpu();
    EXPECT_EQ(Log(), (Texts{"3 open dir=" + CPU + " fail", "6 DisableCgroupCpu",
                            "3 WriteToCgroup, access " + CPU + "bare" + QUOTA + " fail, errno=2"}));
    EXPECT_EQ(Quota("a") + Quota(".b"), "-1-1");
    for (const std::string group : {"a/sub", "../elsewhere", "."}) {
        EXPECT_EQ(Quota(group), QUOTA_BEFORE) << group;
    }
}

TEST_F(CgroupMgrTest, AddToCgroups) {
    BindFile("quiet\nro xcgroup1_writeback=1\n", "/proc/cmdline");
    fs::create_directories(CGROUPS + "blkio");
    Read(mgr_, "");
    std::string error = "before;";
    std::string expected = error;
    EXPECT_TRUE(mgr_.AddToCgroups({"n", 1, "", "", "", {}}, error));
    EXPECT_FALSE(mgr_.AddToCgroups(
        {"n", 1, "c", "s", "b", {{"pids", "p/q"}, {"devices", "d"}, {"memory", ""}}}, error));
    EXPECT_FALSE(mgr_.AddToCgroups(
        {"n", 1, "c", "../s", "..", {{"..", "p"}, {"pids", "p/../q"}, {"x", "a..b"}}}, error));
    for (const char* group : {"cpuset/s", "cpu/c", "devices/d", "pids/p/q", "blkio/b",
                              "memory/b_MEMORY", "cpu/c", "../p"}) {
        expected +=
            "add to group failed, cgroup path=" + CGROUPS + group + "/tasks is not existed;";
    }
    EXPECT_EQ(error, expected);

    // Missing groups do not keep the task out of the others.
    WriteFile(CGROUPS + "cpu/c/tasks", "7\n");
    WriteFile(CGROUPS + "memory/b_MEMORY/tasks", "");
    EXPECT_FALSE(mgr_.AddToCgroups({"n", 4711, "c", "s", "b", {}}, error));
    EXPECT_TRUE(mgr_.AddToCgroups({"n", INT32_MAX, "c", "../s", "", {}}, error));
    EXPECT_EQ(ReadFile(CGROUPS + "cpu/c/tasks"), "7\n4711\n2147483647\n");
    EXPECT_EQ(ReadFile(CGROUPS + "memory/b_MEMORY/tasks"), "4711\n");
}

TEST_F(CgroupMgrTest, BlkIoSwitchesAndFilesThatCannotBeRead) {
    // The tasks files of the blkio group "b".
    const auto paths = [this](const std::string& switches) {
        mgr_.ReadCfg();
        EXPECT_EQ(Log(), Summary(switches));
        return mgr_.GetTaskPaths({"n", 1, "", "", "b", {}});
    };
    const std::string group = CGROUPS + "blkio/b/tasks";
    BindFile("cgroup1_writebac\nk\n", "/proc/cmdline");
    WriteFile(CFG, "");
    EXPECT_EQ(paths("1001"), Texts{});
    fs::create_directories(CGROUPS + "blkio");
    EXPECT_EQ(paths("1101"), Texts{group});
    BindFile("cgroup1_writeback", "/proc/cmdline");
    fs::remove(CFG);
    fs::create_directories(CFG);
    EXPECT_EQ(paths("1111"), (Texts{group, CGROUPS + "memory/b_MEMORY/tasks"}));
    fs::remove(CFG);
    CgroupMgr mgr;
    mgr.ReadCfg();
    EXPECT_EQ(mgr.UpdateCgroup(Policy("S", 0, 1)), CGROUP_FAILED);
    EXPECT_EQ(Log(), (Texts{"3 ReadCfg, access " + CFG + " fail, errno=2",
                            BEGIN + "S, type=0, isEnable=1, isCfgOk_=0"}));
    EXPECT_EQ(mgr.GetTaskPaths({"n", 1, "", "", "b", {}}), Texts{});
}

}  // namespace
}  // namespace ProcMgr
