// The placement of processes and threads, read back from the kernel: control groups that only the
// test uses, with the fixed names that the daemon expects.
#include <sched.h>

#include <algorithm>
#include <map>
#include <set>

#include "agent/owner_channel.h"
#include "agent/upload.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"
#include "tests/support/real_cgroups.h"

namespace {

using namespace std::chrono_literals;
using ProcMgr::Agent::OwnerChannel;
using ProcMgr::Message::DelayCoreAffinityReq;

std::set<pid_t> ThreadsOf(pid_t pid) {
    std::set<pid_t> tids;
    std::error_code gone;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", gone)) {
        tids.insert(std::stoi(entry.path().filename()));
    }
    return tids;
}

std::string CoresOf(pid_t tid) {
    cpu_set_t set;
    std::string cores;
    if (sched_getaffinity(tid, sizeof(set), &set) == 0) {
        for (unsigned core = 0; core < CPU_SETSIZE; ++core) {
            cores += CPU_ISSET(core, &set) ? std::to_string(core) + " " : "";
        }
    }
    return cores;
}

class Placement : public E2e {
protected:
    static constexpr const char* QUOTA = "/sys/fs/cgroup/cpu/video/cpu.cfs_quota_us";

    void SetUp() override {
        E2e::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (std::thread::hardware_concurrency() < 2) {
            GTEST_SKIP() << "needs two cores";
        }
        try {
            groups_.emplace(std::vector<std::string>{"cpu", "cpuset", "memory", "blkio"});
        } catch (const std::runtime_error& failure) {
            GTEST_SKIP() << failure.what();
        }
        groups_->Make("cpuset", "CtrlCPU", "0");
        groups_->Make("cpuset", "AICPU", "1");
        groups_->Make("cpuset", "both", "0-1");
        groups_->Make("cpu", "OTHER");
        groups_->Make("cpu", "video");
        groups_->Make("memory", "video");
        groups_->Make("memory", "disk_MEMORY");
        groups_->Make("blkio", "disk");
        WriteFile(QUOTA, "50000");
    }
    void TearDown() override {
        E2e::TearDown();
        harness_.KillAll();
        groups_.reset();
    }

    // A service that announces its process before it performs `args`.
    std::string Service(const std::string& name, const std::string& more,
                        const std::string& args = "stay") {
        beacons_.try_emplace(name, In(name));
        return Entry(name, "hello, " + In(name) + ", " + args, more);
    }
    // Waits until the service runs its program, and returns its process.
    pid_t Await(const std::string& name) { return beacons_.at(name).Next(); }
    // Whether `isPlaced` holds for each thread of a process, at least `count`.
    template <typename Predicate>
    static bool AreAllPlaced(pid_t pid, size_t count, Predicate isPlaced) {
        const std::set<pid_t> tids = ThreadsOf(pid);
        return tids.size() >= count && std::all_of(tids.begin(), tids.end(), isPlaced);
    }
    // "CPUSET CPU MEMORY BLKIO CORES" of a thread.
    std::string Where(pid_t pid, pid_t tid) {
        std::string text;
        for (const char* controller : {"cpuset", "cpu", "memory", "blkio"}) {
            text += groups_->GroupOf(pid, tid, controller) + " ";
        }
        return text + CoresOf(tid);
    }

    std::optional<RealCgroups> groups_;
    std::map<std::string, Beacon> beacons_;
};

