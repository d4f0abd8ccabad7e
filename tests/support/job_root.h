#pragma once

#include <cstdlib>
#include <string>

#include "support/temproot.h"

// A temporary root whose appliance tools (/sbin/initctl, /usr/zarn/sbin/zarnpkgctl,
// /usr/zarn/bin/zarnkosnotify) lead to the built binaries, so that jobs can be validated and run
// in it.
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
    // Does for a laid-out package what the service-cfg resource does at installation: installs
    // its own jobs and generates its job adapter and service configuration. The job follows the
    // package's `enabled` flag, which is set first unless `enabled` is false.
    void generateJob(const std::string& name, bool enabled = true);
};
