// Consumer workers: each owns one client at a time, receives its request and
// runs the service's exec callback with a message object built from it. A
// thread consumer takes its next client itself: the first waiting one, or,
// while nobody waits, the next to connect.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "describe.h"
#include "internal.h"

namespace {

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct consumer_state {
    dv_worker* worker;
    long long deadline = 0;  // when the held client must have sent its request
    dv_peer peer{};          // the held client's credentials, when read at accept
};

void report_ready(dv_worker* w)
{
    dv_directive d;
    memset(&d, 0, sizeof(d));
    d.type = DV_DIRECTIVE_READY;
    uint64_t index = w->index;
    memcpy(d.data, &index, sizeof(index));
    dv_send_directive(w->sockfd[0], &d);
}

// A new thread consumer offers to watch the listening socket as soon as it
// runs, unless the producer has handed it a client already (its transfer
// waits on the control socket).
void start_watching(dv_worker* w)
{
    dv_worker* producer = dv_producer_of(w->handle);
    pthread_mutex_lock(&producer->direct_lock);
    if (w->idle && !__atomic_load_n(&w->handle->stopping, __ATOMIC_RELAXED))
        dv_direct_watch(producer, w, true);
    pthread_mutex_unlock(&producer->direct_lock);
}

void stop_watching(dv_worker* w)
{
    if (!w->direct)
        return;
    dv_worker* producer = dv_producer_of(w->handle);
    pthread_mutex_lock(&producer->direct_lock);
    dv_direct_watch(producer, w, false);
    pthread_mutex_unlock(&producer->direct_lock);
}

void drop_client(dv_worker* w)
{
    if (w->client < 0)
        return;
    shutdown(w->client, SHUT_RDWR);
    close(w->client);
    w->client = -1;
}

int remaining_ms(const consumer_state& s)
{
    long long left = s.deadline - now_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Waits (within the request deadline) for the client's next descriptor
// message and receives it.
int recv_client_fd(const consumer_state& s, int client)
{
    // Usually the client sent it with its request: take it without a poll.
    bool would_block = false;
    int fd = dv_recv_fd_now(client, &would_block);
    if (fd >= 0 || !would_block)
        return fd;
    struct pollfd p = {client, POLLIN, 0};
    int n;
    do {
        n = poll(&p, 1, remaining_ms(s));
    } while (n < 0 && errno == EINTR);
    if (n != 1 || !(p.revents & POLLIN))
        return -1;
    return dv_recv_fd(client);
}

// The request's memory file must be a memory file we can read, resize and
// rewrite for the reply; anything else (a pipe, a file on disk, a read-only
// or sealed file, an absurd size) would make the reply path fail, so the
// client is refused instead. The seals are frozen before they are looked at:
// then what we see is final, and the client cannot forbid the reply later.
bool usable_memfd(int fd)
{
    struct stat st;
    struct statfs fs;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0 ||
        static_cast<unsigned long long>(st.st_size) > DV_MAX_REQUEST_SIZE || fstatfs(fd, &fs) != 0 ||
        fs.f_type != TMPFS_MAGIC)
        return false;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) != O_RDWR)
        return false;
    (void)fcntl(fd, F_ADD_SEALS, F_SEAL_SEAL);  // refused when sealing was never allowed: sealed already
    int seals = fcntl(fd, F_GET_SEALS);
    return seals >= 0 && (seals & F_SEAL_SEAL) &&
           !(seals & (F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_FUTURE_WRITE));
}

// Lingering off, so that closing a socket can never wait for data it still
// has to send; harmless on anything else.
void close_client_fd(int fd)
{
    struct linger off = {0, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof(off));
    close(fd);
}

// The extra descriptor becomes a handler's standard output: only kinds whose
// writes and close cannot hang us on someone else's terms are taken, and
// only when open for writing. A socket must be a local one, with lingering
// off.
bool usable_extra_fd(int fd)
{
    struct stat st;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_PATH) || (flags & O_ACCMODE) == O_RDONLY || fstat(fd, &st) != 0)
        return false;
    if (S_ISSOCK(st.st_mode)) {
        int domain = -1;
        socklen_t len = sizeof(domain);
        struct linger off = {0, 0};
        return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 && domain == AF_UNIX &&
               setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof(off)) == 0;
    }
    return S_ISREG(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode);
}

