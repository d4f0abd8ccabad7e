#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "platform/errors.h"
#include "platform/files.h"
#include "resource/discovery.h"
#include "support/resource_fixture.h"

using namespace ZARNPackageTool::Resource;

namespace {

class DiscoveryTest : public ResourceTest {
protected:
    // "type@provider" of each runnable worker, in order.
    std::string workers(TIMING timing, bool expected = true) {
        WorkerList list;
        EXPECT_EQ(expected, FindRunnableWorkers(timing, list));
        std::string text;
        for (const auto& proxy : list) {
            text += proxy->GetResourceID() + "@" + proxy->GetProvider() + " ";
        }
        return text;
    }
    static bool mapped(const std::string& library) {
        std::ifstream maps("/proc/self/maps");
        std::ostringstream text;
        text << maps.rdbuf();
        return text.str().find(library) != std::string::npos;
    }
};

TEST_F(DiscoveryTest, PluginDeclarationsAreTakenOrRefusedWithTheirCode) {
    writeFile("/usr/lib/not-a-library.so", "text");
    // A real library without the entry points.
    std::ifstream in(ZARN_BINARY_DIR "/libzarnhost.so", std::ios::binary);
    std::ostringstream library;
    library << in.rdbuf();
    writeFile("/usr/lib/no-entry.so", library.str(), 0755);
    struct Case {
        Json::Value decl;
        TIMING timing;
        int code;  // 0: taken
    };
    const Case cases[] = {
        {decl("new", "0x0012"), TIMING_POSTINST, 0},
        {decl("new", "0x0012"), TIMING_ENABLE, 0xd900},
        {decl("new", "0x0013", 1, 1), TIMING_PREINST, 0xd900},
        {decl("new", "0x0013", 2, 0), TIMING_PREINST, 0xd900},
        {decl("usr-local-linker", "0x0088"), TIMING_STARTUP, 0x2100},
        {decl("service-cfg", "0x0012"), TIMING_POSTINST, 0x2100},
        {decl("new", "0x0013", 1, 0, "/usr/lib/missing.so"), TIMING_PREINST, 0x900},
        {decl("new", "0x0013", 1, 0, "/usr/lib/not-a-library.so"), TIMING_PREINST, 0x900},
        {decl("new", "0x0013", 1, 0, "/usr/lib/no-entry.so"), TIMING_PREINST, 0x2000},
        {decl("", "0x0013"), TIMING_PREINST, 0x4000},
        {Json::Value("new"), TIMING_PREINST, 0x4000},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(Json::toCompactString(c.decl));
        // Each case a provider of its own, so that earlier ones don't stand in the way.
        const std::string provider = "p" + std::to_string(n++);
        declare(provider, {c.decl});
        VLIBCErrSetEx(0, "", 0);
        WorkerList list;
        ASSERT_TRUE(FindRunnableWorkers(c.timing, list));
        const bool taken = !list.empty() && list.back()->GetProvider() == provider;
        EXPECT_EQ(c.code == 0, taken);
        if (c.code != 0) {
            EXPECT_EQ(c.code, VLIBCErrGet());
        }
        ZARNRemoveTree("/usr/local/share/zarnpkg/" + provider);
    }
}

TEST_F(DiscoveryTest, LastDeclarationOfATypeWinsAtTheFirstOnesPlace) {
    EXPECT_EQ("usr-local-linker@KOS csp-rule@KOS ", workers(TIMING_STARTUP));  // no global file
    declare("p1", {decl("x"), decl("y")});
    declare("broken", {});
    writeFile("/usr/local/share/zarnpkg/broken", "{\"workers\": {}}");
    declare("gone", {});
    ZARNRemoveTree("/usr/local/share/zarnpkg/gone");
    declare("p2", {decl("x")});
    EXPECT_EQ("x@p2 y@p1 ", workers(TIMING_PREINST));
    EXPECT_TRUE(logged("/usr/local/share/zarnpkg/broken is in wrong format, ignore it"));
    EXPECT_TRUE(logged("Failed to load conf of gone [0x0700"));
    // For one type the providers are asked in order, each from its last declaration.
    WorkerProxy* found = FindRunnableWorker("x");
    ASSERT_NE(nullptr, found);
    EXPECT_EQ("p1", found->GetProvider());
    delete found;
    // A list of providers that is not in an object fails the enumeration, built-ins stay.
    writeFile("/usr/local/share/zarnpkg/global", "[\"p1\"]");
    EXPECT_EQ("", workers(TIMING_PREINST, false));
    EXPECT_EQ("usr-local-linker@KOS csp-rule@KOS ", workers(TIMING_STARTUP, false));
    EXPECT_EQ(nullptr, FindRunnableWorker("x"));
}

TEST_F(DiscoveryTest, LibraryStaysOpenUntilItsLastWorkerIsGone) {
    declare("p1", {decl("x")});
    std::shared_ptr<ZARN::PkgUtils::IWorker> worker;
    {
        WorkerList list;
        ASSERT_TRUE(FindRunnableWorkers(TIMING_PREINST, list));
        ASSERT_EQ(1u, list.size());
        worker = list[0]->CreateInstance();
        ASSERT_TRUE(worker);
    }
    EXPECT_TRUE(mapped(phys(kPlugin)));
    worker.reset();
    EXPECT_FALSE(mapped(phys(kPlugin)));
}

}  // namespace
