#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>
#include <tuple>
#include <utility>

#include "platform/accounts.h"
#include "platform/errors.h"
#include "platform/log.h"
#include "platform/rootat.h"
#include "platform/sysroot.h"

extern char** environ;

namespace {

volatile sig_atomic_t g_stopSignal = 0;

void RecordStop(int signo) {
    g_stopSignal = signo;
}

}  // namespace

void ZARNInstallStopHandler() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = RecordStop;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int ZARNStopSignal() {
    return g_stopSignal;
}

namespace ZARNUtils {

namespace {

// What the child reports through the error pipe when it can't reach the program.
enum ChildStage : int {
    StageRedirect = 1,
    StageChdir,
    StageGroups,
    StageGid,
    StageUid,
    StageParentDeath,
    StageExec,
};

struct ChildReport {
    int stage;
    int err;
};

const char* StageText(int stage) {
    switch (stage) {
        case StageRedirect:
            return "redirect the standard descriptors";
        case StageChdir:
            return "enter the working directory";
        case StageGroups:
            return "set the supplementary groups";
        case StageGid:
            return "set the group identity";
        case StageUid:
            return "set the user identity";
        case StageParentDeath:
            return "tie its life to the library's process";
        default:
            return "execute";
    }
}

bool MakePipe(Fd& readEnd, Fd& writeEnd) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return false;
    }
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    return true;
}

void SetNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

// Everything below up to StartChild runs in the child between its start and exec. The child
// shares the parent's memory (the parent waits meanwhile), so it takes no lock, allocates nothing
// and changes nothing but its own stack: plain system calls only.
[[noreturn]] void ChildFail(int reportFd, int stage) {
    ChildReport report{stage, errno};
    ssize_t ignored = write(reportFd, &report, sizeof(report));
    (void)ignored;
    _exit(127);
}

void CloseRangeLoop(unsigned int from, unsigned int to, long openMax) {
    if (from > to) {
        return;
    }
#ifdef SYS_close_range
    if (syscall(SYS_close_range, from, to, 0) == 0) {
        return;
    }
#endif
    long last = to > static_cast<unsigned int>(openMax) ? openMax : static_cast<long>(to);
    for (long fd = from; fd <= last; ++fd) {
        close(static_cast<int>(fd));
    }
}

// Closes every descriptor from 3 up except the ones in `keep` (sorted, at most two).
void CloseOtherDescriptors(const int* keep, int keepCount, long openMax) {
    unsigned int from = 3;
    for (int i = 0; i < keepCount; ++i) {
        if (keep[i] < 3 || static_cast<unsigned int>(keep[i]) < from) {
            continue;
        }
        if (static_cast<unsigned int>(keep[i]) > from) {
            CloseRangeLoop(from, static_cast<unsigned int>(keep[i]) - 1, openMax);
        }
        from = static_cast<unsigned int>(keep[i]) + 1;
    }
    CloseRangeLoop(from, ~0U, openMax);
}

// What the child needs, all of it built before the child starts.
struct ChildPlan {
    const char* program = nullptr;
    char** argv = nullptr;
    char** envp = nullptr;
    const char* workDir = nullptr;
    int in = -1;
    int out = -1;
    int err = -1;
    int passedFd = -1;
    int reportFd = -1;
    int keep[2] = {-1, -1};
    int keepCount = 0;
    long openMax = 0;
    bool switchIdentity = false;
    uid_t uid = 0;
    gid_t gid = 0;
    const gid_t* groups = nullptr;
    size_t groupCount = 0;
    pid_t parent = 0;
};

// A handler of the parent must never run in the child, whose memory is the parent's: every
// caught signal goes back to its default before the mask opens.
void ResetCaughtSignals() {
    struct sigaction dfl;
    memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction old;
        if (signo == SIGKILL || signo == SIGSTOP || sigaction(signo, nullptr, &old) != 0) {
            continue;
        }
        const bool reset = signo == SIGPIPE || signo == SIGCHLD || signo == SIGINT ||
                           signo == SIGTERM ||
                           (old.sa_handler != SIG_DFL && old.sa_handler != SIG_IGN);
        if (reset) {
            sigaction(signo, &dfl, nullptr);
        }
    }
}

