// Request dispatch: table lookup, standard output pointed at the client's
// descriptor for the handler's lifetime, the handler run on the worker's own
// thread.
#include "daemon/dispatch.h"

#include "daemon/audit.h"
#include "daemon/caller_policy.h"
#include "daemon/log.h"
#include "daemon/reply.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <cxxabi.h>
#include <stdio_ext.h>

#include <cerrno>
#include <exception>
#include <mutex>
#include <cstdio>
#include <cstring>

namespace {

// Whatever a handler throws (running out of memory on a hostile request,
// a library's exception nobody expected) ends that request only: the
// client's connection closes when the dispatcher frees it, as for any
// request that gets no reply, and the daemon goes on.
void run_handler(const T_THREAD_ARGS* args)
{
    try {
        args->handler(args->io, args->fd);
    } catch (const abi::__forced_unwind&) {
        throw;  // a thread being ended must finish unwinding
    } catch (const std::exception& e) {
        dbg_printf2("[%s][%d] %s ended by an exception: %s", __func__, __LINE__, args->name, e.what());
    } catch (...) {
        dbg_printf2("[%s][%d] %s ended by an exception.", __func__, __LINE__, args->name);
    }
}

}  // namespace

void* pthread_callback_function(void* arg)
{
    run_handler(static_cast<const T_THREAD_ARGS*>(arg));
    pthread_exit(nullptr);
}

namespace {

// Requests this large (JSON texts of thousands of values) leave megabytes in
// the worker's malloc arena when their handler ends.
constexpr size_t kTrimAfterRequestSize = 16 << 10;

// Guards the moments standard output is pointed somewhere else, not the
// handler runs in between.
std::mutex stdout_lock;
// Whether standard output is the /dev/null a request left behind, with an
// empty buffer: then a request that points it nowhere has nothing to undo.
bool stdout_at_rest = false;

// A second reference to what standard output is now, so that pointing it
// elsewhere under the lock cannot be the last close of a client's file; the
// caller closes it once the lock is released. -1 when there is none.
int keep_stdout()
{
    return fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
}

}  // namespace

void dispatch_command(const T_COMMAND_ENTRY* table, size_t size, const char* name, dv_io* io, int fd)
{
    const T_COMMAND_ENTRY* entry = nullptr;
    for (size_t i = 0; name && i < size; ++i) {
        if (strcmp(name, table[i].name) == 0) {
            entry = &table[i];
            break;
        }
    }

    // An unknown name gets no answer and no log line. Freeing the message
    // object is what closes the connection, so the client learns at once
    // instead of waiting out its timeout, and nothing is left behind.
    if (!entry || !entry->handler) {
        if (fd >= 0)
            close(fd);
        if (io)
            dv_io_free(io);
        return;
    }

    T_THREAD_ARGS args = {fd, io, entry->name, entry->handler};
    if (fd >= 0) {
        // Whatever the handler or a program it starts prints goes to the
        // client. Standard output is process-wide: with requests in flight
        // on several workers the last redirection wins, as it always has.
        // Each redirection is made whole under a lock, so that one worker's
        // dup2 cannot fall into the middle of another's freopen.
        int replaced;
        {
            std::lock_guard<std::mutex> one_at_a_time(stdout_lock);
            replaced = keep_stdout();
            dup2(fd, STDOUT_FILENO);
            stdout_at_rest = false;
        }
        // Closed outside the lock: a client's file may take its time to
        // close, and that must hold up this request only, not every
        // request of both services. The number is closed once only: in a
        // threaded process it may be handed to another thread's file the
        // moment it is free, and a second close would take that file away.
        // (A client descriptor that arrived as number 1 already is standard
        // output: keep it.)
        if (fd != STDOUT_FILENO)
            close(fd);
        if (replaced >= 0)
            close(replaced);
    }

    // The worker waits for the handler in any case: a thread of its own per
    // request would only add its creation and join to every call. What a
    // large request made the handler allocate stays in this thread's malloc
    // arena once freed, unless it is handed back.
    const bool large = io && io->shared_size >= kTrimAfterRequestSize;
    run_handler(&args);
    if (large)
        malloc_trim(0);

    // Flushes what the handler left in stdout's buffer to the client and
    // lets go of its descriptor; glibc keeps descriptor 1 for /dev/null.
    bool reopened = true;
    int replaced = -1;
    {
        std::lock_guard<std::mutex> one_at_a_time(stdout_lock);
        if (!stdout_at_rest || __fpending(stdout) > 0) {
            replaced = keep_stdout();
            reopened = freopen("/dev/null", "w", stdout) != nullptr;
            stdout_at_rest = reopened;
        }
    }
    if (replaced >= 0)
        close(replaced);
    if (!reopened)
        DBG("freopen /dev/null fail, errno=%d", errno);
    if (io)
        dv_io_free(io);
}

void serve_granted(const char* service, const T_COMMAND_ENTRY* table, size_t size, const char* name, dv_io* io,
                   int fd)
{
    if (!io) {
        dispatch_command(table, size, name, io, fd);
        return;
    }
    RequestAudit audit(service, name, dv_io_pid(io), static_cast<unsigned>(dv_io_uid(io)));
    if (caller_granted(service, name, static_cast<uid_t>(dv_io_uid(io)), static_cast<gid_t>(dv_io_gid(io)))) {
        dv_io_set(io, &audit);
        dispatch_command(table, size, name, io, fd);
    } else {
        // Let in for another command of this service: told so, nothing runs.
        dv_reply_json("{\"error_msg\":\"permission denied\",\"result\":-1}\n", io);
        audit.outcome = AuditOutcome::refused;
        if (fd >= 0)
            close(fd);
        dv_io_free(io);
    }
    audit_request(audit);
}
