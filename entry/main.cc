// dwe-dv-vexprod: the app's root service daemon. Finds the app's install
// directory, logs beneath it, refuses to run twice, serves the command and
// mail services to the callers its policy lets in and forwards the two
// message queues until SIGINT or SIGTERM; SIGHUP reads the policy again.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/close_range.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/caller_policy.h"
#include "daemon/dispatch.h"
#include "daemon/ini.h"
#include "daemon/instance_lock.h"
#include "daemon/log.h"
#include "daemon/msgq.h"
#include "daemon/queue_consumers.h"
#include "daemon/runner.h"
#include "daemon/safe_files.h"
#include "daemon/usage.h"
#include "dv.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

constexpr size_t DV_SERVER_THREAD_NUM = 2;
constexpr size_t DV_SEND_MAIL_SERVER_THREAD_NUM = 5;
// How long start-up waits for a service to be listening before it goes on.
constexpr unsigned DV_START_WAIT_MS = 5000;
// Descriptors beyond the services' own that a running daemon may hold: the
// log, the queues, requests' memory files and extra descriptors, the pipes
// and captures of the programs handlers run.
constexpr rlim_t DV_SPARE_FDS = 512;

bool g_IsDaemonize = false;
volatile sig_atomic_t g_IsTerminate = 0;
volatile sig_atomic_t g_reload_policy = 0;
dv_handle* dv_service_handle = nullptr;
dv_handle* dv_send_mail_service_handle = nullptr;
T_MSGQ_service* msgq_obj = nullptr;
T_MSGQ_service* log_msgq_obj = nullptr;

pthread_mutex_t sleep_mtx = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t sleep_cond = PTHREAD_COND_INITIALIZER;
struct timeval sleep_now;
struct timespec sleep_timeout;

void stop_service(int, siginfo_t*, void*)
{
    g_IsTerminate = 1;
    pthread_mutex_lock(&sleep_mtx);
    pthread_cond_signal(&sleep_cond);
    pthread_mutex_unlock(&sleep_mtx);
}

void reload_service(int, siginfo_t*, void*)
{
    g_reload_policy = 1;
    pthread_mutex_lock(&sleep_mtx);
    pthread_cond_signal(&sleep_cond);
    pthread_mutex_unlock(&sleep_mtx);
}

void dump_backtrace_service(int, siginfo_t*, void*)
{
    vexprod_debug_backtrace_dump();
    raise(SIGKILL);
}

void* pthread_dv_start(void*)
{
    DBG("dv_start.");
    dv_start(dv_service_handle);
    pthread_exit(nullptr);
}

void* pthread_dv_send_mail_start(void*)
{
    DBG("dv_send_mail_start.");
    dv_start(dv_send_mail_service_handle);
    pthread_exit(nullptr);
}

void start_detached(void* (*body)(void*))
{
    pthread_t thread;
    if (pthread_create(&thread, nullptr, body, nullptr) == 0)
        pthread_detach(thread);
}

void apply_policy()
{
    load_caller_policy();
    const std::optional<gid_t> senders = policy_sender_group();
    for (T_MSGQ_service* queue : {msgq_obj, log_msgq_obj})
        if (queue)
            msgq_set_senders(queue->msqid, senders);
}

// The stop and reload handlers take sleep_mtx; the main thread keeps their
// signals blocked while it holds that lock, so a signal delivered to it can
// never deadlock on its own lock (another thread takes the signal instead).
void sleep_until_terminated()
{
    sigset_t stop_signals, old;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGHUP);
    while (!g_IsTerminate) {
        if (g_reload_policy) {
            g_reload_policy = 0;
            apply_policy();
            continue;
        }
        pthread_sigmask(SIG_BLOCK, &stop_signals, &old);
        gettimeofday(&sleep_now, nullptr);
        sleep_timeout.tv_sec = sleep_now.tv_sec + 10;
        sleep_timeout.tv_nsec = sleep_now.tv_usec * 1000;
        pthread_mutex_lock(&sleep_mtx);
        if (!g_IsTerminate && !g_reload_policy)
            pthread_cond_timedwait(&sleep_cond, &sleep_mtx, &sleep_timeout);
        pthread_mutex_unlock(&sleep_mtx);
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
}

void stop_queue(T_MSGQ_service*& queue)
{
    if (!queue)
        return;
    queue->server_stop();
    delete queue;
    queue = nullptr;
}