// A forked consumer runs with its caller's environment.
void adopt_environment(pid_t pid)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/environ", static_cast<int>(pid));
    // Read-only as always ("o" in "ro" means nothing to the C library);
    // "e" keeps the stream out of the handler's children meanwhile.
    FILE* f = fopen(path, "re");
    if (!f)
        return;
    char* text = nullptr;
    size_t cap = 0;
    ssize_t len = getdelim(&text, &cap, '\n', f);
    fclose(f);
    clearenv();
    if (len > 0 && text[len - 1] == '\n')
        text[--len] = '\0';
    // NAME=VALUE entries separated by NUL bytes; getdelim terminates the last.
    for (ssize_t pos = 0; pos < len;) {
        char* entry = text + pos;
        size_t entry_len = strnlen(entry, static_cast<size_t>(len - pos));
        pos += static_cast<ssize_t>(entry_len) + 1;
        char* eq = static_cast<char*>(memchr(entry, '=', entry_len));
        if (!eq || eq == entry)
            continue;
        *eq = '\0';
        // The caller's environment is its own business, except what would
        // steer the loader of a program we start for it.
        if (strncmp(entry, "LD_", 3) == 0 || strcmp(entry, "GCONV_PATH") == 0 ||
            strcmp(entry, "MALLOC_TRACE") == 0 || strcmp(entry, "GLIBC_TUNABLES") == 0)
            continue;
        setenv(entry, eq + 1, 1);
    }
    free(text);
}

// The client's request: the memory file, maybe an extra descriptor, then
// the call. Returns after the exec callback, which owns the message object.
void serve_request(consumer_state& s, const dv_directive& d)
{
    dv_worker* w = s.worker;
    int client = w->client;
    int memfd = recv_client_fd(s, client);
    if (memfd < 0) {
        drop_client(w);
        return;
    }
    int extra = -1;
    if (d.flags & DV_DIRECTIVE_FLAG_EXTRA_FD) {
        extra = recv_client_fd(s, client);
        if (extra < 0) {
            close(memfd);
            drop_client(w);
            return;
        }
    }
    if (!usable_memfd(memfd) || (extra >= 0 && !usable_extra_fd(extra))) {
        close(memfd);
        if (extra >= 0)
            close_client_fd(extra);
        drop_client(w);
        return;
    }
    dv_io* io = dv_io_create();
    io->memfd = memfd;
    if (!dv_io_map_request(io, DV_MAX_REQUEST_SIZE)) {
        dv_io_free(io);
        if (extra >= 0)
            close_client_fd(extra);
        drop_client(w);
        return;
    }
    w->client = -1;
    io->sockfd = client;
    memcpy(io->name, d.data, sizeof(io->name) - 1);
    io->name[sizeof(io->name) - 1] = '\0';
    if (!s.peer.known) {  // handed over by the producer
        socklen_t len = sizeof(s.peer.cred);
        s.peer.known = getsockopt(client, SOL_SOCKET, SO_PEERCRED, &s.peer.cred, &len) == 0;
    }
    if (s.peer.known) {
        io->pid = s.peer.cred.pid;
        io->uid = s.peer.cred.uid;
        io->gid = s.peer.cred.gid;
    }
    if ((w->mode & DV_PROCESS_MODE) && s.peer.known)
        adopt_environment(s.peer.cred.pid);
    if (dv_answer_description(w->handle, io, extra))
        return;
    w->exec(io->name, io, extra);
}

// Tells a client to go ahead and waits for its request. False when the
// client could not be told (it is closed then). peer: its credentials, or
// null when they are still to be read.
bool hold_client(consumer_state& s, int client, const dv_peer* peer)
{
    dv_worker* w = s.worker;
    s.peer = peer ? *peer : dv_peer{};
    if (!dv_send_directive_type(client, DV_DIRECTIVE_ACCEPT)) {
        shutdown(client, SHUT_RDWR);
        close(client);
        return false;
    }
    w->client = client;
    s.deadline = now_ms() + DV_REQUEST_DEADLINE_MS;
    return true;
}

