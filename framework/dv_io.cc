// The message object: one request and its reply in a shared memory file.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace {

constexpr const char IO_COND[] = "io && (*(u_int32_t*) io == DV_IO_MAGIC)";

bool io_ok(const dv_io* io)
{
    return io && io->magic == DV_IO_MAGIC;
}

#define CHECK_IO(io, what)                                                                 \
    do {                                                                                   \
        if (!io_ok(io))                                                                    \
            dv_abort("[ABORT] @%s() " what ": `%s'\n", __func__, static_cast<const void*>(io), IO_COND); \
    } while (0)

}  // namespace

// The memory file comes into being on first use. Running out of descriptors
// is not a misuse: the operation that needed the file fails, the process
// goes on (a daemon's client call must not take the daemon with it).
bool dv_io_shm(dv_io* io)
{
    if (io->memfd >= 0)
        return true;
    int fd = static_cast<int>(syscall(SYS_memfd_create, "dovel", MFD_CLOEXEC));
    if (fd == -1)
        return false;
    io->memfd = fd;
    return true;
}

namespace {

void unmap(dv_io* io)
{
    if (io->shared_data) {
        munmap(io->shared_data, io->shared_size);
        io->shared_data = nullptr;
        io->shared_size = 0;
    }
}

void resync(dv_io* io)
{
    if (io->memfd == -1)
        return;
    // The offset goes to the end, as it always has; where that is is the size.
    off_t size = lseek(io->memfd, 0, SEEK_END);
    // A shared mapping shows the file as it is now: only a new size needs a
    // new one.
    if (size > 0 && io->shared_data && static_cast<size_t>(size) == io->shared_size)
        return;
    unmap(io);
    if (size > 0) {
        // The file is the peer's as much as ours: it may have grown past
        // what can be mapped since. Then it reads as empty, and the process
        // goes on.
        void* map = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, io->memfd, 0);
        if (map == MAP_FAILED)
            return;
        io->shared_data = map;
        io->shared_size = static_cast<size_t>(size);
    }
}

// A reply that cannot be written into the request's file must not reach the
// client as if it were whole: the connection is shut down instead, so the
// client sees a hang-up and the reply directive goes nowhere.
void drop_reply(dv_io* io)
{
    if (io->sockfd >= 0)
        shutdown(io->sockfd, SHUT_RDWR);
}

}  // namespace

bool dv_io_map_request(dv_io* io, unsigned long long max_size)
{
    off_t size = lseek(io->memfd, 0, SEEK_END);
    if (size < 0 || static_cast<unsigned long long>(size) > max_size)
        return false;
    unmap(io);
    if (size == 0)
        return true;
    void* map = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, io->memfd, 0);
    if (map == MAP_FAILED)
        return false;
    io->shared_data = map;
    io->shared_size = static_cast<size_t>(size);
    return true;
}

extern "C" {

DV_API dv_io* dv_io_create(void)
{
    dv_io* io = static_cast<dv_io*>(malloc(sizeof(dv_io)));
    if (!io)
        dv_abort("[ABORT] @%s() alloc dv_io memory fail: `%s'\n", "dv_io_create", "io");
    io->magic = DV_IO_MAGIC;
    io->memfd = io->sockfd = io->fd = -1;
    io->name[0] = '\0';
    io->data = nullptr;
    io->shared_data = nullptr;
    io->shared_size = 0;
    io->pid = 0;
    io->uid = 0;
    io->gid = 0;
    return io;
}

DV_API void dv_io_free(dv_io* io)
{
    CHECK_IO(io, "cannot free incorrect dv_io %p");
    if (io->sockfd >= 0)
        close(io->sockfd);
    if (io->memfd >= 0) {
        unmap(io);
        close(io->memfd);
    }
    free(io);
}

DV_API void* dv_io_realloc(dv_io* io, size_t size)
{
    CHECK_IO(io, "cannot alloc incorrect dv_io %p");
    // On a server the file came from the client, which may have sealed,
    // grown or swapped it in ways we cannot see coming; a file that cannot
    // be resized or mapped costs that client its reply, never the process.
    if (!dv_io_shm(io))
        return nullptr;
    unmap(io);
    if (ftruncate(io->memfd, static_cast<off_t>(size)) != 0) {
        drop_reply(io);
        return nullptr;
    }
    lseek(io->memfd, 0, SEEK_END);
    if (size == 0)
        return nullptr;
    void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, io->memfd, 0);
    if (map == MAP_FAILED) {
        drop_reply(io);
        return nullptr;
    }
    io->shared_data = map;
    io->shared_size = size;
    return map;
}

