// Shared by the tests of resource control: threads and their cores, private versions of the files
// and directories that are read and written, and applications that are managed.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/managed_apps.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"
#include "tests/support/wait.h"

namespace ProcMgr {

using Fakes::FakeDevice;
using Fakes::LogCapture;
using std::to_string;
using Tests::ReadFile;
using Tests::WriteFile;
using Cores = std::set<uint32_t>;
using Lines = std::vector<Fakes::LogLine>;
using Texts = std::vector<std::string>;

inline const std::string CGROUPS = "/sys/fs/cgroup/";
inline const Cores BOTH = {0, 1};

inline Cores CoresOf(int32_t tid) {
    cpu_set_t set{};
    EXPECT_EQ(sched_getaffinity(tid, sizeof(set), &set), 0) << tid;
    Cores cores;
    for (uint32_t core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &set)) {
            cores.insert(core);
        }
    }
    return cores;
}

// False when the kernel refuses these cores.
inline bool SetCores(int32_t tid, const Cores& cores) {
    cpu_set_t set{};
    for (const uint32_t core : cores) {
        CPU_SET(core, &set);
    }
    return sched_setaffinity(tid, sizeof(set), &set) == 0;
}

// A thread of this process that only waits, on both cores.
class IdleThread {
public:
    explicit IdleThread(const std::string& name = "idle") {
        std::promise<int32_t> tid;
        thread_ = std::thread([&name, &tid, end = end_.get_future()] {
            prctl(PR_SET_NAME, name.c_str());
            SetCores(0, BOTH);
            tid.set_value(gettid());
            end.wait();
        });
        tid_ = tid.get_future().get();
    }
    ~IdleThread() { End(); }

    int32_t Tid() const { return tid_; }
    std::string Ids() const { return ", pid:" + to_string(getpid()) + ", tid:" + to_string(tid_); }
    // Returns after the thread has left /proc.
    void End() {
        if (thread_.joinable()) {
            end_.set_value();
            thread_.join();
            const std::string path = "/proc/self/task/" + to_string(tid_);
            EXPECT_TRUE(Tests::WaitUntil([&path] { return !std::filesystem::exists(path); }));
        }
    }

private:
    std::promise<void> end_;
    std::thread thread_;
    int32_t tid_ = 0;
};

// How many lines of that level were logged.
inline long CountLines(int level) {
    const Lines lines = LogCapture::Lines();
    return std::count_if(lines.begin(), lines.end(),
                         [level](const auto& line) { return line.level == level; });
}

// Managed applications. The fields are set before other threads use the object.
class FakeApps : public ManagedApps {
public:
    std::vector<ManagedApp> GetManagedApps(ManagedFilter filter) override {
        std::vector<ManagedApp> found = apps;
        if (filter == ManagedFilter::DELAYED) {
            onPass(++passes);
            std::erase_if(found, [](const ManagedApp& app) { return !app.isDelayed; });
        }
        return found;
    }
    bool IsPresent(const ManagedApp& app) override { return app.name != "gone"; }
    void NoteTids(const ManagedApp& app, const std::set<int32_t>& tids) override {
        for (ManagedApp& noted : apps) {
            noted.notedTids = noted.name == app.name ? tids : noted.notedTids;
        }
    }
    std::optional<std::string> GetNameOf(int32_t pid) override {
        const auto found = std::find_if(apps.begin(), apps.end(),
                                        [&](const ManagedApp& app) { return app.pid == pid; });
        return found == apps.end() ? std::nullopt : std::optional(found->name);
    }
    bool HasProcess(const std::string& name) override {
        return std::any_of(apps.begin(), apps.end(),
                           [&](const ManagedApp& app) { return app.name == name; });
    }
    bool IsKnown(const std::string& name) override {
        return HasProcess(name) || name == "configured";
    }

    std::vector<ManagedApp> apps;
    // Called with the number of each listing of the delayed applications; the bind's is the first.
    std::function<void(int pass)> onPass = [](int) {};
    std::atomic<int> passes{0};
};

// Empty directories in place of the control groups and of the configuration.
class ResourceTest : public testing::Test {
protected:
    void SetUp() final {
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "no private mount namespace here";
        }
        for (const char* path : {"/sys/fs/cgroup", "/usr/bin/vela", "/etc/sharepool"}) {
            MountTmpfs(path);
        }
        FakeDevice::Get().Reset();
        LogCapture::Clear();
        Prepare();
    }
    virtual void Prepare() {}
};

// Threads may be pinned to the cores 0 and 1.
class PinningTest : public ResourceTest {
protected:
    void Prepare() override {
        if (!SetCores(0, BOTH) || CoresOf(0) != BOTH) {
            GTEST_SKIP() << "needs the cores 0 and 1";
        }
    }
    static void MakeCpuset(const std::string& name, const std::string& cores) {
        WriteFile(CGROUPS + "cpuset/" + name + "/cpuset.cpus", cores + "\n");
    }

    CgroupMgr cgroups_;
    CoreAffinityMgr affinity_;
};

}  // namespace ProcMgr
