// The client side: call a named service and wait for its reply, one request
// at a time (dv_call, dv_ez_call) or many from one thread (dv_epoll_*).
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace {

constexpr const char EPOLL_COND[] = "epoll && (*(u_int32_t*) epoll == DV_EPOLL_MAGIC)";
constexpr const char IO_COND[] = "io && (*(u_int32_t*) io == DV_IO_MAGIC)";

void check_epoll(const dv_epoll* e, const char* fn, const char* what)
{
    if (!e || e->magic != DV_EPOLL_MAGIC)
        dv_abort("[ABORT] @%s() cannot %s incorrect dv_epoll %p: `%s'\n", fn, what, static_cast<const void*>(e),
                 EPOLL_COND);
}

long long now_ms()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

// Releases everything a request holds but the caller's extra descriptor.
void release_request(dv_io* io)
{
    if (io->sockfd >= 0) {
        close(io->sockfd);
        io->sockfd = -1;
    }
    if (io->memfd >= 0) {
        if (io->shared_data)
            munmap(io->shared_data, io->shared_size);
        close(io->memfd);
    }
    io->memfd = -1;
    io->fd = -1;
    io->shared_data = nullptr;
    io->shared_size = 0;
}

dv_io* fail_request(dv_epoll* epoll, dv_io* io, int* status, int code)
{
    dv_epoll_cancel(epoll, io);
    release_request(io);
    *status = code;
    return io;
}

void send_request(dv_io* io)
{
    dv_directive d;
    memset(&d, 0, sizeof(d));
    d.type = DV_DIRECTIVE_REQUEST;
    memcpy(d.data, io->name, strnlen(io->name, sizeof(io->name) - 1));
    bool extra = io->fd >= 0 && !(fcntl(io->fd, F_GETFD) == -1 && errno == EBADF);
    if (extra)
        d.flags |= DV_DIRECTIVE_FLAG_EXTRA_FD;
    // Failures surface as the server dropping us: a hang-up or a timeout.
    if (!dv_send_directive(io->sockfd, &d))
        return;
    if (io->memfd >= 0 && !dv_send_fd(io->sockfd, io->memfd))
        return;
    if (extra)
        dv_send_fd(io->sockfd, io->fd);
}

// A poller, or null (errno set) when memory or descriptors ran out.
dv_epoll* new_epoll()
{
    dv_epoll* epoll = static_cast<dv_epoll*>(calloc(1, sizeof(dv_epoll)));
    if (!epoll)
        return nullptr;
    epoll->magic = DV_EPOLL_MAGIC;
    epoll->fd = epoll_create1(EPOLL_CLOEXEC);
    if (epoll->fd < 0) {
        int saved = errno;
        free(epoll);
        errno = saved;
        return nullptr;
    }
    return epoll;
}

// The request's memory file and a socket connected to the service; io
// names the command and the extra descriptor. A status other than OK leaves
// what was made for dv_call or the caller's dv_io_free to release.
int connect_request(const char* service, const char* command, dv_io* io, int fd)
{
    char path[MAXIMUM_NAME_SIZE];
    if (dv_sockfile(service, path, sizeof(path)) != 0)
        dv_abort("[ABORT] @%s() generate request [%s] SHA1 fail: `%s'\n", "dv_epoll_call", service,
                 "SHA1Result(&sha1)");

    // Running out of descriptors or memory is the caller's failure to
    // handle, not a misuse: the request fails with a socket status, and
    // whatever it holds is released by dv_call or the caller's dv_io_free.
    // The memory file comes first, so that a failure leaves no socket behind.
    if (!dv_io_shm(io))
        return DV_STATUS_SOCKET;
    io->sockfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (io->sockfd < 0)
        return DV_STATUS_SOCKET;
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path);
    int r;
    do {
        r = connect(io->sockfd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    } while (r != 0 && errno == EINTR);
    if (r != 0)
        return DV_STATUS_CONNECT;

    io->fd = fd;
    snprintf(io->name, sizeof(io->name), "%s", command);
    return DV_STATUS_OK;
}

// What a directive from the service means for a request: true with the
// final status, or false when the request goes on (it was told to go ahead
// and has sent itself; anything else is not for us).
bool answer(dv_io* io, const dv_directive& d, int* status)
{
    switch (d.type) {
    case DV_DIRECTIVE_BUSY:
        *status = DV_STATUS_BUSY;
        return true;
    case DV_DIRECTIVE_PAUSED:
        *status = DV_STATUS_PAUSED;
        return true;
    case DV_DIRECTIVE_REJECT:
        *status = DV_STATUS_REJECTED;
        return true;
    case DV_DIRECTIVE_REPLY:
        *status = DV_STATUS_OK;
        return true;
    case DV_DIRECTIVE_ACCEPT:
        send_request(io);
        return false;
    default:
        return false;
    }
}

}  // namespace

