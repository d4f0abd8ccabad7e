#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <set>
#include <sstream>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/parallel_runner.h"
#include "platform/process.h"
#include "support/temproot.h"

using ZARNUtils::ProcessRunner;

namespace {

const char* const kPerl = "/usr/bin/perl";

std::set<std::string> Lines(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.insert(line);
    }
    return lines;
}

}  // namespace

class ProcessTest : public TempRootTest {};

TEST_F(ProcessTest, ExitStatus) {
    // A program that fails to start is not confused with one that exits 127.
    EXPECT_EQ(ProcessRunner({kPerl, "-e", "exit 127"}).run(), 127);
    EXPECT_EQ(ProcessRunner({kPerl, "-e", "kill 'KILL', $$"}).run(), -1);  // killed by a signal
    EXPECT_EQ(ProcessRunner({"/nonexistent/program"}).run(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_EXEC);
    EXPECT_TRUE(logged("/nonexistent/program"));
    EXPECT_EQ(ProcessRunner({phys("/etc/zarninfo.conf")}).run(), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(ProcessRunner(std::vector<std::string>{}).run(), -1);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_BAD_PARAMETERS);

    ProcessRunner noDir({"/bin/true"});
    noDir.setWorkingDirectory(phys("/no/such/dir"));
    EXPECT_EQ(noDir.run(), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ProcessTest, Environment) {
    ProcessRunner added({"/usr/bin/env"});
    added.setEnv("ZARN_TEST_VAR", "hello world")
        .setEnv("ZARN_TEST_VAR", "replaced")
        .captureOutput();
    ASSERT_EQ(added.run(), 0);
    auto lines = Lines(added.getStdout());
    EXPECT_EQ(lines.count("ZARN_TEST_VAR=replaced"), 1u);
    EXPECT_EQ(lines.count("ZARN_TEST_VAR=hello world"), 0u);
    // The caller's environment is inherited by default.
    EXPECT_EQ(lines.count("ZARNPKG_ROOT=" + root()), 1u);

    ProcessRunner removed({"/usr/bin/env"});
    removed.unsetEnv("ZARNPKG_ROOT").captureOutput();
    ASSERT_EQ(removed.run(), 0);
    EXPECT_EQ(removed.getStdout().find("ZARNPKG_ROOT="), std::string::npos);

    ProcessRunner cleared({"/usr/bin/env"});
    cleared.clearEnv().setEnv("ONLY", "1").captureOutput();
    ASSERT_EQ(cleared.run(), 0);
    EXPECT_EQ(cleared.getStdout(), "ONLY=1\n");
}

TEST_F(ProcessTest, Input) {
    ProcessRunner cat({"/bin/cat"});
    cat.setInput("line one\nline two\n").captureOutput();
    ASSERT_EQ(cat.run(), 0);
    EXPECT_EQ(cat.getStdout(), "line one\nline two\n");

    // Input and output both larger than a pipe, in flight at once.
    std::string big;
    for (int i = 0; i < 200000; ++i) {
        big += std::to_string(i) + "\n";
    }
    ProcessRunner bigCat({"/bin/cat"});
    bigCat.setInput(big).captureOutput();
    ASSERT_EQ(bigCat.run(), 0);
    EXPECT_TRUE(bigCat.getStdout() == big);

    // A child that never reads its input must not take the caller down with SIGPIPE.
    ProcessRunner deaf({"/bin/true"});
    deaf.setInput(std::string(4 << 20, 'x'));
    EXPECT_EQ(deaf.run(), 0);
}

TEST_F(ProcessTest, LargeOutputOnBothStreams) {
    // Interleaved writes: a reader that drained one stream first would deadlock here.
    ProcessRunner both({kPerl, "-e",
                        "for (1..2000) { syswrite(STDOUT, 'o' x 10000); "
                        "syswrite(STDERR, 'e' x 10000); }"});
    both.captureOutput();
    ASSERT_EQ(both.run(), 0);
    EXPECT_EQ(both.getStdout().size(), 20000000u);
    EXPECT_EQ(both.getStderr().size(), 20000000u);
    EXPECT_EQ(both.getStdout().find_first_not_of('o'), std::string::npos);
    EXPECT_EQ(both.getStderr().find_first_not_of('e'), std::string::npos);
}

TEST_F(ProcessTest, OutputToDescriptor) {
    Fd fd = ZARNOpen("/var/log/packages/demo.log", O_WRONLY | O_CREAT | O_APPEND, 0644);
    ASSERT_TRUE(fd.valid());
    // The package code's names: arguments and environment added later, output to a descriptor
    // for either mode, or captured when there is no descriptor.
    ProcessRunner script({kPerl});
    script.addArguments({"-e", "print \"$ENV{MODE_VAR}\\n\""}).addEnv("MODE_VAR", "144");
    EXPECT_EQ(script.run(144, true, true, fd.get()), 0);
    ProcessRunner command({kPerl, "-e", "print \"one\\n\""});
    EXPECT_EQ(command.run(1, true, true, fd.get()), 0);
    fd.reset();
    EXPECT_EQ(readFile("/var/log/packages/demo.log"), "144\none\n");
    EXPECT_EQ(script.getCapturedOutput(), "");

    ProcessRunner bad({"/bin/true"});
    bad.setOutputFd(987);
    EXPECT_EQ(bad.run(), -1);
    ProcessRunner captured({kPerl, "-e", "print STDOUT \"o\"; print STDERR \"x\"; exit 3"});
    EXPECT_EQ(captured.run(1, true, true, -1), 3);
    EXPECT_EQ(captured.getCapturedOutput() + captured.getCapturedOutputErr(), "ox");
    ProcessRunner plain({kPerl, "-e", "print \"p\""});
    EXPECT_EQ(plain.run(true, false), 0);
    EXPECT_EQ(plain.getCapturedOutput(), "p");
}

TEST_F(ProcessTest, DescriptorsDoNotLeak) {
    // A descriptor opened without close-on-exec, as a careless caller would.
    Fd raw(::open("/dev/null", O_RDONLY));
    ASSERT_TRUE(raw.valid());
    Fd leaky(fcntl(raw.get(), F_DUPFD, 100));
    ASSERT_GE(leaky.get(), 100);

    ProcessRunner ls({"/bin/ls", "/proc/self/fd"});
    ls.captureOutput();
    ASSERT_EQ(ls.run(), 0);
    // 0, 1, 2 and the folder that ls itself opened to list.
    EXPECT_EQ(Lines(ls.getStdout()), (std::set<std::string>{"0", "1", "2", "3"}));

    ProcessRunner passed({"/bin/ls", "/proc/self/fd"});
    passed.passFd(leaky.get()).captureOutput();
    ASSERT_EQ(passed.run(), 0);
    EXPECT_EQ(Lines(passed.getStdout()),
              (std::set<std::string>{"0", "1", "2", "3", std::to_string(leaky.get())}));
}

// A batch answers what the same runs one after another answer, in their order, whatever their
// lengths: programs that fail, that can't start, that print a lot, that outlive their time limit
// and, as root, that switch identity.
TEST_F(ProcessTest, ParallelRunsAnswerAsSerialOnes) {
    const bool root = geteuid() == 0;
    struct Job {
        std::vector<std::string> argv;
        int expected;
        size_t outputSize;  // of the captured standard output
    };
    const std::vector<Job> jobs = {
        {{kPerl, "-e", "select undef, undef, undef, 0.3; exit 3"}, 3, 0},
        {{kPerl, "-e", "print 'x' x 1000000; exit 0"}, 0, 1000000},
        {{"/bin/false"}, 1, 0},
        {{kPerl, "-e", "sleep 30"}, -1, 0},  // past its limit
        {{"/nonexistent/program"}, -1, 0},
        {{"/usr/bin/id", "-u"}, 0, root ? 6U : 0U},  // "65534\n" as the account it is given
        {{kPerl, "-e", "exit 42"}, 42, 0},
    };
    auto prepare = [&](std::vector<std::unique_ptr<ProcessRunner>>& runners) {
        for (const Job& job : jobs) {
            runners.push_back(std::make_unique<ProcessRunner>(job.argv));
            runners.back()->captureOutput().setTimeLimit(std::chrono::milliseconds(500));
            if (root && job.argv[0] == "/usr/bin/id") {
                runners.back()->setIdentity(65534, 65534, {65534});
            }
        }
    };
    std::vector<std::unique_ptr<ProcessRunner>> serial, parallel;
    prepare(serial);
    prepare(parallel);
    std::vector<ProcessRunner*> batch;
    for (const auto& runner : parallel) {
        batch.push_back(runner.get());
    }
    const auto started = std::chrono::steady_clock::now();
    const std::vector<int> results = ZARNUtils::RunAllProcesses(batch, 3);
    const auto took = std::chrono::steady_clock::now() - started;
    // The hanging program was ended at its limit, not waited for.
    EXPECT_LT(took, std::chrono::seconds(5));
    ASSERT_EQ(results.size(), jobs.size());
    for (size_t i = 0; i < jobs.size(); ++i) {
        EXPECT_EQ(results[i], jobs[i].expected) << jobs[i].argv.back();
        EXPECT_EQ(serial[i]->run(), results[i]) << jobs[i].argv.back();
        EXPECT_EQ(parallel[i]->getStdout(), serial[i]->getStdout()) << jobs[i].argv.back();
        if (jobs[i].outputSize != 0) {
            EXPECT_EQ(parallel[i]->getStdout().size(), jobs[i].outputSize);
        }
    }
    if (root) {
        EXPECT_EQ(parallel[5]->getStdout(), "65534\n");
    }
    EXPECT_NE(logText().find("ran past its time limit of 500 ms"), std::string::npos);
    EXPECT_TRUE(ZARNUtils::RunAllProcesses({}).empty());
}