[[noreturn]] void free_all_obj()
{
    // A program a caller had us start must not hold the stop up.
    runner_kill_groups();
    dv_stop(dv_service_handle);
    DBG("is_terminate");
    stop_queue(msgq_obj);
    stop_queue(log_msgq_obj);
    dv_free(dv_service_handle);
    dv_service_handle = nullptr;
    // Its listening socket ends with the process; its name goes now, so
    // that no caller finds a socket nobody serves.
    unlink(dv_send_mail_service_handle->sockfile);
    // The mail service is left to process exit. Leave without running
    // static destructors, which a mail request still in flight may need.
    fflush(nullptr);
    _exit(0);
}

// Whatever our starter left open beyond the standard three (a start
// script's pipe, a terminal's spare descriptor) is kept from every program we
// run, as our own descriptors are. Marked, not closed: the starter may rely
// on them, and we do not know what they are.
void keep_inherited_fds_from_children()
{
    if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    DIR* fds = opendir("/proc/self/fd");
    if (!fds)
        return;
    while (const dirent* entry = readdir(fds)) {
        char* end = nullptr;
        long fd = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd <= 2 || fd == dirfd(fds))
            continue;
        int flags = fcntl(static_cast<int>(fd), F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC))
            fcntl(static_cast<int>(fd), F_SETFD, flags | FD_CLOEXEC);
    }
    closedir(fds);
}

// Every waiting client holds a descriptor until a worker takes it: a full
// queue on both services must not run us out of them. Only ever raised,
// and never past the hard limit.
void raise_fd_limit()
{
    const rlim_t needed = 2 * static_cast<rlim_t>(DV_MAX_WAITING_CLIENTS) + DV_SERVER_THREAD_NUM +
                          DV_SEND_MAIL_SERVER_THREAD_NUM + DV_SPARE_FDS;
    struct rlimit lim;
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0 || lim.rlim_cur >= needed)
        return;
    lim.rlim_cur = lim.rlim_max == RLIM_INFINITY ? needed : std::min(needed, lim.rlim_max);
    if (setrlimit(RLIMIT_NOFILE, &lim) != 0)
        DBG("raise RLIMIT_NOFILE to %llu fail, errno=%d", static_cast<unsigned long long>(lim.rlim_cur), errno);
}

// Start-up refusals: one line on stderr saying what is wrong and what to do.
void refuse_start(const std::string& cause, const std::string& fix)
{
    fprintf(stderr, "dwe-dv-vexprod: %s; %s.\n", cause.c_str(), fix.c_str());
}

// The platform root is used after -d has changed to "/": a relative one
// must be made absolute first.
void absolute_platform_root()
{
    const char* root = getenv("VEXPROD_PLATFORM_ROOT");
    char cwd[PATH_MAX];
    if (root && *root && *root != '/' && getcwd(cwd, sizeof(cwd)))
        setenv("VEXPROD_PLATFORM_ROOT", (std::string(cwd) + "/" + root).c_str(), 1);
}

// The socket directory is made when missing; it must be ours (root's on the
// appliance) and closed to writes by others, who could otherwise replace
// our sockets with their own. Empty when it is usable, or why not.
std::string unusable_socket_dir()
{
    const char* dir = dv_socket_dir();
    struct stat st;
    if (lstat(dir, &st) != 0 && (errno != ENOENT || mkdir(dir, 0755) != 0 || lstat(dir, &st) != 0))
        return std::string(dir) + ": " + strerror(errno);
    if (!S_ISDIR(st.st_mode))
        return std::string(dir) + " is not a directory";
    if (!owned_by_us(st))
        return std::string(dir) + " belongs to uid " + std::to_string(st.st_uid);
    if (st.st_mode & (S_IWGRP | S_IWOTH))
        return std::string(dir) + " is writable by group or others";
    return "";
}