TEST_F(Placement, EveryProcessIsWhereItsManifestSays) {
    DaemonHarness::SetCommandLine("quiet cgroup1_writeback");
    BindFile("HOST_CPU_SET=video:40;OTHER:60\n", "/usr/bin/vela/env.cfg");
    BootWhole(
        Service("plain", "") +
        Service("video",
                "cpuset: both, resource_group: video, blkio_group: disk, "
                "cgroups: {memory: video}, core_affinity: [0]") +
        // Is no longer root when it is bound to its cores.
        Service("ai", "uid: 1000, gid: 1000, core_affinity: [1]") +
        Service("up", "cpuset: '../..', resource_group: '../../..', cgroups: {memory: 'a/../b'}") +
        Service("absolute", "cpuset: '/AICPU', resource_group: '/video'") +
        Service("missing", "cpuset: nowhere, resource_group: video") +
        Service("foreign", "core_affinity: [0, 1000]"));
    const std::map<std::string, std::string> expected = {
        {"plain", "/CtrlCPU /OTHER / / 0 "},  {"video", "/both /video /disk_MEMORY /disk 0 "},
        {"ai", "/AICPU /OTHER / / 1 "},       {"up", "/CtrlCPU /OTHER / / 0 "},
        {"absolute", "/AICPU /video / / 1 "}, {"missing", "/CtrlCPU /video / / 0 "},
    };
    for (const auto& [name, where] : expected) {
        const pid_t pid = Await(name);
        ASSERT_GT(pid, 0) << name;
        EXPECT_EQ(Where(pid, pid), where) << name;
    }
    EXPECT_EQ(ReadFile(QUOTA), "50000\n");
    EXPECT_TRUE(
        WaitForLine("add to group failed, cgroup path=/sys/fs/cgroup/cpuset/nowhere/tasks "
                    "is not existed;"));
    EXPECT_TRUE(WaitForLine("CheckIsCtrlCpu app=foreign, coreId=1000 is not in CtrlCpu"));
    EXPECT_EQ(Log().Count("success appName=foreign"), 0U);
    // All threads of the daemon itself.
    const pid_t daemon = harness_.GetPid();
    EXPECT_TRUE(WaitUntil([&] {
        return AreAllPlaced(daemon, 1, [&](pid_t tid) {
            return groups_->GroupOf(daemon, tid, "cpuset") == "/CtrlCPU" &&
                   groups_->GroupOf(daemon, tid, "cpu") == "/OTHER" && CoresOf(tid) == "0 ";
        });
    }));
}

TEST_F(Placement, PriorityApplicationsAndTheirThreadsArePlacedByTheCheck) {
    WriteFile(BASE_YAML, "applications:\n" +
                             Service("first",
                                     "startup_priority: 1, cpuset: both, "
                                     "core_affinity: [0], resource_group: video",
                                     "breed, 3, stay") +
                             Service("second", "startup_priority: 2", "breed, 3, stay"));
    harness_.Start({BASE_YAML});
    for (const auto& [name, where] :
         {std::pair("first", "/both /video / / 0 "), {"second", "/CtrlCPU /OTHER / / 0 "}}) {
        const pid_t pid = Await(name);
        EXPECT_TRUE(WaitUntil([&pid, this, expected = std::string(where)] {
            return AreAllPlaced(pid, 5, [&](pid_t tid) { return Where(pid, tid) == expected; });
        })) << name;
    }
}

TEST_F(Placement, ADelayedServiceIsBoundOnRequestWithTheThreadsThatItMakesMeanwhile) {
    Boot(Owner("owner") + Service("late",
                                  "cpuset: both, core_affinity: [1], delay_core_affinity: true",
                                  "await, " + In("go") + ", breed, 20, stay"));
    OwnerChannel owner("owner");
    ASSERT_TRUE(owner.Attach(PATIENCE));
    owner.ReportRunning();
    const pid_t pid = Await("late");
    EXPECT_EQ(CoresOf(pid), "0 1 ") << "all of its cpuset";
    WriteFile(In("go"), "");
    DelayCoreAffinityReq request;
    request.checkInterval = 100;
    request.checkNum = 100;
    EXPECT_EQ(owner.SetDelayCoreAffinity(request, PATIENCE), 0U);
    EXPECT_EQ(CoresOf(pid), "1 ");
    EXPECT_EQ(owner.SetDelayCoreAffinity(request, PATIENCE), 0U) << "ignored";
    EXPECT_TRUE(WaitForLine("coreAffinityOk=1"));
    // Threads that change their cores after the last check are bound by a further request.
    EXPECT_TRUE(WaitUntil([&] {
        if (AreAllPlaced(pid, 22, [](pid_t tid) { return CoresOf(tid) == "1 "; })) {
            return true;
        }
        for (const bool isBind : {false, true}) {
            request.state = isBind ? 0 : 1;
            owner.SetDelayCoreAffinity(request, PATIENCE);
        }
        return false;
    }));
    request.state = 1;
    EXPECT_TRUE(WaitUntil([&] { return owner.SetDelayCoreAffinity(request, PATIENCE) == 0; }))
        << "finished, so it may be reset";
    request.state = 2;
    EXPECT_EQ(owner.SetDelayCoreAffinity(request, PATIENCE), 15794956U);
}

