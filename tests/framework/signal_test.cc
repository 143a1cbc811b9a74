// Signal handlers behind one dispatcher, the crash handler's backtrace in the
// kernel log (replaced in a private mount namespace), and the blocked programs.
#include <gmock/gmock.h>
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
    for (int signum : {0, 32})
        EXPECT_EXIT(dv_signal(signum, remember), testing::KilledBySignal(SIGABRT),
                    "^\\[ABORT\\] @dv_signal\\(\\) cannot handle signal number " + std::to_string(signum) +
                        ": `signum > 0 && signum < MAX_SIGNAL_SIZE'\n$");
}

// In a private mount namespace of this process: kmsg (a file) bound over
// /dev/kmsg, or /dev hidden altogether when kmsg is empty.
bool replace_kmsg(const std::string& kmsg)
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           (kmsg.empty() ? mount("none", "/dev", "tmpfs", 0, nullptr)
                         : mount(kmsg.c_str(), "/dev/kmsg", nullptr, MS_BIND, nullptr)) == 0;
}

void segfault_with_backtrace()
{
    dv_backtrace();
    raise(SIGSEGV);
}

// The signal name always reaches stderr and the process exits 1; the
// backtrace goes to the kernel log when there is one.
TEST(DvBacktraceDeathTest, CrashNamesTheSignalAndLogsANumberedBacktrace)
{
    pid_t probe = fork();
    if (probe == 0)
        _exit(replace_kmsg("") ? 0 : 1);
    int status = -1;
    if (waitpid(probe, &status, 0) != probe || status != 0) {  // no namespaces here: the plain crash only
        EXPECT_EXIT(segfault_with_backtrace(), testing::ExitedWithCode(1), "^Segmentation fault\n");
        return;
    }
    TempDir dir;
    const std::string kmsg = dir.file("kmsg");
    ASSERT_TRUE(write_text_file(kmsg, ""));
    for (const std::string& target : {kmsg, std::string()}) {
        SCOPED_TRACE(target.empty() ? "no kernel log" : "kernel log");
        EXPECT_EXIT(
            {
                if (!replace_kmsg(target))
                    _exit(99);
                segfault_with_backtrace();
            },
            testing::ExitedWithCode(1), "^Segmentation fault\n");
    }
    const std::string text = read_text_file(kmsg);
    EXPECT_THAT(text, testing::ContainsRegex("^Segmentation fault \\(pid [0-9]+\\) [^\n]+:\n 1\\. [^\n]*\n 2\\. "));
}

TEST(BlockedPrograms, ShellsAndInterpretersMatchOthersDoNot)
{
    for (const char* path : {"/bin/sh", "sh", "/bin/bash", "/bin/busybox", "/usr/bin/python3.11", "/usr/bin/ksh93"})
        EXPECT_TRUE(dv_blocked_program(path)) << path;
    for (const char* path : {"/bin/echo", "/usr/bin/shred", "/bin/bashful", "/usr/bin/phpx", "", "/opt/sh/tool"})
        EXPECT_FALSE(dv_blocked_program(path)) << path;
    EXPECT_FALSE(dv_blocked_program(nullptr));
}

}  // namespace
