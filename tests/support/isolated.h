// Runs the body of a test in a child with a mount namespace of its own, for what a process can do
// or be only once and for files that it must not see anywhere else.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/private_mounts.h"

namespace ProcMgr {

inline constexpr int EXIT_SKIPPED = 77;

// Returns the raw wait status of the child: 0 when every expectation held.
template <typename Body>
int RunIsolated(Body body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (!EnterPrivateMountNamespace()) {
            _exit(EXIT_SKIPPED);
        }
        // What failed before the fork is no failure of this body.
        const auto* result = testing::UnitTest::GetInstance()->current_test_info()->result();
        const int before = result->total_part_count();
        body();
        std::fflush(nullptr);
        _exit(result->total_part_count() > before ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// For tests that use RunIsolated: skips them where the kernel forbids what it does.
class IsolatedTest : public testing::Test {
protected:
    void SetUp() override {
        const int status = RunIsolated([] {});
        if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SKIPPED) {
            GTEST_SKIP() << "no private mount namespace here";
        }
    }
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace ProcMgr