DV_API char* dv_io_read(dv_io* io, size_t* size)
{
    CHECK_IO(io, "cannot read incorrect dv_io %p");
    resync(io);
    if (size)
        *size = io->shared_size;
    return static_cast<char*>(io->shared_data);
}

DV_API ssize_t dv_io_write(dv_io* io, const void* buf, size_t len)
{
    CHECK_IO(io, "cannot read incorrect dv_io %p");
    if (!dv_io_shm(io))
        return -1;
    return write(io->memfd, buf, len);
}

DV_API ssize_t dv_io_splice(dv_io* io, int fdin, size_t len)
{
    CHECK_IO(io, "cannot read incorrect dv_io %p");
    if (!dv_io_shm(io))
        return -1;
    return splice(fdin, nullptr, io->memfd, nullptr, len, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
}

DV_API void dv_io_printf(dv_io* io, const char* fmt, ...)
{
    CHECK_IO(io, "cannot printf incorrect dv_io %p");
    if (!dv_io_shm(io))
        return;
    va_list ap;
    va_start(ap, fmt);
    int n = vdprintf(io->memfd, fmt, ap);
    va_end(ap);
    if (n < 0)
        drop_reply(io);
}

DV_API int dv_io_pid(dv_io* io)
{
    CHECK_IO(io, "cannot fetch incorrect dv_io %p pid");
    return io->pid;
}

DV_API int dv_io_uid(dv_io* io)
{
    CHECK_IO(io, "cannot fetch incorrect dv_io %p uid");
    return static_cast<int>(io->uid);
}

DV_API int dv_io_gid(dv_io* io)
{
    CHECK_IO(io, "cannot fetch incorrect dv_io %p gid");
    return static_cast<int>(io->gid);
}

DV_API void dv_io_set(dv_io* io, void* data)
{
    CHECK_IO(io, "cannot attach incorrect dv_io %p");
    io->data = data;
}

DV_API void* dv_io_get(dv_io* io)
{
    CHECK_IO(io, "cannot detach incorrect dv_io %p");
    return io->data;
}

DV_API int dv_io_alive(dv_io* io)
{
    CHECK_IO(io, "cannot check incorrect dv_io %p alive");
    if (io->pid == 0)
        return 1;
    // A waiting client never writes while its request runs, so a readable
    // socket means it hung up. poll, unlike select, has no descriptor limit.
    struct pollfd p = {io->sockfd, POLLIN, 0};
    int n = poll(&p, 1, 0);
    if (n < 0)
        return 0;
    if (n == 0)
        return 1;
    return (p.revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) ? 0 : 1;
}

DV_API size_t dv_io_size(dv_io* io)
{
    if (io->memfd == -1)
        return 0;
    struct stat st;
    if (fstat(io->memfd, &st) != 0)
        return 0;
    return static_cast<size_t>(st.st_size);
}

DV_API int dv_io_fileno(dv_io* io)
{
    return dv_io_shm(io) ? io->memfd : -1;
}

DV_API int dv_io_dup(dv_io* io)
{
    return dv_io_shm(io) ? dup(io->memfd) : -1;
}

DV_API int dv_io_dup2(dv_io* io, int newfd)
{
    return dv_io_shm(io) ? dup2(io->memfd, newfd) : -1;
}

DV_API int dv_io_dup3(dv_io* io, int newfd, int flags)
{
    return dv_io_shm(io) ? dup3(io->memfd, newfd, flags) : -1;
}

DV_API FILE* dv_io_fopen(dv_io* io, const char* mode)
{
    if (!dv_io_shm(io))
        return nullptr;
    char path[4096];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", io->memfd);
    return fopen(path, mode);
}

DV_API FILE* dv_io_freopen(dv_io* io, const char* mode, FILE* stream)
{
    if (!dv_io_shm(io))
        return nullptr;
    char path[4096];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", io->memfd);
    return freopen(path, mode, stream);
}

DV_API void dv_io_sync(dv_io* io)
{
    resync(io);
}

}  // extern "C"
