// The fixture of tests that use fixed paths below /run.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/private_mounts.h"

// Every test has an empty /run of its own, or is skipped where the kernel forbids that.
class PrivateRunTest : public testing::Test {
protected:
    void SetUp() override {
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "no private mount namespace here";
        }
        MountTmpfs("/run");
    }
};