int ChildMain(void* arg) {
    const ChildPlan& plan = *static_cast<const ChildPlan*>(arg);
    ResetCaughtSignals();
    // Move the sources above 2 first so that no dup2 overwrites another source.
    int in = fcntl(plan.in, F_DUPFD_CLOEXEC, 3);
    int cout = plan.out >= 0 ? fcntl(plan.out, F_DUPFD_CLOEXEC, 3) : -1;
    int cerr = plan.err >= 0 ? fcntl(plan.err, F_DUPFD_CLOEXEC, 3) : -1;
    if (in < 0 || (plan.out >= 0 && cout < 0) || (plan.err >= 0 && cerr < 0) || dup2(in, 0) < 0 ||
        (cout >= 0 && dup2(cout, 1) < 0) || (cerr >= 0 && dup2(cerr, 2) < 0)) {
        ChildFail(plan.reportFd, StageRedirect);
    }
    if (plan.passedFd > 2 && fcntl(plan.passedFd, F_SETFD, 0) < 0) {
        ChildFail(plan.reportFd, StageRedirect);
    }
    if (plan.workDir != nullptr && chdir(plan.workDir) != 0) {
        ChildFail(plan.reportFd, StageChdir);
    }
    // The C library's wrappers of these would signal every thread of the parent, whose
    // bookkeeping this child shares: the kernel calls alone switch this process.
    if (plan.switchIdentity) {
        if (syscall(SYS_setgroups, plan.groupCount, plan.groups) != 0) {
            ChildFail(plan.reportFd, StageGroups);
        }
        if (syscall(SYS_setresgid, plan.gid, plan.gid, plan.gid) != 0) {
            ChildFail(plan.reportFd, StageGid);
        }
        if (syscall(SYS_setresuid, plan.uid, plan.uid, plan.uid) != 0) {
            ChildFail(plan.reportFd, StageUid);
        }
    }
    // After the identity switch, which clears it; a parent already gone has left the child to
    // init, so it must not go on.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        ChildFail(plan.reportFd, StageParentDeath);
    }
    if (getppid() != plan.parent) {
        _exit(127);
    }
    CloseOtherDescriptors(plan.keep, plan.keepCount, plan.openMax);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(plan.program, plan.argv, plan.envp);
    ChildFail(plan.reportFd, StageExec);
}

// Starts the child without copying the parent's page tables, which a large parent would pay for
// on every script: the child runs on a stack of its own in the parent's memory, and the parent
// goes on once the child has called exec or exited. Signals stay blocked meanwhile, so that no
// handler of ours runs in the child. The child's id, or -1 with errno.
pid_t StartChild(const ChildPlan& plan) {
    constexpr size_t kStackSize = 256 * 1024;
    void* stack = mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) {
        return -1;
    }
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    // The stack grows down on every machine this runs on.
    const pid_t child = clone(ChildMain, static_cast<char*>(stack) + kStackSize,
                              CLONE_VM | CLONE_VFORK | SIGCHLD, const_cast<ChildPlan*>(&plan));
    const int cloneErrno = errno;
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    munmap(stack, kStackSize);
    errno = cloneErrno;
    return child;
}

ssize_t ReadSome(int fd, std::string& out) {
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n > 0) {
            out.append(buf, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        }
        return n;
    }
}

}  // namespace

struct ProcessRunner::Impl {
    enum class Output { Inherit, Capture, Fd };

    std::vector<std::string> argv;
    std::string argv0;  // what the program sees as argv[0]; empty: its path
    bool clearEnv = false;
    std::vector<std::pair<std::string, std::optional<std::string>>> envChanges;
    bool hasIdentity = false;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
    // A runtime identity that could not be resolved: the runner must not run at all.
    bool identityRefused = false;
    std::string refusedUser;
    std::string workDir;
    Output output = Output::Inherit;
    int outputFd = -1;
    int passedFd = -1;
    bool hasInput = false;
    std::string input;
    std::string out;
    std::string err;

    pid_t pid = -1;  // the started child until it is reaped
    Fd readPipe;     // the read end that startReading hands out
    // A child started once the process was asked to stop is clean-up on the way out: it runs
    // to its end; only children that were running when the request came are stopped.
    bool stoppable = true;

    bool stopRequested() const { return stoppable && ZARNStopSignal() != 0; }

