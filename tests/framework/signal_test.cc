// Signal handlers behind one dispatcher, and the crash handler's backtrace in
// the kernel log (redirected to a file in a private mount namespace).
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "dv.h"
#include "support/files.h"
#include "support/tempdir.h"

namespace {

std::atomic<int> seen_signal{0};

void remember(int signum, siginfo_t* info, void*)
{
    seen_signal = info && info->si_signo == signum ? signum : -signum;
}

TEST(DvSignal, DispatchesToTheRegisteredHandlerAndRestoresTheDefault)
{
    dv_signal(SIGUSR1, remember);
    raise(SIGUSR1);
    EXPECT_EQ(seen_signal.load(), SIGUSR1);

    dv_signal(31, remember);  // the highest number accepted
    raise(31);
    EXPECT_EQ(seen_signal.load(), 31);

    dv_signal(SIGUSR1, nullptr);
    struct sigaction sa;
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &sa), 0);
    EXPECT_EQ(sa.sa_handler, SIG_DFL);
    dv_signal(31, nullptr);
}

TEST(DvSignalDeathTest, NumbersOutsideOneToThirtyOneAbort)
{
    EXPECT_EXIT(dv_signal(32, remember), testing::KilledBySignal(SIGABRT),
                "^\\[ABORT\\] @dv_signal\\(\\) cannot handle signal number 32: `signum > 0 && signum < "
                "MAX_SIGNAL_SIZE'\n$");
    EXPECT_EXIT(dv_signal(0, remember), testing::KilledBySignal(SIGABRT),
                "cannot handle signal number 0: `signum > 0 && signum < MAX_SIGNAL_SIZE'");
}

// Runs fn in a child whose /dev/kmsg is replaced by kmsg_file (or hidden when
// it is empty). Returns the child's wait status, or -1 when the namespace is
// not available to this test (no privilege).
int crash_in_namespace(const std::string& kmsg_file, int (*fn)())
{
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        char ok = 0;
        if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
            if (kmsg_file.empty())
                ok = mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
            else
                ok = mount(kmsg_file.c_str(), "/dev/kmsg", nullptr, MS_BIND, nullptr) == 0;
        }
        (void)!write(ready[1], &ok, 1);
        if (!ok)
            _exit(99);
        _exit(fn());
    }
    close(ready[1]);
    char ok = 0;
    (void)!read(ready[0], &ok, 1);
    close(ready[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return ok ? status : -1;
}

int segfault_with_backtrace()
{
    dv_backtrace();
    raise(SIGSEGV);
    return 0;
}

TEST(DvBacktrace, CrashWritesANumberedBacktraceToTheKernelLogAndExitsOne)
{
    TempDir dir;
    std::string kmsg = dir.file("kmsg");
    ASSERT_TRUE(write_text_file(kmsg, ""));
    int status = crash_in_namespace(kmsg, segfault_with_backtrace);
    if (status == -1)
        GTEST_SKIP() << "needs a private mount namespace (run as root)";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    std::string text = read_text_file(kmsg);
    // "Segmentation fault (pid N) PROGRAM:" then frames " 1. ...", " 2. ..."
    const std::string head = "Segmentation fault (pid ";
    ASSERT_EQ(text.compare(0, head.size(), head), 0) << text;
    size_t close = text.find(") ", head.size());
    ASSERT_NE(close, std::string::npos) << text;
    EXPECT_EQ(text.find_first_not_of("0123456789", head.size()), close) << text;
    size_t end_of_first = text.find(":\n");
    ASSERT_NE(end_of_first, std::string::npos) << text;
    EXPECT_EQ(text.compare(end_of_first + 2, 4, " 1. "), 0) << text;
    EXPECT_NE(text.find("\n 2. ", end_of_first), std::string::npos) << text;
}

TEST(DvBacktraceDeathTest, WithoutAKernelLogTheSignalNameStillReachesStderr)
{
    if (geteuid() == 0) {
        // Hide /dev/kmsg in a private namespace; the death test captures stderr.
        EXPECT_EXIT(
            {
                if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                    mount("none", "/dev", "tmpfs", 0, nullptr) != 0)
                    _exit(1);  // cannot hide it: behave like the handler would
                segfault_with_backtrace();
            },
            testing::ExitedWithCode(1), "Segmentation fault\n");
    } else {
        // /dev/kmsg is not writable for an ordinary user.
        EXPECT_EXIT(segfault_with_backtrace(), testing::ExitedWithCode(1), "Segmentation fault\n");
    }
}

}  // namespace

namespace {

TEST(BlockedPrograms, ShellsAndInterpretersMatchOthersDoNot)
{
    for (const char* path : {"/bin/sh", "/bin/bash", "/usr/bin/zsh", "sh", "/bin/busybox", "/usr/bin/php",
                             "/usr/bin/python3", "/usr/bin/python3.11", "/bin/rbash", "/usr/bin/ksh93"})
        EXPECT_TRUE(dv_blocked_program(path)) << path;
    for (const char* path : {"/bin/echo", "/sbin/hwd_app", "/usr/bin/shred", "/bin/bashful", "/usr/bin/phpx", "",
                             "/opt/sh/tool"})
        EXPECT_FALSE(dv_blocked_program(path)) << path;
    EXPECT_FALSE(dv_blocked_program(nullptr));
}

}  // namespace