// Done with a client (or never had one). A thread consumer takes the first
// waiting client from the producer's queue itself, or, when nobody waits,
// becomes idle and offers to watch the listening socket; a process tells the
// producer, which hands it the next waiting client.
void become_idle(consumer_state& s)
{
    dv_worker* w = s.worker;
    if (!(w->mode & DV_PTHREAD_MODE)) {
        report_ready(w);
        return;
    }
    dv_worker* producer = dv_producer_of(w->handle);
    dv_peer peer;
    for (int client; (client = dv_next_client(producer, w, &peer)) >= 0;)
        if (hold_client(s, client, &peer))
            return;
}

// A new client from the producer: receive it, echo the transfer so the
// producer closes its copy, tell the client to go ahead.
void take_client(consumer_state& s, const dv_directive& d)
{
    dv_worker* w = s.worker;
    stop_watching(w);  // the producer claimed us for this one
    int client = dv_recv_fd(w->sockfd[0]);
    dv_send_directive(w->sockfd[0], &d);
    if (client < 0 || !hold_client(s, client, nullptr))
        become_idle(s);
}

// The producer wakes up to see that the listening socket rests, and when to
// watch it again.
void rest_listener(dv_worker* w)
{
    dv_worker* producer = dv_producer_of(w->handle);
    pthread_mutex_lock(&producer->direct_lock);
    dv_rest_listener(producer);
    pthread_mutex_unlock(&producer->direct_lock);
    dv_send_directive_type(w->sockfd[0], DV_DIRECTIVE_NUDGE);
}

// The listening socket is readable while we watch it: take the client and
// pass the watch on, unless the producer has claimed us meanwhile (its
// transfer is on the way; the watch passes on too) or another worker was
// quicker. The client passes the producer's checks; running out of
// descriptors rests the listening socket as it does for the producer.
void accept_directly(consumer_state& s)
{
    dv_worker* w = s.worker;
    dv_worker* producer = dv_producer_of(w->handle);
    int client = -1;
    bool rested = false;
    pthread_mutex_lock(&producer->direct_lock);
    const bool stopping = __atomic_load_n(&w->handle->stopping, __ATOMIC_RELAXED);
    if (producer->watcher == w && w->idle && !stopping) {
        client = dv_accept(producer->queue.sockfd);
        const int err = errno;
        if (client >= 0 && !dv_leaves_reserve(client)) {
            // Before the watch passes on: another consumer would only
            // accept the next client into the same shortage.
            dv_rest_listener(producer);
            rested = true;
        } else if (client >= 0) {
            w->idle = 0;
            dv_direct_watch(producer, w, false);
        } else if (dv_out_of_descriptors(err)) {
            dv_rest_listener(producer);
            rested = true;
        } else if (err != EAGAIN && err != EWOULDBLOCK && err != ECONNABORTED && err != EINTR) {
            dv_direct_watch(producer, w, false);  // the producer will see what is wrong
        }
    } else if (!w->idle || stopping) {
        dv_direct_watch(producer, w, false);
    }
    pthread_mutex_unlock(&producer->direct_lock);
    if (rested)
        dv_send_directive_type(w->sockfd[0], DV_DIRECTIVE_NUDGE);
    if (client < 0)
        return;
    if (rested) {  // we stay idle
        dv_refuse(client, DV_DIRECTIVE_BUSY);
        return;
    }

    dv_peer peer;
    bool out_of_fds;
    if (!dv_admit_client(w->handle, client, &peer, &out_of_fds)) {
        if (out_of_fds)
            rest_listener(w);
        become_idle(s);
        return;
    }
    if (!hold_client(s, client, &peer))
        become_idle(s);
}

// Waits, within the request deadline, for the held client or the control
// socket (the control socket first when both have something), as epoll would
// report it. A held client is polled, not added to the epoll set and taken
// out again: two system calls less per request.
int wait_held(const consumer_state& s, struct epoll_event* ev)
{
    static_assert(POLLIN == EPOLLIN && POLLERR == EPOLLERR && POLLHUP == EPOLLHUP && POLLRDHUP == EPOLLRDHUP,
                  "poll and epoll report with the same bits");
    dv_worker* w = s.worker;
    struct pollfd p[2] = {{w->sockfd[0], POLLIN | POLLRDHUP, 0}, {w->client, POLLIN | POLLRDHUP, 0}};
    int n = poll(p, 2, remaining_ms(s));
    if (n <= 0)
        return n;
    const struct pollfd& ready = p[0].revents ? p[0] : p[1];
    ev->events = static_cast<uint32_t>(ready.revents);
    ev->data.fd = ready.fd;
    return 1;
}