    // A run with a time limit ends the child once its deadline has passed.
    std::chrono::milliseconds timeLimit{0};
    std::chrono::steady_clock::time_point deadline;
    bool overran = false;
    bool pastLimit() {
        if (timeLimit.count() > 0 && !overran && std::chrono::steady_clock::now() >= deadline) {
            overran = true;
        }
        return overran;
    }
    // How long one wait may block: bounded, so that a stop request or the deadline is seen.
    int waitSlice(int bound) const {
        if (timeLimit.count() <= 0) {
            return bound;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        return static_cast<int>(std::max<long long>(1, std::min<long long>(bound, left)));
    }

    std::vector<std::string> buildEnv() const;
    bool spawn(Fd& inWrite, Fd& outRead, Fd& errRead, bool toPipe);
    int exchange(pid_t pid, Fd& inWrite, Fd& outRead, Fd& errRead, int& status, bool& reaped);
    int reap(bool reaped, int status, bool terminate);
};

std::vector<std::string> ProcessRunner::Impl::buildEnv() const {
    std::vector<std::string> env;
    if (!clearEnv && environ != nullptr) {
        for (char** e = environ; *e != nullptr; ++e) {
            env.emplace_back(*e);
        }
    }
    for (const auto& change : envChanges) {
        const std::string prefix = change.first + "=";
        bool done = false;
        for (auto it = env.begin(); it != env.end();) {
            if (it->compare(0, prefix.size(), prefix) != 0) {
                ++it;
                continue;
            }
            if (change.second && !done) {
                *it = prefix + *change.second;
                done = true;
                ++it;
            } else {
                it = env.erase(it);
            }
        }
        if (change.second && !done) {
            env.push_back(prefix + *change.second);
        }
    }
    return env;
}

// Feeds the input and collects both output streams at once, so that a child filling one pipe
// never waits on a parent blocked on the other. Stops when the child has exited and the pipes
// hold nothing more, even if a daemon it started keeps them open.
int ProcessRunner::Impl::exchange(pid_t pid, Fd& inWrite, Fd& outRead, Fd& errRead, int& status,
                                  bool& reaped) {
    if (inWrite.get() >= 0 && input.empty()) {
        inWrite.reset();
    }
    if (inWrite.get() < 0 && outRead.get() < 0 && errRead.get() < 0) {
        return 0;
    }
    for (Fd* fd : {&inWrite, &outRead, &errRead}) {
        if (fd->get() >= 0) {
            SetNonBlocking(fd->get());
        }
    }
#ifdef SYS_pidfd_open
    Fd exitFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
#else
    Fd exitFd;
#endif
    size_t written = 0;
    bool exited = false;
    while (!exited && !stopRequested() && !pastLimit() &&
           (inWrite.get() >= 0 || outRead.get() >= 0 || errRead.get() >= 0)) {
        struct pollfd pfds[4];
        int count = 0;
        int inIdx = -1, outIdx = -1, errIdx = -1, exitIdx = -1;
        if (inWrite.get() >= 0) {
            pfds[count] = {inWrite.get(), POLLOUT, 0};
            inIdx = count++;
        }
        if (outRead.get() >= 0) {
            pfds[count] = {outRead.get(), POLLIN, 0};
            outIdx = count++;
        }
        if (errRead.get() >= 0) {
            pfds[count] = {errRead.get(), POLLIN, 0};
            errIdx = count++;
        }
        if (exitFd.get() >= 0) {
            pfds[count] = {exitFd.get(), POLLIN, 0};
            exitIdx = count++;
        }
        int rc = poll(pfds, static_cast<nfds_t>(count), waitSlice(exitFd.get() >= 0 ? 200 : 50));
        if (rc < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (inIdx >= 0 && pfds[inIdx].revents != 0) {
            ssize_t n = write(inWrite.get(), input.data() + written, input.size() - written);
            if (n > 0) {
                written += static_cast<size_t>(n);
                if (written >= input.size()) {
                    inWrite.reset();
                }
            } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                // The child stopped reading (EPIPE); what it didn't take is dropped.
                inWrite.reset();
            }
        }
        for (auto [idx, fd, sink] :
             {std::make_tuple(outIdx, &outRead, &out), std::make_tuple(errIdx, &errRead, &err)}) {
            if (idx >= 0 && pfds[idx].revents != 0) {
                ssize_t n = ReadSome(fd->get(), *sink);
                if (n == 0 || (n < 0 && errno != EAGAIN)) {
                    fd->reset();
                }
            }
        }
        if (exitIdx >= 0) {
            exited = pfds[exitIdx].revents != 0;
        } else if (!reaped) {
            pid_t done = waitpid(pid, &status, WNOHANG);
            if (done == pid) {
                reaped = true;
                exited = true;
            }
        }
    }
    if (exited) {
        for (auto [fd, sink] : {std::make_pair(&outRead, &out), std::make_pair(&errRead, &err)}) {
            while (fd->get() >= 0) {
                ssize_t n = ReadSome(fd->get(), *sink);
                if (n <= 0) {
                    fd->reset();
                }
            }
        }
    }
    inWrite.reset();
    return 0;
}

ProcessRunner::ProcessRunner(std::vector<std::string> argv) : impl_(std::make_unique<Impl>()) {
    impl_->argv = std::move(argv);
}

ProcessRunner::~ProcessRunner() {
    if (impl_->pid > 0) {
        impl_->readPipe.reset();
        impl_->reap(false, 0, true);
    }
}

ProcessRunner& ProcessRunner::clearEnv() {
    impl_->clearEnv = true;
    return *this;
}

ProcessRunner& ProcessRunner::setEnv(const std::string& name, const std::string& value) {
    impl_->envChanges.emplace_back(name, value);
    return *this;
}

ProcessRunner& ProcessRunner::unsetEnv(const std::string& name) {
    impl_->envChanges.emplace_back(name, std::nullopt);
    return *this;
}

ProcessRunner& ProcessRunner::setIdentity(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
    impl_->hasIdentity = true;
    impl_->uid = uid;
    impl_->gid = gid;
    impl_->groups = groups;
    return *this;
}

ProcessRunner& ProcessRunner::setRuntimeIdentity(const std::string& user, bool flag) {
    ZARNRuntimeIdentity identity;
    if (ZARNRuntimeIdentityGet(user, flag, identity) < 0) {
        ZLOGERR("Failed to resolve the identity of %s %s", user.c_str(),
                ZARNLastErrorSuffix().c_str());
        impl_->identityRefused = true;
        impl_->refusedUser = user;
        return *this;
    }
    impl_->identityRefused = false;
    setIdentity(identity.uid, identity.gid, identity.groups);
    // HOME is handed to the program, so it is the machine's path of the account's home.
    setEnv("HOME", identity.home.empty() || identity.home[0] != '/'
                       ? identity.home
                       : ZARNPhysicalPath(identity.home));
    setEnv("USER", identity.user);
    setEnv("LOGNAME", identity.user);
    return *this;
}

ProcessRunner& ProcessRunner::setWorkingDirectory(const std::string& physicalDir) {
    impl_->workDir = physicalDir;
    return *this;
}

ProcessRunner& ProcessRunner::captureOutput() {
    impl_->output = Impl::Output::Capture;
    return *this;
}

ProcessRunner& ProcessRunner::setOutputFd(int fd) {
    impl_->output = Impl::Output::Fd;
    impl_->outputFd = fd;
    return *this;
}

ProcessRunner& ProcessRunner::passFd(int fd) {
    impl_->passedFd = fd;
    return *this;
}

ProcessRunner& ProcessRunner::setInput(const std::string& input) {
    impl_->hasInput = true;
    impl_->input = input;
    return *this;
}

ProcessRunner& ProcessRunner::setTimeLimit(std::chrono::milliseconds limit) {
    impl_->timeLimit = limit;
    return *this;
}

ProcessRunner& ProcessRunner::setArgv0(const std::string& name) {
    impl_->argv0 = name;
    return *this;
}

std::string ProcessRunner::toString() const {
    std::string text;
    for (const std::string& arg : impl_->argv) {
        if (!text.empty()) {
            text += ' ';
        }
        text += arg;
    }
    return text;
}

ProcessRunner& ProcessRunner::addEnv(const std::string& name, const std::string& value) {
    return setEnv(name, value);
}

ProcessRunner& ProcessRunner::addArguments(const std::vector<std::string>& args) {
    impl_->argv.insert(impl_->argv.end(), args.begin(), args.end());
    return *this;
}

int ProcessRunner::run(bool capture, bool /*flag*/) {
    if (capture) {
        captureOutput();
    }
    return run();
}

int ProcessRunner::run(int /*mode*/, bool capture, bool /*flag*/, int fd) {
    if (fd >= 0) {
        setOutputFd(fd);
    } else if (capture) {
        captureOutput();
    }
    return run();
}

const std::string& ProcessRunner::getCapturedOutput() const {
    return impl_->out;
}

const std::string& ProcessRunner::getCapturedOutputErr() const {
    return impl_->err;
}

const std::string& ProcessRunner::getStdout() const {
    return impl_->out;
}

const std::string& ProcessRunner::getStderr() const {
    return impl_->err;
}

// Everything the child needs is built before fork: after it the child may not allocate.
bool ProcessRunner::Impl::spawn(Fd& inWrite, Fd& outRead, Fd& errRead, bool toPipe) {
    out.clear();
    err.clear();
    if (argv.empty() || argv[0].empty()) {
        ZLOGERR("Failed to run a program: empty argument vector");
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        errno = EINVAL;
        return false;
    }
    const char* program = argv[0].c_str();
    if (pid > 0) {
        ZLOGERR("Failed to run %s: it is still running", program);
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        errno = EBUSY;
        return false;
    }
    if (identityRefused) {
        ZLOGERR("Failed to run %s: the identity of %s is not known", program, refusedUser.c_str());
        VLIBCErrSet(ZARN_ERR_EXEC);
        errno = EPERM;
        return false;
    }
    if ((output == Output::Fd && fcntl(outputFd, F_GETFD) < 0) ||
        (passedFd >= 0 && fcntl(passedFd, F_GETFD) < 0)) {
        ZLOGERR("Failed to run %s: bad descriptor", program);
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        errno = EBADF;
        return false;
    }
    if (!ZARNProgramArgsInRoot(argv)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        errno = EXDEV;
        return false;
    }

    std::vector<char*> argvPtrs;
    argvPtrs.reserve(argv.size() + 1);
    for (std::string& arg : argv) {
        argvPtrs.push_back(&arg[0]);
    }
    if (!argv0.empty()) {
        argvPtrs[0] = &argv0[0];
    }
    argvPtrs.push_back(nullptr);
    std::vector<std::string> env = buildEnv();
    std::vector<char*> envPtrs;
    envPtrs.reserve(env.size() + 1);
    for (std::string& entry : env) {
        envPtrs.push_back(&entry[0]);
    }
    envPtrs.push_back(nullptr);
    const long openMax = sysconf(_SC_OPEN_MAX) > 0 ? sysconf(_SC_OPEN_MAX) : 65536;

    Fd reportRead, reportWrite, inRead, outWrite, errWrite;
    Fd devNull(open("/dev/null", O_RDWR | O_CLOEXEC));
    bool ok = devNull.valid() && MakePipe(reportRead, reportWrite);
    if (ok && hasInput) {
        ok = MakePipe(inRead, inWrite);
    }
    if (ok && (toPipe || output == Output::Capture)) {
        ok = MakePipe(outRead, outWrite);
    }
    if (ok && !toPipe && output == Output::Capture) {
        ok = MakePipe(errRead, errWrite);
    }
    if (!ok) {
        ZLOGERR("Failed to prepare the descriptors to run %s: %m", program);
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    ChildPlan plan;
    plan.program = program;
    plan.argv = argvPtrs.data();
    plan.envp = envPtrs.data();
    plan.workDir = workDir.empty() ? nullptr : workDir.c_str();
    plan.in = hasInput ? inRead.get() : devNull.get();
    if (toPipe) {
        plan.out = outWrite.get();
        plan.err = devNull.get();
    } else if (output == Output::Capture) {
        plan.out = outWrite.get();
        plan.err = errWrite.get();
    } else if (output == Output::Fd) {
        plan.out = plan.err = outputFd;
    }
    plan.passedFd = passedFd;
    plan.reportFd = reportWrite.get();
    // The report pipe must live until exec closes it; the passed descriptor stays for good.
    plan.keep[0] = plan.reportFd;
    plan.keep[1] = passedFd;
    plan.keepCount = passedFd >= 0 ? 2 : 1;
    if (plan.keepCount == 2 && plan.keep[1] < plan.keep[0]) {
        std::swap(plan.keep[0], plan.keep[1]);
    }
    plan.openMax = openMax;
    plan.switchIdentity = hasIdentity;
    plan.uid = uid;
    plan.gid = gid;
    plan.groups = groups.empty() ? nullptr : groups.data();
    plan.groupCount = groups.size();
    plan.parent = getpid();

    const pid_t child = StartChild(plan);
    if (child < 0) {
        ZLOGERR("Failed to start a process to run %s: %m", program);
        VLIBCErrSet(ZARN_ERR_EXEC);
        return false;
    }
    pid = child;
    stoppable = ZARNStopSignal() == 0;
    overran = false;
    deadline = std::chrono::steady_clock::now() + timeLimit;
    reportWrite.reset();

    // The report pipe closes on exec; a report in it means the program never started.
    ChildReport report{0, 0};
    size_t got = 0;
    while (got < sizeof(report)) {
        ssize_t n =
            read(reportRead.get(), reinterpret_cast<char*>(&report) + got, sizeof(report) - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    if (got == sizeof(report)) {
        inWrite.reset();
        outRead.reset();
        errRead.reset();
        reap(false, 0, false);
        errno = report.err;
        ZLOGERR("Failed to %s %s: %m", StageText(report.stage), program);
        VLIBCErrSet(ZARN_ERR_EXEC);
        errno = report.err;
        return false;
    }
    return true;
}

// Waits for the child. A stop request, or `terminate`, ends it first: the child alone, never
// its process group, since what a package script started on purpose must live on.
int ProcessRunner::Impl::reap(bool reaped, int status, bool terminate) {
    const char* program = argv[0].c_str();
#ifdef SYS_pidfd_open
    Fd exitFd(reaped ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
#else
    Fd exitFd;
#endif
    bool terminated = false;
    bool killed = false;
    auto killAt = std::chrono::steady_clock::now();
    while (!reaped) {
        // Asked before any signal, so that a child that has just ended is not taken as stopped.
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            break;
        }
        if (done < 0 && errno != EINTR) {
            ZLOGERR("Failed to wait for %s: %m", program);
            VLIBCErrSet(ZARN_ERR_EXEC);
            pid = -1;
            return -1;
        }
        if (!terminated && (terminate || stopRequested() || pastLimit())) {
            kill(pid, SIGTERM);
            terminated = true;
            killAt = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        } else if (terminated && !killed && std::chrono::steady_clock::now() >= killAt) {
            kill(pid, SIGKILL);
            killed = true;
        }
        if (exitFd.valid()) {
            struct pollfd pfd = {exitFd.get(), POLLIN, 0};
            poll(&pfd, 1, waitSlice(200));
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    pid = -1;
    if (terminated && overran) {
        ZLOGERR("Stopped %s: it ran past its time limit of %lld ms", program,
                static_cast<long long>(timeLimit.count()));
    } else if (terminated) {
        ZLOGERR("Stopped %s: the command was asked to stop", program);
    } else if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        ZLOGERR("Failed to run %s: killed by signal %d", program, WTERMSIG(status));
    }
    VLIBCErrSet(ZARN_ERR_EXEC);
    return -1;
}

int ProcessRunner::run() {
    Impl& d = *impl_;
    Fd inWrite, outRead, errRead;
    if (!d.spawn(inWrite, outRead, errRead, false)) {
        return -1;
    }
    int status = 0;
    bool reaped = false;
    // A child that stops reading its input must not kill us with SIGPIPE.
    sigset_t pipeSet, before, pending;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    sigpending(&pending);
    const bool wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipeSet, &before);
    d.exchange(d.pid, inWrite, outRead, errRead, status, reaped);
    sigpending(&pending);
    if (!wasPending && sigismember(&pending, SIGPIPE) == 1) {
        struct timespec zero = {0, 0};
        sigtimedwait(&pipeSet, nullptr, &zero);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return d.reap(reaped, status, false);
}

int ProcessRunner::startReading() {
    Fd inWrite, errRead;
    if (!impl_->spawn(inWrite, impl_->readPipe, errRead, true)) {
        return -1;
    }
    return impl_->readPipe.get();
}

int ProcessRunner::finish() {
    impl_->readPipe.reset();
    if (impl_->pid <= 0) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    return impl_->reap(false, 0, false);
}

}  // namespace ZARNUtils
