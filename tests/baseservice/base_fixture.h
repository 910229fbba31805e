// The base-service parts as the daemon wires them, with real processes and fakes for the platform
// libraries, and threads that reap and check as the daemon's do.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
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
#include "tests/fakes/fake_heartbeat.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/log_mask.h"

namespace ProcMgr {

inline constexpr std::chrono::seconds PATIENCE{30};
// A program that stays until it is told to end, or the test has long been over.
inline constexpr const char* STAYS = "exec sleep 60";

inline bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class BaseFixture : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root may start services";
        }
        Fakes::FakeMuxa::Get().Reset();
        Fakes::FakeHeartBeat::Get().Reset();
        Fakes::LogCapture::Clear();
        setenv("PROC_NAME", "PROCMGR", 1);
        char directory[] = "/tmp/base-services-XXXXXX";
        ASSERT_NE(mkdtemp(directory), nullptr);
        directory_ = directory;
    }

    void TearDown() override {
        Stop(checker_);
        Stop(reaper_);
        for (const pid_t pid : StartedPids()) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        Fakes::FakeMuxa::Get().Reset();
        if (!directory_.empty()) {
            std::filesystem::remove_all(directory_);
        }
    }

    // The daemon's reaper and CheckThread, each without its pauses.
    void StartReaper() {
        Repeat(reaper_, [this] { collector_.CollectExits(); });
    }
    void StartChecker() {
        Repeat(checker_, [this] { Check(); });
    }

    // One cycle of CheckThread.
    void Check(CheckPass pass = CheckPass::PERIODIC) {
        checks_.Begin(pass);
        services_.CheckBaseApps(pass);
        services_.RemoveTerminatedApps();
    }

    ManifestData Service(const std::string& name, const std::string& script,
                         const std::set<std::string>& depends = {}) const {
        ManifestData data;
        data.name = name;
        data.bin = "/bin/sh";
        data.args = {directory_ + "/" + name + ".sh"};
        std::ofstream(data.args[0]) << script << "\n";
        data.depends = depends;
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
    // Waits until the reaper has stored the exit of the service.
    static bool WaitForExitOf(const std::string& name) {
        return WaitUntil([&] { return !Between("PROCMGR : SetExitStatus " + name, ",").empty(); });
    }
    void Report(const std::string& name, BaseServiceStateType state) {
        services_.UpdateBaseAppState(
            name, state == BaseServiceStateType::RUNNING ? RUNNING : TERMINATING);
    }

    std::string WriteYaml(const std::string& text) const {
        std::string path = directory_ + "/base.yaml";
        std::ofstream(path) << text;
        EXPECT_EQ(chmod(path.c_str(), 0644), 0);
        return path;
    }
    static std::vector<Fakes::LogLine> MaskedLines() {
        auto lines = Fakes::LogCapture::Lines();
        // Most machines lack the console that boot-trace points are echoed on.
        std::erase_if(lines, [](const Fakes::LogLine& line) {
            return line.text.starts_with("procmgr open file=");
        });
        for (auto& line : lines) {
            line.text = MaskLog(line.text);
        }
        return lines;
    }
    static bool HasLine(int level, const std::string& masked) {
        const auto lines = MaskedLines();
        return std::find(lines.begin(), lines.end(), Fakes::LogLine{level, masked}) != lines.end();
    }
    // What stands between `begin` and `end` in each line that begins with `begin`, in order.
    static std::vector<std::string> Between(const std::string& begin, const std::string& end) {
        std::vector<std::string> found;
        for (const auto& [level, text] : MaskedLines()) {
            if (text.starts_with(begin)) {
                found.push_back(
                    text.substr(begin.size(), text.find(end, begin.size()) - begin.size()));
            }
        }
        return found;
    }
    static std::vector<std::string> StartedNames() {
        return Between("STAMP Start baseApp success appName=", ",");
    }

    std::string directory_;
    App::ProcessLauncher launcher_;
    ReportedState reportedState_;
    CheckRequests checks_;
    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}};
    ReportSender sender_{pipes_, {}};
    OwnerReports reports_{pipes_, sender_};
    BaseServices services_{launcher_, reportedState_, checks_,
                           pipes_,    reports_,       App::SensorNodeEventReporter::GetInstance()};
    BootCommandLine commandLine_;
    BaseStartup startup_{services_, reportedState_, commandLine_};
    Reaper collector_{{[this](int32_t pid, int32_t status) {
                          reaped_.insert(pid);
                          return services_.SetExitStatus(pid, status);
                      }},
                      [] {}};

private:
    struct Loop {
        std::atomic<bool> running{false};
        std::thread thread;
    };

    static void Repeat(Loop& loop, std::function<void()> body) {
        loop.running = true;
        loop.thread = std::thread([&loop, body = std::move(body)] {
            while (loop.running) {
                body();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    static void Stop(Loop& loop) {
        loop.running = false;
        if (loop.thread.joinable()) {
            loop.thread.join();
        }
    }
    // The processes that were not reaped, as the log tells. Call it when the reaper has ended.
    std::vector<pid_t> StartedPids() const {
        std::vector<pid_t> pids;
        for (const auto& [level, text] : Fakes::LogCapture::Lines()) {
            const size_t at = text.find(", pid=");
            if (at != std::string::npos && text.find("Start baseApp success") < at) {
                const pid_t pid = std::stoi(text.substr(at + 6));
                if (!reaped_.contains(pid)) {
                    pids.push_back(pid);
                }
            }
        }
        return pids;
    }

    std::set<pid_t> reaped_;  // the reaper's alone while it runs
    Loop reaper_;
    Loop checker_;
};

}  // namespace ProcMgr
