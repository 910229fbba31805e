// The base-service objects wired as in the daemon, with real processes, fake platform libraries,
// and an optional thread in place of the daemon's reaper. Tests call the passes of CheckThread. The
// fixtures of the general applications are derived from this one.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app/reaper.h"
#include "baseservice/base_services.h"
#include "baseservice/base_startup.h"
#include "channel/owner_pipes.h"
#include "channel/owner_reports.h"
#include "platform/host/manifest_data.h"
#include "resource/device_worker.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/fake_heartbeat.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/files.h"
#include "tests/support/log_mask.h"
#include "tests/support/wait.h"

namespace ProcMgr {

using Fakes::FakeDevice;
using Fakes::FakeHeartBeat;
using Fakes::FakeMuxa;
using Fakes::LogCapture;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Tests::PATIENCE;
using Tests::WaitUntil;

// A program that runs until a signal ends it, at most for a minute.
inline constexpr const char* STAYS = "exec sleep 60";

class BaseFixture : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root may start services";
        }
        FakeMuxa::Get().Reset();
        FakeHeartBeat::Get().Reset();
        FakeDevice::Get().Reset();
        LogCapture::Clear();
        setenv("PROC_NAME", "PROCMGR", 1);
    }
    void TearDown() override {
        reaper_ = {};
        Visit(App::RecordVisitor::ForAll([](App::AppInfo& app) {
            if (app.IsAlive()) {
                kill(app.pid_, SIGKILL);
                waitpid(app.pid_, nullptr, 0);
            }
            return false;
        }));
        faults_.UnregisterAll();
        FakeMuxa::Get().Reset();
    }

    // The container under test.
    virtual bool Visit(const App::RecordVisitor& visitor) { return services_.Visit(visitor); }
    virtual bool StoreExit(int32_t pid, int32_t status) {
        return services_.SetExitStatus(pid, status);
    }

    void StartReaper() {
        reaper_ = std::jthread([this](const std::stop_token& stop) {
            const auto collect = [&] {
                collector_.CollectExits();
                return stop.stop_requested();
            };
            WaitUntil(collect, std::chrono::hours(1));
        });
    }
    // The reaper and the sensor nodes, whose worker thread logs at any time.
    void Supervise() {
        if (!IsSkipped()) {
            faults_.RegisterNodes();
            StartReaper();
            LogCapture::Clear();
        }
    }
    static std::vector<std::string> DeviceCalls() {
        DeviceWorker().Drain(SteadyTime::max());
        return FakeDevice::Get().Calls();
    }
    // One cycle of CheckThread.
    void Check(CheckPass pass = CheckPass::PERIODIC) {
        checks_.Begin();
        services_.CheckBaseApps(pass);
        services_.RemoveTerminatedApps(pass);
        checks_.End();
        if (checks_.TakeCompletion()) {
            services_.Complete();
        }
    }

    ManifestData Service(const std::string& name, const std::string& script,
                         const std::string& policy = "", const std::set<std::string>& depends = {},
                         bool isReporting = false) const {
        ManifestData data;
        data.name = name;
        data.bin = "/bin/sh";
        data.args = {directory_ / (name + ".sh")};
        Tests::WriteFile(data.args[0], script + "\n");
        data.restart = policy;
        data.depends = depends;
        data.reporting = isReporting;
        return data;
    }
    static App::BaseAppInfo Record(const ManifestData& data) {
        return App::BaseAppInfo(ApplicationManifest(std::make_shared<const ManifestData>(data)));
    }
    // Starts the service and returns its pid.
    pid_t Start(const ManifestData& data) {
        App::BaseAppInfo record = Record(data);
        EXPECT_TRUE(services_.Start(record));
        EXPECT_TRUE(services_.Announce(record));
        return record.pid_;
    }
    pid_t PidOf(const std::string& name) {
        pid_t pid = -1;
        Visit(App::RecordVisitor::ForAll([&](const App::AppInfo& app) {
            pid = app.appName_ == name ? app.pid_ : pid;
            return false;
        }));
        return pid;
    }
    // Wait until the reaper has stored the exit of the service; KillAndWait() kills it first.
    static bool WaitForExitOf(const std::string& name, size_t count = 1) {
        return WaitUntil([&] { return CountExits(name) >= count; });
    }
    void KillAndWait(const std::string& name) {
        const size_t exits = CountExits(name);
        kill(PidOf(name), SIGKILL);
        ASSERT_TRUE(WaitForExitOf(name, exits + 1));
    }
    void ReportRunning(const std::string& name) { services_.UpdateBaseAppState(name, RUNNING); }

    // "LEVEL TEXT" of all lines, without the parts that differ from run to run.
    static std::vector<std::string> MaskedLines() {
        std::vector<std::string> lines;
        for (const auto& [level, text] : LogCapture::Lines()) {
            // Most machines lack the console device on which boot-trace points are written.
            if (!text.starts_with("procmgr open file=")) {
                lines.push_back(std::to_string(level) + " " + MaskLog(text));
            }
        }
        return lines;
    }
    // The text from `begin` to `end` of each line whose text begins with `begin`, in order.
    static std::vector<std::string> Between(const std::string& begin, const std::string& end) {
        std::vector<std::string> found;
        for (const std::string& line : MaskedLines()) {
            const size_t from = 2 + begin.size();
            if (line.find(begin) == 2) {
                found.push_back(line.substr(from, line.find(end, from) - from));
            }
        }
        return found;
    }
    static size_t CountExits(const std::string& name) {
        return Between("PROCMGR : SetExitStatus " + name, ",").size();
    }
    static std::vector<std::string> StartedNames() {
        return Between("STAMP Start baseApp success appName=", ",");
    }

    const Tests::TempDirectory directory_;
    App::ProcessLauncher launcher_{CgroupMgr::GetInstance(), CoreAffinityMgr::GetInstance(),
                                   BindCount::GetInstance()};
    ReportedState reportedState_;
    CheckRequests checks_;
    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}};
    ReportSender sender_{pipes_, {}};
    OwnerReports reports_{pipes_, sender_};
    App::SensorNodeEventReporter& faults_ = App::SensorNodeEventReporter::GetInstance();
    BaseServices services_{launcher_, reportedState_, checks_, pipes_, reports_, faults_};
    BootCommandLine commandLine_;
    BaseStartup startup_{services_, reportedState_, commandLine_};

    Reaper collector_{{[this](int32_t pid, int32_t status) { return StoreExit(pid, status); }},
                      [] {},
                      [] { return false; }};
    std::jthread reaper_;
};

}  // namespace ProcMgr
