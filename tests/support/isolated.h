// Runs the body of a test in a child with a mount namespace of its own: for what a process can do
// or be only once, and for files at fixed paths.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/private_mounts.h"

namespace ProcMgr {

using Tests::ReadFile;

inline constexpr int EXIT_SKIPPED = 77;

// Returns the raw wait status of the child: 0 when every expectation of `body` held, EXIT_SKIPPED
// as the exit code where the kernel forbids the namespace.
template <typename Body>
int RunIsolated(Body body) {
    std::fflush(nullptr);
    Tests::Child child([&] {
        if (!EnterPrivateMountNamespace()) {
            return EXIT_SKIPPED;
        }
        // Failures from before the fork are not counted.
        const auto* result = testing::UnitTest::GetInstance()->current_test_info()->result();
        const int before = result->total_part_count();
        body();
        std::fflush(nullptr);
        return result->total_part_count() > before ? 1 : 0;
    });
    return child.Wait();
}

// The fixture of tests that use RunIsolated: skips them where the kernel forbids the namespace.
class IsolatedTest : public testing::Test {
protected:
    void SetUp() override {
        const int status = RunIsolated([] {});
        if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SKIPPED) {
            GTEST_SKIP() << "no private mount namespace here";
        }
    }

public:
    // Runs `body` with RunIsolated; its failures are failures of the test.
    template <typename Body>
    static void Isolated(Body body) {
        EXPECT_EQ(RunIsolated(body), 0);
    }
};

}  // namespace ProcMgr
