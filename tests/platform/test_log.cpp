#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

#include "platform/errors.h"
#include "platform/log.h"
#include "support/temproot.h"

class LogTest : public TempRootTest {};

TEST_F(LogTest, LinesReachTheMirror) {
    errno = ENOENT;
    ZLOGERR("Failed to open [%s]: %m", "/var/packages/demo/INFO");
    EXPECT_EQ(errno, ENOENT) << "logging leaves errno alone";
    const std::string text = logText();
    EXPECT_NE(text.find("test_log.cpp:"), std::string::npos) << text;
    EXPECT_NE(text.find(" Failed to open [/var/packages/demo/INFO]: No such file or directory\n"),
              std::string::npos)
        << text;

    errno = EACCES;
    ZARNSyslog(LOG_INFO, "100%% done, %%m stays, %s", "%m in an argument stays too");
    EXPECT_TRUE(logged("100% done, %m stays, %m in an argument stays too\n"));
    ZARNSyslog(LOG_WARNING, "%s: %m", "open");
    EXPECT_TRUE(logged("open: Permission denied\n"));

    const std::string big(1 << 20, 'z');
    errno = ENOSPC;
    ZLOGERR("Failed to write %s: %m [%d]", big.c_str(), 42);
    EXPECT_TRUE(logged(big + ": No space left on device [42]\n"));
}

TEST_F(LogTest, LastErrorSuffix) {
    VLIBCErrSetEx(ZARN_ERR_NO_FILE, "core/registry.cpp", 123);
    EXPECT_EQ(VLIBCErrorGetLine(), 123);
    EXPECT_EQ(ZARNLastErrorSuffix(), "[0x0700 core/registry.cpp:123]");

    const int line = __LINE__ + 1;
    VLIBCErrSet(ZARN_ERR_LOCK);
    EXPECT_EQ(ZARNLastErrorSuffix(),
              "[0x2100 " + std::string(VLIBCErrorGetFile()) + ":" + std::to_string(line) + "]");
    EXPECT_NE(std::string(VLIBCErrorGetFile()).find("test_log.cpp"), std::string::npos);

    // Each thread has its own slot.
    std::thread other([] { VLIBCErrSetEx(ZARN_ERR_IO, "other.cpp", 1); });
    other.join();
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_LOCK);

    VLIBCErrSetEx(ZARN_ERR_NONE, nullptr, 0);
    EXPECT_EQ(ZARNLastErrorSuffix(), "[0x0000 :0]");
}

TEST_F(LogTest, VerboseCopyEscapesControlCharacters) {
    // The copy on standard error reaches a terminal; the mirror file keeps the text as it was.
    testing::internal::CaptureStderr();
    ZARNLogSetVerbose(true);
    ZLOGERR("displayname %s",
            "\x1b]0;owned\x07 \xc2\x9b"
            "2J");
    ZARNLogSetVerbose(false);
    const std::string copy = testing::internal::GetCapturedStderr();
    EXPECT_NE(copy.find("displayname \\x1b]0;owned\\x07 \\u009b2J\n"), std::string::npos) << copy;
    EXPECT_TRUE(logged("displayname \x1b]0;owned"));
}
