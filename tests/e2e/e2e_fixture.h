// The fixture of all end-to-end tests: the built daemon on a platform that the test describes in
// YAML. Every test ends with an orderly stop that has to succeed, so a daemon that has crashed,
// hangs or has a sanitizer report fails its test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/daemon_harness.h"
#include "tests/support/files.h"
#include "tests/support/log_mask.h"
#include "tests/support/private_mounts.h"
#include "tests/support/wait.h"

using ProcMgr::Tests::Child;
using ProcMgr::Tests::PATIENCE;
using ProcMgr::Tests::ReadFile;
using ProcMgr::Tests::SLOWER;
using ProcMgr::Tests::WaitUntil;
using ProcMgr::Tests::WriteFile;

inline constexpr const char* DIRECTORY = "/run/e2e";
inline constexpr const char* BASE_YAML = "/run/e2e/base.yaml";
inline constexpr const char* SERVICE = "/run/e2e/test_service";
inline constexpr const char* MARKER = "/sys/fs/cgroup/notify_pm_done";
inline constexpr const char* SETTINGS = "/etc/vela/base-plat/process-manager/procmgr_cfg.yaml";
inline constexpr const char* HASH_FILE = "/etc/vela/base-plat/process-manager/bin_hash.cfg";
inline constexpr const char* HEARTBEAT_SOCKET = "/run/heartbeat.sock";
inline constexpr const char* UPLOAD_SOCKET = "/run/muxa/server/pmupload";
// The calls of the simulated device library.
inline constexpr const char* DEVICE_LOG = "/run/device-sim.log";
// The last line of base start-up.
inline constexpr const char* START_UP_END = "PROCMGR : EnableWatchDog flag=";

class E2e : public testing::Test {
protected:
    void SetUp() override {
        if (!harness_.Error().empty()) {
            GTEST_SKIP() << harness_.Error();
        }
        // A copy, because the users that services run as may not be allowed to read the build.
        std::filesystem::create_directory(DIRECTORY);
        std::filesystem::permissions(DIRECTORY, std::filesystem::perms(01777));
        std::filesystem::copy_file(TEST_SERVICE, SERVICE);
    }

    void TearDown() override {
        if (harness_.IsStarted()) {
            ExpectOrderlyStop();
        }
        if (HasFailure()) {
            for (const auto& message : Log().Messages()) {
                std::cerr << message.level << " " << message.text << "\n";
            }
        }
    }

    // Boot() starts the daemon with these entries of the list of services, BootWhole() also waits
    // for the end of start-up.
    void Boot(const std::string& entries) {
        WriteFile(BASE_YAML, "services:\n" + entries);
        harness_.Start({BASE_YAML});
    }
    void BootWhole(const std::string& entries) {
        Boot(entries);
        ASSERT_TRUE(WaitForLine(START_UP_END));
    }
    void ExpectOrderlyStop(int signal = SIGTERM) {
        harness_.Signal(signal);
        const auto status = harness_.WaitForExit();
        ASSERT_TRUE(status) << "the daemon does not end";
        EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "status " << *status;
    }
    // Before the next start in the same test, and when the end was not an orderly stop.
    void EndRun() {
        harness_.KillAll();
        Log().Clear();
    }

    // A file of the test, by its name in DIRECTORY.
    static std::string In(const std::string& name) { return std::string(DIRECTORY) + "/" + name; }
    static bool Exists(const std::string& name) { return std::filesystem::exists(In(name)); }
    static bool WaitForFile(const std::string& name) {
        return WaitUntil([&] { return Exists(name); });
    }

    // Entries of the lists of services and applications; `args` and `more` as in YAML.
    static std::string Entry(const std::string& name, const std::string& args = "stay",
                             const std::string& more = "") {
        return "  - {name: " + name + ", bin: " + SERVICE + ", args: [" + args + "]" +
               (more.empty() ? "" : ", " + more) + "}\n";
    }
    // A service whose pipe the test attaches to in its place.
    static std::string Owner(const std::string& name) {
        return Entry(name, "stay", "reporting: true");
    }
    // A service that attaches to its own pipe, adds the reports that it gets to the file "reports"
    // and reports RUNNING.
    static std::string Reporter(const std::string& name, const std::string& first = "") {
        return Entry(name,
                     first + "attach, " + name + ", " + In("reports") + ", report, running, stay",
                     "reporting: true");
    }
    // An application that runs until it is ended.
    static std::string App(const std::string& name, const std::string& more = "") {
        return "  - {name: " + name + ", bin: /bin/sleep, args: ['1000']" + more + "}\n";
    }

    SyslogSink& Log() { return harness_.Log(); }
    bool WaitForLine(const std::string& part) { return Log().WaitFor(part); }
    // "LEVEL TEXT" of all lines, with the parts masked that differ from run to run.
    std::vector<std::string> MaskedLines() {
        std::vector<std::string> lines;
        for (const auto& message : Log().Messages()) {
            // Most machines lack the console that boot-trace points are echoed on.
            if (!message.text.starts_with("procmgr open file=")) {
                lines.push_back(std::to_string(message.level) + " " + MaskLog(message.text));
            }
        }
        return lines;
    }

    DaemonHarness harness_{PROCESS_MANAGER};
};