extern "C" {

DV_API dv_epoll* dv_epoll_create(void)
{
    dv_epoll* epoll = new_epoll();
    if (!epoll && errno == ENOMEM)
        dv_abort("[ABORT] @%s() alloc epoll memory fail: `%s'\n", "dv_epoll_create",
                 "(epoll = calloc(1, sizeof(dv_epoll)))");
    if (!epoll)
        dv_abort("[ABORT] @%s() create request epoll fail: `%s'\n", "dv_epoll_create",
                 "((epoll->fd = epoll_create(1)) >= 0 && set_fd_cloexec(epoll->fd))");
    return epoll;
}

DV_API int dv_epoll_call(dv_epoll* epoll, const char* service, const char* command, dv_io* io, int fd)
{
    check_epoll(epoll, "dv_epoll_call", "call");
    if (!io || io->magic != DV_IO_MAGIC)
        dv_abort("[ABORT] @%s() cannot make incorrect dv_io %p request: `%s'\n", "dv_epoll_call",
                 static_cast<const void*>(io), IO_COND);
    if (!service || strlen(service) > MAXIMUM_NAME_SIZE || !command || strlen(command) > 256)
        return DV_STATUS_ARGUMENTS;

    int status = connect_request(service, command, io, fd);
    if (status != DV_STATUS_OK)
        return status;
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = DV_EVENTS;
    ev.data.ptr = io;
    if (epoll_ctl(epoll->fd, EPOLL_CTL_ADD, io->sockfd, &ev) != 0)
        return DV_STATUS_SOCKET;  // ENOMEM or ENOSPC: a fresh socket cannot be there already
    return DV_STATUS_OK;
}

DV_API dv_io* dv_epoll_perform(dv_epoll* epoll, int timeout_ms, int* status)
{
    check_epoll(epoll, "dv_epoll_perform", "perform");
    for (;;) {
        struct epoll_event ev;
        int n;
        do {
            n = epoll_wait(epoll->fd, &ev, 1, timeout_ms);
        } while (n < 0 && errno == EINTR);
        if (n < 1) {
            *status = DV_STATUS_TIMEOUT;
            return nullptr;
        }
        dv_io* io = static_cast<dv_io*>(ev.data.ptr);
        if ((ev.events & (EPOLLERR | EPOLLHUP)) && !(ev.events & EPOLLRDHUP))
            return fail_request(epoll, io, status, DV_STATUS_SOCKET);
        dv_directive d;
        if (!dv_read_directive(io->sockfd, &d))
            return fail_request(epoll, io, status, DV_STATUS_SOCKET);
        if (!answer(io, d, status)) {
            if (d.type != DV_DIRECTIVE_ACCEPT)
                continue;  // not for us: wait for the next event
            *status = DV_STATUS_OK;
            return nullptr;
        }
        if (*status != DV_STATUS_OK)
            return fail_request(epoll, io, status, *status);
        dv_epoll_cancel(epoll, io);
        dv_io_sync(io);
        return io;
    }
}

DV_API void dv_epoll_cancel(dv_epoll* epoll, dv_io* io)
{
    check_epoll(epoll, "dv_epoll_cancel", "cancel");
    if (!io || io->magic != DV_IO_MAGIC)
        dv_abort("[ABORT] @%s() cannot cancel incorrect dv_io %p: `%s'\n", "dv_epoll_cancel",
                 static_cast<const void*>(io), IO_COND);
    if (io->sockfd >= 0) {
        epoll_ctl(epoll->fd, EPOLL_CTL_DEL, io->sockfd, nullptr);
        shutdown(io->sockfd, SHUT_RDWR);
        close(io->sockfd);
        io->sockfd = -1;
    }
}

DV_API void dv_epoll_free(dv_epoll* epoll)
{
    check_epoll(epoll, "dv_epoll_free", "free");
    epoll->magic = 0;
    close(epoll->fd);
    free(epoll);
}

DV_API int dv_call(const char* service, const char* command, dv_io* io, unsigned timeout_s, int fd)
{
    if (!io || io->magic != DV_IO_MAGIC)
        dv_abort("[ABORT] @%s() cannot make incorrect dv_io %p request: `%s'\n", "dv_epoll_call",
                 static_cast<const void*>(io), IO_COND);
    if (!service || strlen(service) > MAXIMUM_NAME_SIZE || !command || strlen(command) > 256) {
        release_request(io);
        return DV_STATUS_ARGUMENTS;
    }
    // One request from one thread: a poll on its socket does what a poller
    // of its own would, without making one per call.
    long long start = now_ms();
    int status = connect_request(service, command, io, fd);
    if (status == DV_STATUS_OK) {
        long long limit = static_cast<long long>(timeout_s < 5 ? 5 : timeout_s) * 1000;
        for (;;) {
            struct pollfd p = {io->sockfd, POLLIN | POLLRDHUP, 0};
            int n;
            do {
                n = poll(&p, 1, static_cast<int>(limit));
            } while (n < 0 && errno == EINTR);
            if (n < 1) {
                status = DV_STATUS_TIMEOUT;
                break;
            }
            dv_directive d;
            if (((p.revents & (POLLERR | POLLHUP)) && !(p.revents & POLLRDHUP)) ||
                !dv_read_directive(io->sockfd, &d)) {
                status = DV_STATUS_SOCKET;
                break;
            }
            if (answer(io, d, &status))
                break;
            if (d.type != DV_DIRECTIVE_ACCEPT)
                continue;  // not for us: wait for the next event
            // The limit shrinks by the whole time since the call began, on
            // every pass: callers have always seen it behave so.
            long long elapsed = now_ms() - start;
            if (elapsed > limit)
                break;
            limit -= elapsed;
            if (limit == 0)
                break;
        }
    }
    if (status == DV_STATUS_OK) {
        close(io->sockfd);
        io->sockfd = -1;
        dv_io_sync(io);
        return DV_STATUS_OK;
    }
    if (io->sockfd >= 0)
        shutdown(io->sockfd, SHUT_RDWR);
    release_request(io);
    return status;
}

DV_API int dv_ez_call(const char* service, const char* command, const void* data, size_t dsize, void** recv,
                      size_t* rsize, unsigned timeout_s, int fd)
{
    if (!(data != nullptr || dsize == 0U))
        dv_abort("[ABORT] @%s() data memory access violation with size (%zu): `%s'\n", "dv_ez_call", dsize,
                 "data != NULL || (data == NULL && dsize == 0U)");
    if (!(recv == nullptr || *recv == nullptr))
        dv_abort("[ABORT] @%s() recv memory access violation: `%s'\n", "dv_ez_call", "(recv == NULL || *recv == NULL)");
    dv_io* io = dv_io_create();
    if (dsize > 0)
        dv_io_write(io, data, dsize);
    int status = dv_call(service, command, io, timeout_s, fd);
    if (status == DV_STATUS_OK && recv) {
        *recv = realloc(*recv, io->shared_size);
        if (!*recv && io->shared_size) {
            // No memory for the reply: the call failed as far as the caller can tell.
            dv_io_free(io);
            return DV_STATUS_SOCKET;
        }
        if (io->shared_size)
            memcpy(*recv, io->shared_data, io->shared_size);
        if (rsize)
            *rsize = io->shared_size;
    }
    dv_io_free(io);
    return status;
}

DV_API int dv_json_write_io(const char* text, size_t len, dv_io* io)
{
    return static_cast<int>(dv_io_write(io, text, len) - static_cast<ssize_t>(len));
}

}  // extern "C"
