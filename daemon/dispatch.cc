// Request dispatch: table lookup, standard output pointed at the client's
// descriptor for the handler's lifetime, one joined thread per request.
#include "daemon/dispatch.h"

#include "daemon/audit.h"
#include "daemon/caller_policy.h"
#include "daemon/log.h"
#include "daemon/reply.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <cstdio>
#include <cstring>

void* pthread_callback_function(void* arg)
{
    const T_THREAD_ARGS* args = static_cast<const T_THREAD_ARGS*>(arg);
    args->handler(args->io, args->fd);
    pthread_exit(nullptr);
}

namespace {

// Guards the moments standard output is pointed somewhere else, not the
// handler runs in between.
std::mutex stdout_lock;

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
        std::lock_guard<std::mutex> one_at_a_time(stdout_lock);
        dup2(fd, STDOUT_FILENO);
        // The number is closed once only: in a threaded process it may be
        // handed to another thread's file the moment it is free, and a
        // second close would take that file away. (A client descriptor that
        // arrived as number 1 already is standard output: keep it.)
        if (fd != STDOUT_FILENO)
            close(fd);
    }

    pthread_t thread;
    if (pthread_create(&thread, nullptr, pthread_callback_function, &args) == 0)
        pthread_join(thread, nullptr);
    else
        // No thread to spare: the worker waits for the handler anyway, so
        // run it here rather than leave the client without an answer.
        args.handler(args.io, args.fd);

    // Flushes what the handler left in stdout's buffer to the client and
    // lets go of its descriptor; glibc keeps descriptor 1 for /dev/null.
    bool reopened;
    {
        std::lock_guard<std::mutex> one_at_a_time(stdout_lock);
        reopened = freopen("/dev/null", "w", stdout) != nullptr;
    }
    if (!reopened)
        DBG("freopen /dev/null fail, errno=%d", errno);
    if (io)
        dv_io_free(io);
}

namespace {

// The caller's grant for the command, then the command, then one audit line.
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

}  // namespace

void service_handler(const char* name, dv_io* io, int fd)
{
    serve_granted(DV_SERVICE_NAME, handler, handler_size, name, io, fd);
}

void sendmail_service_handler(const char* name, dv_io* io, int fd)
{
    serve_granted(DV_SEND_MAIL_SERVICE_NAME, sendmail_handler, sendmail_handler_size, name, io, fd);
}