void ignore_signal(int sig)
{
    struct sigaction sa = {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
}

void read_options(int argc, char** argv)
{
    opterr = 0;  // our own message below is the only one
    int opt;
    while ((opt = getopt(argc, argv, "dt")) != -1) {
        switch (opt) {
        case 'd':
            g_IsDaemonize = true;
            break;
        case 't':
            g_IsTerminate = 1;
            break;
        case '?':
            fprintf(stderr, "Illegal option:-%c\n", isprint(optopt) ? optopt : '#');
            break;
        default:
            fprintf(stderr, "Not supported option\n");
            break;
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (int status = answer_usage_query(argc, argv); status >= 0)
        return status;
    unsetenv("LD_LIBRARY_PATH");
    umask(022);
    keep_inherited_fds_from_children();
    absolute_platform_root();
    openlog("dwe-dv-vexprod", LOG_PID, LOG_AUTHPRIV);

    std::string install_path;
    if (!dv_get_ini_info(PATH_APPBOX_CONF, "VexProServer", "Install_Path", install_path)) {
        fprintf(stderr, "[%s][%d] get Install_Path fail.\n", "main", __LINE__);
        refuse_start("no Install_Path in [VexProServer] of " + platform_path(PATH_APPBOX_CONF),
                     "install the app, or set VEXPROD_PLATFORM_ROOT to a platform root whose registry has it");
        exit(-1);
    }
    char log_dir[256];
    snprintf(log_dir, sizeof(log_dir), "%s/.log", install_path.c_str());
    log_set_dir(platform_path(log_dir).c_str());
    DBG("dwe-dv-vexprod start, Server:%s.", DV_SERVICE_NAME);
    raise_fd_limit();

    std::string why;
    const pid_t holder = take_instance_lock(why);
    if (holder != 0) {
        DBG("warning: re-entry.");
        if (holder == -2)
            refuse_start(why, "make it a file of root's, or remove it");
        else
            refuse_start("another instance runs (pid " + (holder > 0 ? std::to_string(holder) : "unknown") + ")",
                         "stop it first");
        exit(-1);
    }
    load_caller_policy();

    dv_signal(SIGINT, stop_service);
    dv_signal(SIGTERM, stop_service);
    dv_signal(SIGHUP, reload_service);
    dv_signal(SIGSEGV, dump_backtrace_service);
    dv_signal(SIGABRT, dump_backtrace_service);
    // Signals that would end us without the orderly stop.
    for (int sig : {SIGUSR1, SIGUSR2, SIGPIPE})
        ignore_signal(sig);

    read_options(argc, argv);
    if (g_IsDaemonize && daemon(0, 0) == 0)
        write_instance_pid();
    reclaim_mail_dirs();

    if (const std::string bad = unusable_socket_dir(); !bad.empty()) {
        DBG("socket directory unusable: %s.", bad.c_str());
        refuse_start(bad, "make it a directory of root's that only root can write, or set DV_SOCKET_DIR");
        exit(-2);
    }
    dv_service_handle = dv_create(DV_SERVICE_NAME, DV_PTHREAD_MODE, DV_SERVER_THREAD_NUM, service_handler);
    if (!dv_service_handle) {
        DBG("dv_service_handle is NULL.");
        exit(-2);
    }
    dv_set_admit(dv_service_handle, admit_caller, nullptr);
    // Callers may ask either service for its commands (dv-call --list).
    dv_set_description(dv_service_handle, describe_commands(DV_SERVICE_NAME, {handler, handler_size}).c_str());
    DBG("sock_name:%s.", dv_service_handle->sockfile);

    dv_send_mail_service_handle =
        dv_create(DV_SEND_MAIL_SERVICE_NAME, DV_PTHREAD_MODE, DV_SEND_MAIL_SERVER_THREAD_NUM, sendmail_service_handler);
    if (!dv_send_mail_service_handle) {
        DBG("dv_send_mail_service_handle is NULL.");
        exit(-2);
    }
    dv_set_admit(dv_send_mail_service_handle, admit_caller, nullptr);
    dv_set_description(dv_send_mail_service_handle,
                       describe_commands(DV_SEND_MAIL_SERVICE_NAME, {sendmail_handler, sendmail_handler_size}).c_str());
    DBG("send_mail_sock_name:%s, DV_SEND_MAIL_SERVER_THREAD_NUM:%d.", dv_send_mail_service_handle->sockfile,
        static_cast<int>(DV_SEND_MAIL_SERVER_THREAD_NUM));

    // The receivers are created with the stop signals blocked: a stop signal
    // taken by one of them would only interrupt its msgrcv with an error line.
    sigset_t stop_signals, old;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop_signals, &old);
    msgq_reclaim(NOTIFY_MSGQ_KEY);
    msgq_reclaim(EVENTLOG_MSGQ_KEY);
    msgq_obj = new T_MSGQ_service(NOTIFY_MSGQ_KEY, notify_handler, NOTIFY_MSG_SIZE);
    msgq_obj->server_start();
    log_msgq_obj = new T_MSGQ_service(EVENTLOG_MSGQ_KEY, eventlog_handler, EVENTLOG_MSG_SIZE);
    log_msgq_obj->server_start();
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    for (T_MSGQ_service* queue : {msgq_obj, log_msgq_obj})
        msgq_set_senders(queue->msqid, policy_sender_group());

    start_detached(pthread_dv_start);
    start_detached(pthread_dv_send_mail_start);
    // The services start on their own threads; a stop must not overtake them.
    dv_wait_started(dv_service_handle, DV_START_WAIT_MS);
    dv_wait_started(dv_send_mail_service_handle, DV_START_WAIT_MS);

    sleep_until_terminated();
    free_all_obj();
}