void consumer_loop(dv_worker* w)
{
    consumer_state s{w};
    const int listen_fd = dv_producer_of(w->handle)->queue.sockfd;
    const bool thread = w->mode & DV_PTHREAD_MODE;
    if (thread)
        start_watching(w);
    for (;;) {
        struct epoll_event ev;
        int n;
        do {
            n = w->client >= 0 ? wait_held(s, &ev) : epoll_wait(w->pollfd, &ev, 1, -1);
        } while (n < 0 && errno == EINTR);
        if (n == 0 && w->client >= 0) {
            drop_client(w);  // the request did not come in time
            become_idle(s);
            continue;
        }
        if (n < 1)
            return;
        if (thread && ev.data.fd == listen_fd) {
            accept_directly(s);
            continue;
        }
        bool control = ev.data.fd == w->sockfd[0];
        if (!control && ev.data.fd != w->client)
            continue;
        if (ev.events == DV_EVENTS_GONE) {
            if (control)
                return;
            drop_client(w);
            become_idle(s);
            continue;
        }
        dv_directive d;
        memset(&d, 0, sizeof(d));
        ssize_t got;
        do {
            got = read(ev.data.fd, &d, sizeof(d));
        } while (got < 0 && errno == EINTR);
        if (got != static_cast<ssize_t>(sizeof(d))) {
            if (control) {
                if (got == 0)
                    return;  // the producer's end is closed: nobody can stop us otherwise
                report_ready(w);
            } else {
                drop_client(w);
                become_idle(s);
            }
            continue;
        }
        if (control) {
            if (d.type == DV_DIRECTIVE_STOP)
                return;
            if (d.type == DV_DIRECTIVE_TRANSFER && w->client < 0)
                take_client(s, d);
            continue;  // nothing else is ever sent on the control socket
        }
        if (d.type == DV_DIRECTIVE_REQUEST) {
            serve_request(s, d);
            become_idle(s);
            continue;
        }
        drop_client(w);  // a client may only send its request
        become_idle(s);
    }
}

}  // namespace

void* dv_consumer_worker(void* arg)
{
    dv_worker* w = static_cast<dv_worker*>(arg);
    if (w->worker_init)
        w->worker_init(w->worker_init_arg);
    w->pollfd = epoll_create1(EPOLL_CLOEXEC);
    if (!(w->pollfd >= 0 && set_fd_cloexec(w->pollfd)))
        dv_abort("[ABORT] @%s() consumer-worker create epoll fail: `%s'\n", "dv_consumer_worker",
                 "(consumer_worker->pollfd = epoll_create(1)) >= 0 && set_fd_cloexec(consumer_worker->pollfd)");
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = DV_EVENTS;
    ev.data.fd = w->sockfd[0];
    if (epoll_ctl(w->pollfd, EPOLL_CTL_ADD, w->sockfd[0], &ev) != 0)
        dv_abort("[ABORT] @%s() consumer-worker epoll add sockfd fail: `%s'\n", "dv_consumer_worker",
                 "epoll_ctl(consumer_worker->pollfd, EPOLL_CTL_ADD, consumer_worker->sockfd[0], ev) == 0");

    consumer_loop(w);

    // Nobody may pass the watch to an epoll set about to close.
    if (w->mode & DV_PTHREAD_MODE)
        stop_watching(w);
    drop_client(w);
    shutdown(w->sockfd[0], SHUT_RDWR);
    close(w->sockfd[0]);
    w->sockfd[0] = -1;
    if (w->mode & DV_PROCESS_MODE) {
        if (w->sockfd[1] >= 0) {
            shutdown(w->sockfd[1], SHUT_RDWR);
            close(w->sockfd[1]);
            w->sockfd[1] = -1;
        }
    } else if (w->sockfd[1] >= 0) {
        // The producer still polls this end; it is closed by dv_stop once the
        // producer has ended, so the number cannot be reused under it.
        shutdown(w->sockfd[1], SHUT_RDWR);
    }
    close(w->pollfd);
    w->pollfd = -1;
    if (w->worker_fini)
        w->worker_fini(w->worker_fini_arg);
    if (!(w->mode & DV_PROCESS_MODE))
        pthread_exit(nullptr);
    return nullptr;
}

