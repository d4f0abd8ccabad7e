#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/fd.h"

// Stopping a command: a SIGINT or SIGTERM handler that only records the signal. It is installed
// without SA_RESTART so that blocking waits return and look at it.
ZARNHOST_API void ZARNInstallStopHandler();
// The signal that asked the process to stop, or 0.
ZARNHOST_API int ZARNStopSignal();

namespace ZARNUtils {

// Runs a program with an argument vector, never through a shell. argv[0] is a physical path
// (ZARNPhysicalPath for appliance tools and package scripts; machine tools as they stand).
// The child closes every descriptor but 0, 1, 2 and the one descriptor it is told to pass.
class ZARNHOST_API ProcessRunner {
public:
    explicit ProcessRunner(std::vector<std::string> argv);
    ~ProcessRunner();
    ProcessRunner(const ProcessRunner&) = delete;
    ProcessRunner& operator=(const ProcessRunner&) = delete;

    // Starts from an empty environment instead of the caller's.
    ProcessRunner& clearEnv();
    // Adds or replaces one variable of the child's environment.
    ProcessRunner& setEnv(const std::string& name, const std::string& value);
    ProcessRunner& unsetEnv(const std::string& name);
    // Switches the child to this identity (setgroups, setresgid, setresuid) before exec.
    ProcessRunner& setIdentity(uid_t uid, gid_t gid, const std::vector<gid_t>& groups);
    // Switches the child to a user of the root's accounts, with the user's groups from the
    // root's /etc/group and HOME, USER, LOGNAME set. `flag` true keeps the user's own primary
    // group, false gives the group "system" (1) as primary. When the user can't be resolved
    // the runner refuses to run: run() returns -1 and nothing runs as the caller instead.
    ProcessRunner& setRuntimeIdentity(const std::string& user, bool flag);
    ProcessRunner& setWorkingDirectory(const std::string& physicalDir);
    // Captures standard output and error into strings (read together, no deadlock).
    ProcessRunner& captureOutput();
    // Sends standard output and error to this descriptor instead.
    ProcessRunner& setOutputFd(int fd);
    // Keeps this descriptor open in the child.
    ProcessRunner& passFd(int fd);
    // Feeds this text to standard input (otherwise /dev/null).
    ProcessRunner& setInput(const std::string& input);
    // Ends the program (SIGTERM, SIGKILL 2 s later) once it has run this long; the run then
    // fails as a killed one does. Zero, the default, lets it run to its end.
    ProcessRunner& setTimeLimit(std::chrono::milliseconds limit);

    // Runs and waits. Returns the exit status, or -1 when the program could not be started,
    // was killed by a signal, or the identity could not be set. When the process is asked to
    // stop (ZARNStopSignal), a child started before is terminated and the run fails; one
    // started after it (clean-up on the way out) runs to its end.
    int run();

    // Starts the program with its standard output into a pipe that the runner owns and
    // returns the pipe's read end, or -1 when the program could not start; standard error goes
    // to /dev/null. finish() closes the pipe and reaps the child, with the result of run(); a
    // runner that goes before finish() terminates and reaps its child.
    int startReading();
    int finish();

    const std::string& getStdout() const;
    const std::string& getStderr() const;

    // The names the package code knows these operations by. `flag` has no meaning here, and
    // `mode` (144 for package scripts, 1 for plain commands) sends output to `fd` either way;
    // with `fd` negative a capturing run collects it instead.
    ProcessRunner& addEnv(const std::string& name, const std::string& value);
    ProcessRunner& addArguments(const std::vector<std::string>& args);
    int run(bool capture, bool flag);
    int run(int mode, bool capture, bool flag, int fd);
    const std::string& getCapturedOutput() const;
    const std::string& getCapturedOutputErr() const;

    // Gives the program this argv[0] (a script's bare name) instead of its path.
    ProcessRunner& setArgv0(const std::string& name);
    // The command line as text, for logs: the program path and its arguments, blank-separated.
    std::string toString() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ZARNUtils
