#pragma once

#include <cstdlib>

#include "support/temproot.h"

// A temporary root whose appliance tools (/sbin/initctl, /usr/zarn/sbin/zarnpkgctl) lead to the
// built zarn-initctl and zarnpkgctl, so that jobs can be validated and run in it.
class JobRootTest : public TempRootTest {
protected:
    void SetUp() override {
        setenv("ZARNPKG_TOOLS_DIR", ZARN_BINARY_DIR, 1);
        TempRootTest::SetUp();
    }
    void TearDown() override {
        TempRootTest::TearDown();
        unsetenv("ZARNPKG_TOOLS_DIR");
    }
};