TEST_F(Placement, ThePlatformTellsOfASuspendAndTheWakeUp) {
    groups_->Make("cpuset", "one", "0");
    WriteFile("/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus", "0-1");
    WriteFile("/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus", "0");
    Boot(Owner("owner") +
         // The kernel refuses a core that is not in the cpuset.
         Service("late", "cpuset: one, core_affinity: [1], delay_core_affinity: true"));
    OwnerChannel owner("owner");
    ASSERT_TRUE(owner.Attach(PATIENCE));
    owner.ReportRunning();
    Await("late");
    DelayCoreAffinityReq request;
    request.checkInterval = 100;
    request.checkNum = -1;
    EXPECT_EQ(owner.SetDelayCoreAffinity(request, PATIENCE), 15794956U);
    EXPECT_TRUE(WaitForLine("PROCMGR : CheckMissingTids SetCoreAffinityToOs failed err="));
    const RawPeer power("/run/muxa/power");
    for (const auto& [word, line] : {std::pair("suspend", "CheckCoreAffinityThread suspend"),
                                     {"resume", "WakeUpRecover success"}}) {
        ASSERT_TRUE(power.Send(word));
        EXPECT_EQ(power.Receive(), "ok");
        EXPECT_TRUE(WaitForLine(line));
    }
}

using SharePool = E2e;

TEST_F(SharePool, ProcessesJoinTheirGroupsAndRegisterUnderTheirOwnNameOnly) {
    MountTmpfs("/etc/sharepool");
    WriteFile("/etc/sharepool/a.yaml",
              "groups:\n"
              "  - {name: frames, size: 1048576, members: [{app: camera, access: read-write},\n"
              "                                            {app: viewer, access: read}]}\n"
              "  - {name: other, size: 4096, members: [{app: somebody, access: read}]}\n");
    WriteFile("/etc/sharepool/b.yaml", "groups: [{name: open, size: 1}]\n", 0666);
    WriteFile("/etc/sharepool/c.yaml", "groups: [{name: broken\n");
    BindFile("pmupload:\n  enable: true\n", SETTINGS);
    const auto upload = [](const std::string& answer) {
        return "upload, camera, " + In(answer) + ", stay";
    };
    std::string family;
    for (const char* name : {"family", "nobody", "late"}) {
        family += std::string(SERVICE) + " upload " + name + " " + In("family") + "\n";
    }
    WriteFile(In("family.sh"), family + ":\n");
    Boot("  - {name: family, bin: /bin/sh, uid: 1000, gid: 1000, args: [" + In("family.sh") +
         "]}\n" + Entry("camera", "dump, " + In("camera") + ", " + upload("own")) +
         // Both register under the name of the camera.
         Entry("liar", upload("root"), "depends: [camera]") +
         Entry("guest", upload("guest"), "uid: 1000, gid: 1000, depends: [camera]") +
         Entry("plain", "dump, " + In("plain") + ", stay") + "applications:\n" + Entry("late"));
    for (const auto& [file, answer] :
         {std::pair("own", "0 frames\n"), {"root", "4\n"}, {"guest", "4\n"}}) {
        EXPECT_TRUE(WaitUntil([path = In(file)] { return !ReadFile(path).empty(); })) << file;
        EXPECT_EQ(ReadFile(In(file)), answer) << file;
    }
    // A child of a service may use its parent's name, or a name that is not configured.
    EXPECT_TRUE(WaitUntil([] { return ReadFile(In("family")).size() >= 6; }));
    EXPECT_EQ(ReadFile(In("family")), "0\n0\n4\n");
    const std::string dump = ReadFile(In("camera"));
    EXPECT_NE(dump.find("\nSHAREPOOL_GROUP_NAME=frames\n"), std::string::npos) << dump;
    EXPECT_NE(dump.find("\nSHAREGROUP_PRECONFIG=1\n"), std::string::npos) << dump;
    ASSERT_TRUE(WaitForFile("plain"));
    EXPECT_EQ(ReadFile(In("plain")).find("SHARE"), std::string::npos);
    const std::string device = ReadFile(DEVICE_LOG);
    EXPECT_NE(device.find("group-create name=frames size=1048576\n"), std::string::npos);
    EXPECT_EQ(device.find("name=open"), std::string::npos) << "others may write to its file";
    const size_t added = device.find("group-add name=frames");
    EXPECT_NE(added, std::string::npos);
    EXPECT_EQ(device.find("group-add", added + 1), std::string::npos)
        << "a process joins a group once";
    // The test is root, but its pid is not the one that the daemon sees in its own namespace.
    const auto own = ProcMgr::Agent::RegisterUpload("viewer", {"frames", "other"}, PATIENCE);
    ASSERT_TRUE(own);
    EXPECT_EQ(own->result, ProcMgr::Message::UploadResult::NOT_THE_SENDER);
}

}  // namespace