void dv_consumer_worker_init(dv_handle* h, dv_worker* producer, dv_worker* w, size_t index, bool first_start)
{
    w->index = index;
    w->mode = h->mode;
    w->exec = h->exec;
    w->worker_init = h->worker_init;
    w->worker_init_arg = h->worker_init_arg;
    w->worker_fini = h->worker_fini;
    w->worker_fini_arg = h->worker_fini_arg;
    w->handle = h;
    w->sockfd[0] = w->sockfd[1] = -1;
    // Running consumers read these of every other when they pass the watch.
    pthread_mutex_lock(&producer->direct_lock);
    w->idle = 1;
    w->direct = false;
    pthread_mutex_unlock(&producer->direct_lock);
    w->pollfd = -1;
    w->client = -1;
    w->handed = -1;

    if (!(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, w->sockfd) >= 0 && set_fd_cloexec(w->sockfd[0]) &&
          set_fd_cloexec(w->sockfd[1]))) {
        if (first_start)
            abort();
        dv_abort("[ABORT] @%s() consumer-worker create sockets fail: `%s'\n", "dv_consumer_worker_init",
                 "socketpair(AF_UNIX, SOCK_STREAM, 0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && "
                 "set_fd_cloexec(worker->sockfd[1])");
    }

    if (w->mode & DV_PTHREAD_MODE) {
        pthread_attr_t attr;
        dv_worker_thread_attr(&attr);
        if (pthread_create(&w->id.tid, &attr, dv_consumer_worker, w) != 0)
            dv_abort("[ABORT] @%s() consumer-worker create thread fail: `%s'\n", "dv_consumer_worker_init",
                     "pthread_create(&worker->id.tid, &attr, dv_consumer_worker, (void*) worker) == 0");
        pthread_attr_destroy(&attr);
    } else {
        w->id.pid = fork();
        if (w->id.pid < 0)
            dv_abort("[ABORT] @%s() consumer-worker create process fail: `%s'\n", "dv_consumer_worker_init",
                     "(worker->id.pid = fork()) >= 0");
        if (w->id.pid == 0) {
            // The child keeps its control socket as descriptor 3 and nothing
            // else of the parent's but 0-2.
            if (w->sockfd[0] != 3) {
                dup3(w->sockfd[0], 3, O_CLOEXEC);
                w->sockfd[0] = 3;
            }
            close_fds();
            w->sockfd[1] = -1;
            signal(SIGINT, SIG_IGN);
            signal(SIGTERM, SIG_IGN);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dv_consumer_worker(w);
            free(h->worker);
            free(h);
            _exit(0);
        }
    }

    w->queue.type = CONSUMER_SOCK;
    w->queue.sockfd = w->sockfd[1];
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = DV_EVENTS;
    ev.data.ptr = &w->queue;
    if (epoll_ctl(producer->pollfd, EPOLL_CTL_ADD, w->queue.sockfd, &ev) != 0)
        dv_abort("[ABORT] @%s() producer-worker epoll add consumer-worker sockfd fail: `%s'\n", "dv_consumer_worker_init",
                 "epoll_ctl(producer_worker->pollfd, EPOLL_CTL_ADD, worker->queue.sockfd, ev) == 0");
}

extern "C" DV_API int dv_reply(dv_io* io)
{
    if (!io || io->magic != DV_IO_MAGIC)
        dv_abort("[ABORT] @%s() cannot response incorrect dv_io %p: `%s'\n", "dv_reply", static_cast<const void*>(io),
                 "io && (*(u_int32_t*) io == DV_IO_MAGIC)");
    dv_send_directive_type(io->sockfd, DV_DIRECTIVE_REPLY);
    shutdown(io->sockfd, SHUT_RDWR);
    return 0;
}
