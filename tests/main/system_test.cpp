#include "main/system.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

namespace ProcMgr {
namespace {

namespace fs = std::filesystem;

TEST(StandardizationPath, ResolvesLinksAndDots) {
    const fs::path directory = fs::path(testing::TempDir()) / ("path" + std::to_string(getpid()));
    fs::create_directories(directory / "real");
    std::ofstream(directory / "real" / "file").flush();
    fs::create_symlink("real", directory / "link");
    const std::string expected = fs::canonical(directory / "real" / "file");

    std::string out = "before";
    EXPECT_TRUE(StandardizationPath(directory / "link/../link/./file", out));
    EXPECT_EQ(out, expected);
    fs::remove_all(directory);

    out = "before";
    for (const std::string& in : {expected, std::string(), std::string("no/such/file")}) {
        EXPECT_FALSE(StandardizationPath(in, out)) << in;
        EXPECT_EQ(out, "before");
    }
}

TEST(StandardizationPath, TakesAtMost4096Characters) {
    std::string out;
    EXPECT_TRUE(StandardizationPath(std::string(4096, '/'), out));
    EXPECT_EQ(out, "/");
    EXPECT_FALSE(StandardizationPath(std::string(4097, '/'), out));
}

TEST(SleepFor, GoesOnAfterInterruptions) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    struct itimerval timer {
        {0, 3000}, { 0, 3000 }
    };
    setitimer(ITIMER_REAL, &timer, nullptr);
    const auto start = std::chrono::steady_clock::now();
    SleepFor(std::chrono::milliseconds(60));
    const auto slept = std::chrono::steady_clock::now() - start;
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(slept, std::chrono::milliseconds(60));
    EXPECT_LT(slept, std::chrono::seconds(5));
}

}  // namespace
}  // namespace ProcMgr
