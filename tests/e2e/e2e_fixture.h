// The daemon with a platform that the test writes. Every test ends with an orderly stop that has to
// succeed, so that a daemon which is down, hangs or has a sanitizer's report fails its test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/daemon_harness.h"
#include "tests/support/log_mask.h"
#include "tests/support/private_mounts.h"

inline constexpr std::chrono::seconds PATIENCE{30};
// Sanitizers make everything slower; limits on time are multiplied by this.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int SLOWER = 5;
#else
inline constexpr int SLOWER = 1;
#endif
inline constexpr const char* DIRECTORY = "/run/e2e";
inline constexpr const char* BASE_YAML = "/run/e2e/base.yaml";
inline constexpr const char* SERVICE = "/run/e2e/test_service";
inline constexpr const char* MARKER = "/sys/fs/cgroup/notify_pm_done";
// The last line of base start-up.
inline constexpr const char* START_UP_END = "PROCMGR : EnableWatchDog flag=";

class E2e : public testing::Test {
protected:
    void SetUp() override {
        if (!harness_.IsReady()) {
            GTEST_SKIP() << harness_.Error();
        }
        // The build directory need not be open to the users that services run as.
        std::filesystem::create_directory(DIRECTORY);
        std::filesystem::permissions(DIRECTORY, std::filesystem::perms(01777));
        std::filesystem::copy_file(TEST_SERVICE, SERVICE);
    }

    void TearDown() override {
        if (harness_.IsReady() && isStarted_ && !harness_.WaitForExit(std::chrono::seconds(0))) {
            ExpectOrderlyStop();
        }
        if (HasFailure() && harness_.IsReady()) {
            for (const auto& message : harness_.Log().Messages()) {
                std::cerr << message.level << " " << message.text << "\n";
            }
        }
    }

    void Start(const std::vector<std::string>& arguments) {
        isStarted_ = harness_.Start(arguments);
        ASSERT_TRUE(isStarted_) << harness_.Error();
    }
    // Starts the daemon with a YAML file of these services.
    void Boot(const std::string& entries) {
        WriteFile(BASE_YAML, "services:\n" + entries);
        Start({BASE_YAML});
    }
    void ExpectOrderlyStop(std::chrono::milliseconds patience = PATIENCE) {
        harness_.Signal(SIGTERM);
        const auto status = harness_.WaitForExit(patience);
        ASSERT_TRUE(status) << "the daemon does not end";
        EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "status " << *status;
    }
    // With services that end at once.
    void ExpectPromptStop() { ExpectOrderlyStop(std::chrono::seconds(3) * SLOWER); }

    static void WriteFile(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
        ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    }
    static std::string ReadFile(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static std::string In(const std::string& name) { return std::string(DIRECTORY) + "/" + name; }
    // One entry of the list of services; `args` and `more` as in YAML.
    static std::string Entry(const std::string& name, const std::string& args = "stay",
                             const std::string& more = "") {
        return "  - {name: " + name + ", bin: " + SERVICE + ", args: [" + args + "]" +
               (more.empty() ? "" : ", " + more) + "}\n";
    }

    bool WaitForLine(const std::string& part) { return harness_.Log().WaitFor(part, PATIENCE); }
    static bool WaitUntil(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    // "LEVEL TEXT" with what differs from run to run masked.
    std::vector<std::string> MaskedLines() {
        std::vector<std::string> lines;
        for (const auto& message : harness_.Log().Messages()) {
            // Most machines lack the console that boot-trace points are echoed on.
            if (!message.text.starts_with("procmgr open file=")) {
                lines.push_back(std::to_string(message.level) + " " + MaskLog(message.text));
            }
        }
        return lines;
    }

    DaemonHarness harness_{PROCESS_MANAGER};

private:
    bool isStarted_ = false;
};
