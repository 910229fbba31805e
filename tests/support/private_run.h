// The fixture of tests that meet others at fixed paths below /run, or log to files there.
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
