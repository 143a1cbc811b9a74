// Process-wide signal services: per-signal handlers behind one dispatcher and
// a crash handler that leaves a numbered backtrace in the kernel log.
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace {

dv_signal_fn signal_handler[MAX_SIGNAL_SIZE];

void dv_signal_handler(int signum, siginfo_t* info, void* context)
{
    if (signum > 0 && signum < MAX_SIGNAL_SIZE && signal_handler[signum])
        signal_handler[signum](signum, info, context);
}

void _dv_backtrace(int signum, siginfo_t*, void*)
{
    fprintf(stderr, "%s\n", strsignal(signum));
    int kmsg = open("/dev/kmsg", O_WRONLY | O_CLOEXEC);
    void* frames[50];
    int count = kmsg >= 0 ? backtrace(frames, 50) : 0;
    char** symbols = count >= 2 ? backtrace_symbols(frames, count) : nullptr;
    if (kmsg >= 0 && symbols) {
        dv_io* io = dv_io_create();
        dv_io_printf(io, "%s (pid %d) %s:\n", strsignal(signum), getpid(), program_invocation_name);
        // The first two frames are this handler's own.
        for (int i = 2, number = 1; i < count && symbols[i]; i++, number++)
            dv_io_printf(io, "%2d. %s\n", number, symbols[i]);
        size_t size = 0;
        const char* text = dv_io_read(io, &size);
        for (size_t done = 0; text && done < size;) {
            ssize_t n = write(kmsg, text + done, size - done);
            if (n < 1)
                break;
            done += static_cast<size_t>(n);
        }
        dv_io_free(io);
        fsync(kmsg);
    }
    free(symbols);
    if (kmsg >= 0)
        close(kmsg);
    _exit(1);
}

}  // namespace

extern "C" {

DV_API void dv_signal(int signum, dv_signal_fn handler)
{
    if (!(signum > 0 && signum < MAX_SIGNAL_SIZE))
        dv_abort("[ABORT] @%s() cannot handle signal number %d: `%s'\n", "dv_signal", signum,
                 "signum > 0 && signum < MAX_SIGNAL_SIZE");
    signal_handler[signum] = handler;
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_SIGINFO;
    if (handler)
        sa.sa_sigaction = dv_signal_handler;
    else
        sa.sa_handler = SIG_DFL;
    sigaction(signum, &sa, nullptr);
}

DV_API void dv_backtrace(void)
{
    signal_handler[SIGSEGV] = _dv_backtrace;
    signal_handler[SIGABRT] = _dv_backtrace;
    signal_handler[SIGBUS] = _dv_backtrace;
    signal_handler[SIGFPE] = _dv_backtrace;
    for (int signum = 1; signum < MAX_SIGNAL_SIZE; signum++) {
        if (signum == SIGKILL || signum == SIGSTOP || !signal_handler[signum])
            continue;
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = SA_SIGINFO | SA_RESETHAND;
        sa.sa_sigaction = dv_signal_handler;
        sigaction(signum, &sa, nullptr);
    }
}

}  // extern "C"
