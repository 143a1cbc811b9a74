// The producer: accepts clients, queues them (uids taking turns, each uid's
// clients first come first served), and hands each to an idle consumer. It
// never blocks on a consumer. While nobody waits, an idle thread consumer
// accepts from the listening socket itself (no hand-over on the way) and the
// producer leaves it alone; it takes over again when none is idle. Thread
// consumers that finish while clients wait take the next one from the queue
// themselves; the producer hands clients over only to consumers that are idle.
#include <errno.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unordered_map>

#include "internal.h"

// Waiting clients per uid, and the round each uid's next client is served
// in: a uid's n-th waiting client is served in its n-th round from now, so
// turns alternate between uids while each uid keeps its arrival order.
struct dv_waiting_uids {
    struct uid_state {
        size_t waiting = 0;
        uint64_t last_turn = 0;
    };
    std::unordered_map<uid_t, uid_state> by_uid;
    uint64_t turn = 0;  // the round of the client handed over last
};

namespace {

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void free_clients(dv_client* c)
{
    while (c) {
        dv_client* next = c->next;
        free(c);
        c = next;
    }
}

// Client entries removed while a batch of events is being handled may still
// be named by a later event of the same batch; they are marked (socket 0,
// under direct_lock, as consumers read it there) and freed only after the
// batch.
struct graveyard {
    dv_client* head = nullptr;
    void bury(dv_client* c)
    {
        c->queue.sockfd = 0;
        c->next = head;
        head = c;
    }
    void clear()
    {
        free_clients(head);
        head = nullptr;
    }
};

long long resting_until(const dv_worker* producer)
{
    return __atomic_load_n(&producer->listen_again_ms, __ATOMIC_RELAXED);
}

void set_resting_until(dv_worker* producer, long long ms)
{
    __atomic_store_n(&producer->listen_again_ms, ms, __ATOMIC_RELAXED);
}

// The queue and its turns are read and changed under direct_lock only.
void unlink_client(dv_worker* producer, dv_client* c)
{
    if (c->prev)
        c->prev->next = c->next;
    else
        producer->clients.head = c->next;
    if (c->next)
        c->next->prev = c->prev;
    else
        producer->clients.tail = c->prev;
    c->prev = c->next = nullptr;
    producer->waiting--;
    auto it = producer->uids->by_uid.find(c->uid);
    if (it != producer->uids->by_uid.end() && --it->second.waiting == 0)
        producer->uids->by_uid.erase(it);
}

// Queues c behind every client served in the same round or before it.
void link_client(dv_worker* producer, dv_client* c)
{
    dv_waiting_uids::uid_state& u = producer->uids->by_uid[c->uid];
    c->turn = std::max(u.last_turn, producer->uids->turn) + 1;
    u.last_turn = c->turn;
    u.waiting++;
    dv_client* before = producer->clients.tail;
    while (before && before->turn > c->turn)
        before = before->prev;
    c->prev = before;
    c->next = before ? before->next : producer->clients.head;
    if (c->next)
        c->next->prev = c;
    else
        producer->clients.tail = c;
    if (before)
        before->next = c;
    else
        producer->clients.head = c;
    producer->waiting++;
}

size_t waiting_of(const dv_worker* producer, uid_t uid)
{
    auto it = producer->uids->by_uid.find(uid);
    return it == producer->uids->by_uid.end() ? 0 : it->second.waiting;
}

// Unless a consumer has taken it meanwhile.
void drop_client(dv_worker* producer, dv_client* c, graveyard& dead)
{
    pthread_mutex_lock(&producer->direct_lock);
    int fd = c->queue.sockfd;
    if (fd != 0) {
        epoll_ctl(producer->pollfd, EPOLL_CTL_DEL, fd, nullptr);
        unlink_client(producer, c);
        dead.bury(c);
    }
    pthread_mutex_unlock(&producer->direct_lock);
    if (fd != 0) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
}

void refuse(int fd, uint8_t type)
{
    dv_send_directive_type(fd, type);
    shutdown(fd, SHUT_RDWR);
    close(fd);
}

void restart_if_dead(dv_handle* h, dv_worker* producer, dv_worker* w)
{
    int status = 0;
    pid_t r = waitpid(w->id.pid, &status, WNOHANG);
    if (r == 0)
        return;
    const char* how = "WIFEXITED";
    int value = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) {
        how = "WIFSIGNALED";
        value = WTERMSIG(status);
    } else if (WIFSTOPPED(status)) {
        how = "WIFSTOPPED";
        value = WSTOPSIG(status);
    }
    fprintf(stderr, "[Dovel] [WARN] [%s] consumer-worker[%zu].pid=%d %s=%d, restart it.\n", h->name, w->index,
            static_cast<int>(w->id.pid), how, value);
    epoll_ctl(producer->pollfd, EPOLL_CTL_DEL, w->queue.sockfd, nullptr);
    dv_close_worker_fds(w);
    dv_consumer_worker_init(h, producer, w, w->index, false);
    // Events already fetched for the old socket pair must not be applied to
    // the new one: the rest of the batch is dropped (epoll is level-triggered,
    // so anything still pending is reported again).
    producer->restarted = true;
}

// The next idle consumer after the one chosen last (round robin), claimed
// (no longer idle), or null. Dead process consumers are restarted first.
dv_worker* choose_consumer(dv_worker* producer)
{
    dv_handle* h = producer->handle;
    size_t n = h->service_size;
    for (size_t k = 1; k <= n; k++) {
        dv_worker* w = &h->worker[(producer->last_chosen + k) % n];
        // Only plain process mode restarts its consumers; a standalone
        // process service deliberately does not.
        if (w->mode == DV_PROCESS_MODE) {
            // dv_stop reads the records once it has set stopping under
            // this lock; a restart must not overlap that.
            pthread_mutex_lock(&h->run_lock);
            if (!__atomic_load_n(&h->stopping, __ATOMIC_RELAXED))
                restart_if_dead(h, producer, w);
            pthread_mutex_unlock(&h->run_lock);
        }
    }
    dv_worker* chosen = nullptr;
    pthread_mutex_lock(&producer->direct_lock);
    for (size_t k = 1; k <= n && !chosen; k++) {
        dv_worker* w = &h->worker[(producer->last_chosen + k) % n];
        if (w->idle) {
            w->idle = 0;
            chosen = w;
        }
    }
    pthread_mutex_unlock(&producer->direct_lock);
    return chosen;
}

// Sends client fd to consumer w, claimed already. On failure the client is
// closed and w is idle again.
void hand_over(dv_worker* producer, dv_worker* w, int fd)
{
    dv_directive d;
    memset(&d, 0, sizeof(d));
    d.type = DV_DIRECTIVE_TRANSFER;
    memcpy(d.data, &fd, sizeof(fd));
    bool sent = dv_send_directive(w->sockfd[1], &d) && dv_send_fd(w->sockfd[1], fd);
    producer->last_chosen = w->index;
    if (sent) {
        // Our copy is closed when the consumer echoes the transfer. A
        // consumer that dies before echoing leaks this one descriptor;
        // that costs one descriptor per consumer death, and a restart
        // only happens after such a death, so the loss stays bounded.
        w->handed = fd;
    } else {
        pthread_mutex_lock(&producer->direct_lock);
        w->idle = 1;
        pthread_mutex_unlock(&producer->direct_lock);
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
}

bool queue_empty(dv_worker* producer)
{
    pthread_mutex_lock(&producer->direct_lock);
    bool empty = producer->clients.head == nullptr;
    pthread_mutex_unlock(&producer->direct_lock);
    return empty;
}

// Under direct_lock: the first waiting client leaves the queue; its socket.
int pop_client(dv_worker* producer, dv_client* c)
{
    int fd = c->queue.sockfd;
    if (producer->pollfd >= 0)
        epoll_ctl(producer->pollfd, EPOLL_CTL_DEL, fd, nullptr);
    producer->uids->turn = c->turn;
    unlink_client(producer, c);
    return fd;
}

// Hands waiting clients to idle consumers, round robin, while both exist.
void dispatch(dv_worker* producer, graveyard& dead)
{
    dv_handle* h = producer->handle;
    while (!queue_empty(producer) && !__atomic_load_n(&h->stopping, __ATOMIC_RELAXED)) {
        dv_worker* chosen = choose_consumer(producer);
        if (!chosen)
            return;
        pthread_mutex_lock(&producer->direct_lock);
        dv_client* c = producer->clients.head;
        int fd = -1;
        if (c) {
            fd = pop_client(producer, c);
            dead.bury(c);
        } else {
            chosen->idle = 1;  // a consumer that finished took the last one meanwhile
        }
        pthread_mutex_unlock(&producer->direct_lock);
        if (fd < 0)
            return;
        hand_over(producer, chosen, fd);
    }
}

// The service's admission check, with the peer's credentials. A peer whose
// credentials cannot be read is not admitted where a check is set.
bool admitted(dv_handle* h, const struct ucred* cred)
{
    dv_admit_fn admit = __atomic_load_n(&h->admit, __ATOMIC_ACQUIRE);
    if (!admit)
        return true;
    void* arg = __atomic_load_n(&h->admit_arg, __ATOMIC_ACQUIRE);
    if (!cred)
        return false;
    return admit(h->name, cred->pid, cred->uid, cred->gid, arg) != 0;
}

// Under direct_lock: the listening socket goes to an idle consumer that
// offered to watch it (first, if it did), else to the producer's own epoll
// set. Adding it to a set reports a client already pending, so none is left
// behind. A failed watch is tried again after a rest.
void pass_watch(dv_worker* producer, dv_worker* first = nullptr)
{
    if (resting_until(producer) || producer->watcher)
        return;
    dv_handle* h = producer->handle;
    const int listen_fd = producer->queue.sockfd;
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = EPOLLIN;
    ev.data.fd = listen_fd;
    for (size_t i = 0; i <= h->service_size; i++) {
        dv_worker* x = i == 0 ? first : &h->worker[i - 1];
        if (!x)
            continue;
        if (x->direct && x->idle && epoll_ctl(x->pollfd, EPOLL_CTL_ADD, listen_fd, &ev) == 0) {
            producer->watcher = x;
            if (producer->listening && producer->pollfd >= 0)
                epoll_ctl(producer->pollfd, EPOLL_CTL_DEL, listen_fd, nullptr);
            producer->listening = false;
            return;
        }
    }
    if (producer->listening || producer->pollfd < 0)
        return;
    ev.events = DV_EVENTS;
    ev.data.ptr = &producer->queue;
    if (epoll_ctl(producer->pollfd, EPOLL_CTL_ADD, listen_fd, &ev) == 0 || errno == EEXIST)
        producer->listening = true;
    else
        set_resting_until(producer, now_ms() + DV_ACCEPT_PAUSE_MS);
}

// Under direct_lock: nobody watches the listening socket for a moment.
void rest_listener(dv_worker* producer)
{
    const int listen_fd = producer->queue.sockfd;
    if (dv_worker* x = producer->watcher) {
        epoll_ctl(x->pollfd, EPOLL_CTL_DEL, listen_fd, nullptr);
        producer->watcher = nullptr;
    }
    if (producer->listening && producer->pollfd >= 0)
        epoll_ctl(producer->pollfd, EPOLL_CTL_DEL, listen_fd, nullptr);
    producer->listening = false;
    set_resting_until(producer, now_ms() + DV_ACCEPT_PAUSE_MS);
}

// Watches the listening socket again (or lets a consumer watch it), or
// leaves it alone for a moment.
void watch_listener(dv_worker* producer, bool on)
{
    pthread_mutex_lock(&producer->direct_lock);
    if (on) {
        set_resting_until(producer, 0);
        pass_watch(producer);
    } else {
        rest_listener(producer);
    }
    pthread_mutex_unlock(&producer->direct_lock);
}

// The descriptor limit, read again when a second has passed since the last
// reading or when asked: reading it on every accept costs a system call per
// client, and it changes rarely (an administrator's prlimit).
rlim_t descriptor_limit(bool fresh)
{
    static long long read_at = -1;
    static rlim_t limit = RLIM_INFINITY;
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    const long long now = static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    const long long at = __atomic_load_n(&read_at, __ATOMIC_ACQUIRE);
    if (fresh || at < 0 || now - at >= 1000) {
        struct rlimit lim;
        const rlim_t value = getrlimit(RLIMIT_NOFILE, &lim) == 0 ? lim.rlim_cur : RLIM_INFINITY;
        __atomic_store_n(&limit, value, __ATOMIC_RELAXED);
        __atomic_store_n(&read_at, now, __ATOMIC_RELEASE);
        return value;
    }
    return __atomic_load_n(&limit, __ATOMIC_RELAXED);
}

// New descriptors take the lowest free number: one this close to the limit
// means hardly any are left below it.
bool leaves_reserve(int fd)
{
    rlim_t limit = descriptor_limit(false);
    if (limit != RLIM_INFINITY && static_cast<rlim_t>(fd) + DV_FD_RESERVE >= limit)
        limit = descriptor_limit(true);  // lowered lately, or raised: be sure
    return limit == RLIM_INFINITY || static_cast<rlim_t>(fd) + DV_FD_RESERVE < limit;
}

void accept_client(dv_worker* producer, graveyard& dead)
{
    dv_handle* h = producer->handle;
    int fd = dv_accept(producer->queue.sockfd);
    if (fd < 0) {
        // Out of descriptors or memory: the pending connection stays in the
        // backlog and would wake us at once, again and again. Those that
        // wait are served meanwhile, and their ends free descriptors.
        if (dv_out_of_descriptors(errno))
            watch_listener(producer, false);
        return;
    }
    dv_peer peer;
    bool out_of_fds = false;
    if (!dv_admit_client(h, fd, &peer, &out_of_fds)) {
        if (out_of_fds)
            watch_listener(producer, false);
        return;
    }
    const uid_t uid = peer.known ? peer.cred.uid : static_cast<uid_t>(-1);
    pthread_mutex_lock(&producer->direct_lock);
    const bool full =
        producer->waiting > DV_MAX_WAITING_CLIENTS - 1 || waiting_of(producer, uid) >= DV_MAX_WAITING_PER_UID;
    const bool nobody_waits = producer->clients.head == nullptr;
    pthread_mutex_unlock(&producer->direct_lock);
    if (full) {
        refuse(fd, DV_DIRECTIVE_BUSY);
        return;
    }
    // Nobody waits and a consumer is idle: the client goes straight to it,
    // without the queue entry it would only leave again at once.
    if (nobody_waits && !__atomic_load_n(&h->stopping, __ATOMIC_RELAXED)) {
        if (dv_worker* w = choose_consumer(producer)) {
            hand_over(producer, w, fd);
            return;
        }
    }
    dv_client* c = static_cast<dv_client*>(calloc(1, sizeof(dv_client)));
    if (!c) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
        return;
    }
    c->queue.type = CLIENT_SOCK;
    c->queue.sockfd = fd;
    c->uid = uid;
    c->peer = peer;
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = DV_EVENTS_WAITING;
    ev.data.ptr = &c->queue;
    if (epoll_ctl(producer->pollfd, EPOLL_CTL_ADD, fd, &ev) != 0) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
        free(c);
        return;
    }
    pthread_mutex_lock(&producer->direct_lock);
    link_client(producer, c);
    pthread_mutex_unlock(&producer->direct_lock);
    dispatch(producer, dead);
}

// Entries consumers took from the queue, no longer named by any event.
void free_taken(dv_worker* producer)
{
    pthread_mutex_lock(&producer->direct_lock);
    dv_client* taken = producer->taken;
    producer->taken = nullptr;
    pthread_mutex_unlock(&producer->direct_lock);
    free_clients(taken);
}

void consumer_directive(dv_worker* producer, dv_event_queue* q, graveyard& dead)
{
    dv_handle* h = producer->handle;
    dv_directive d;
    if (!dv_read_directive(q->sockfd, &d))
        dv_abort("[ABORT] @%s() producer-worker receive consumer_worker directive fail: `%s'\n", "dv_producer_worker",
                 "read(event_queue->sockfd, &directive, sizeof(directive)) == sizeof(directive)");
    if (d.type == DV_DIRECTIVE_TRANSFER) {
        int fd;
        memcpy(&fd, d.data, sizeof(fd));
        if (fd < 0)
            dv_abort("[ABORT] @%s() producer-worker transfer client sockfd fail: `%s'\n", "dv_producer_worker",
                     "*((int*)&directive.data) >= 0");
        close(fd);
        for (size_t i = 0; i < h->service_size; i++)
            if (h->worker[i].handed == fd)
                h->worker[i].handed = -1;
        return;
    }
    if (d.type == DV_DIRECTIVE_READY) {
        uint64_t index;
        memcpy(&index, d.data, sizeof(index));
        if (index < h->service_size) {
            pthread_mutex_lock(&producer->direct_lock);
            h->worker[index].idle = 1;
            pthread_mutex_unlock(&producer->direct_lock);
            dispatch(producer, dead);
        }
        return;
    }
    dispatch(producer, dead);
}

}  // namespace

int dv_accept(int listen_fd)
{
    return accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
}

bool dv_leaves_reserve(int fd)
{
    return leaves_reserve(fd);
}

void dv_refuse(int fd, uint8_t type)
{
    refuse(fd, type);
}

bool dv_out_of_descriptors(int err)
{
    if (err == EMFILE)
        descriptor_limit(true);  // it may have been lowered under us
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

bool dv_admit_client(dv_handle* h, int fd, dv_peer* peer, bool* out_of_fds)
{
    *out_of_fds = false;
    if (!leaves_reserve(fd)) {
        refuse(fd, DV_DIRECTIVE_BUSY);
        *out_of_fds = true;
        return false;
    }
    socklen_t len = sizeof(peer->cred);
    peer->known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer->cred, &len) == 0;
    if (!admitted(h, peer->known ? &peer->cred : nullptr)) {
        refuse(fd, DV_DIRECTIVE_REJECT);
        return false;
    }
    if (__atomic_load_n(&h->paused, __ATOMIC_RELAXED)) {
        refuse(fd, DV_DIRECTIVE_PAUSED);
        return false;
    }
    return true;
}

void dv_direct_watch(dv_worker* producer, dv_worker* w, bool on)
{
    if (w->direct == on)
        return;
    w->direct = on;
    if (on) {
        // The consumer that ran last watches: the scheduler finds it
        // quickest, where another may have slept long on a busy CPU.
        if (dv_worker* x = producer->watcher) {
            if (epoll_ctl(x->pollfd, EPOLL_CTL_DEL, producer->queue.sockfd, nullptr) == 0 || errno == ENOENT)
                producer->watcher = nullptr;
        }
        pass_watch(producer, w);
        return;
    }
    if (producer->watcher == w) {
        epoll_ctl(w->pollfd, EPOLL_CTL_DEL, producer->queue.sockfd, nullptr);
        producer->watcher = nullptr;
        pass_watch(producer);
    }
}

int dv_next_client(dv_worker* producer, dv_worker* w, dv_peer* peer)
{
    int fd = -1;
    pthread_mutex_lock(&producer->direct_lock);
    const bool stopping = __atomic_load_n(&w->handle->stopping, __ATOMIC_RELAXED);
    if (dv_client* c = stopping ? nullptr : producer->clients.head) {
        fd = pop_client(producer, c);
        *peer = c->peer;
        // The producer may hold an event for it still: it frees the entry
        // after its batch.
        c->queue.sockfd = 0;
        c->next = producer->taken;
        producer->taken = c;
    } else {
        w->idle = 1;
        if (!stopping)
            dv_direct_watch(producer, w, true);
    }
    pthread_mutex_unlock(&producer->direct_lock);
    return fd;
}

void dv_rest_listener(dv_worker* producer)
{
    rest_listener(producer);
}

void dv_producer_worker_init(dv_handle* h, dv_worker* producer)
{
    producer->index = h->service_size;
    producer->pollfd = -1;
    producer->sockfd[0] = producer->sockfd[1] = -1;
    producer->idle = 1;
    producer->exec = h->exec;
    producer->handle = h;
    producer->client = -1;
    producer->uids = new dv_waiting_uids;
    producer->listen_again_ms = 0;
    pthread_mutex_init(&producer->direct_lock, nullptr);
    producer->watcher = nullptr;
    producer->taken = nullptr;
    producer->listening = true;  // once registered below

    struct stat st;
    if (lstat(h->sockfile, &st) != 0) {
        std::string parent = h->sockfile;
        size_t slash = parent.rfind('/');
        if (slash != std::string::npos && slash > 0) {
            parent.resize(slash);
            mkdir(parent.c_str(), 0755);
        }
    } else if (!S_ISSOCK(st.st_mode)) {
        // Whoever could plant it there could also remove it: it is not a
        // reason to leave the service down.
        fprintf(stderr, "[Dovel] [WARN] [%s] %s is not a sock file; removed.\n", h->name, h->sockfile);
    }
    unlink(h->sockfile);

    // Non-blocking: idle consumers race for each client, and those that lose
    // must not wait in accept.
    producer->sockfd[1] = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (!(producer->sockfd[1] >= 0 && set_fd_cloexec(producer->sockfd[1])))
        dv_abort("[ABORT] @%s() producer-worker create listen socket fail: `%s'\n", "dv_producer_worker_init",
                 "(producer_worker->sockfd[1] = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && "
                 "set_fd_cloexec(producer_worker->sockfd[1])");
    producer->queue.type = LISTEN_SOCK;
    producer->queue.sockfd = producer->sockfd[1];

    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", h->sockfile);
    if (bind(producer->sockfd[1], reinterpret_cast<struct sockaddr*>(&addr), sizeof(struct sockaddr_un)) != 0)
        dv_abort("[ABORT] @%s() producer-worker bind listen socket fail: `%s'\n", "dv_producer_worker_init",
                 "bind(producer_worker->sockfd[1], (struct sockaddr *) &sockaddr, sizeof(struct sockaddr_un)) == 0");
    producer->pollfd = epoll_create1(EPOLL_CLOEXEC);
    if (!(producer->pollfd >= 0 && set_fd_cloexec(producer->pollfd)))
        dv_abort("[ABORT] @%s() producer-worker create epoll fail: `%s'\n", "dv_producer_worker_init",
                 "(producer_worker->pollfd = epoll_create(1)) >= 0 && set_fd_cloexec(producer_worker->pollfd)");
    if (listen(producer->queue.sockfd, SOMAXCONN) != 0)
        dv_abort("[ABORT] @%s() producer-worker listen socket fail: `%s'\n", "dv_producer_worker_init",
                 "listen(producer_worker->queue.sockfd, SOMAXCONN) == 0");
    if (chmod(h->sockfile, 0777) != 0)
        dv_abort("[ABORT] @%s() producer-worker change socket file mode fail: `%s'\n", "dv_producer_worker_init",
                 "chmod(service_handle->sockfile, 0777) == 0");
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = DV_EVENTS;
    ev.data.ptr = &producer->queue;
    if (epoll_ctl(producer->pollfd, EPOLL_CTL_ADD, producer->queue.sockfd, &ev) != 0)
        dv_abort("[ABORT] @%s() producer-worker epoll add listen sockfd fail: `%s'\n", "dv_producer_worker_init",
                 "epoll_ctl(producer_worker->pollfd, EPOLL_CTL_ADD, producer_worker->queue.sockfd, ev) == 0");
}

void dv_producer_worker(dv_worker* producer)
{
    dv_handle* h = producer->handle;
    graveyard dead;
    struct epoll_event events[64];
    for (;;) {
        int n;
        do {
            int timeout = -1;
            if (long long again = resting_until(producer))
                timeout = static_cast<int>(std::max(0LL, again - now_ms()));
            n = epoll_wait(producer->pollfd, events, 64, timeout);
        } while (n < 0 && errno == EINTR);
        if (n < 0 || __atomic_load_n(&h->stopping, __ATOMIC_RELAXED))
            break;
        if (long long again = resting_until(producer); again && now_ms() >= again)
            watch_listener(producer, true);
        bool ending = false;
        for (int i = 0; i < n && !ending; i++) {
            dv_event_queue* q = static_cast<dv_event_queue*>(events[i].data.ptr);
            if (!q)
                continue;
            uint32_t mask = events[i].events;
            if (q->type == CLIENT_SOCK) {
                // A waiting client failed or hung up (it asked for nothing
                // else): unless a consumer took it meanwhile, it goes.
                if (mask == DV_EVENTS_GONE || (mask & (EPOLLERR | EPOLLHUP)) || !(mask & EPOLLIN))
                    drop_client(producer, reinterpret_cast<dv_client*>(q), dead);
                else
                    dispatch(producer, dead);
                continue;
            }
            if (q->sockfd == 0)
                continue;
            if (mask == DV_EVENTS_GONE) {
                ending = true;  // the listening socket or a consumer is gone: the service is ending
                continue;
            }
            if ((mask & (EPOLLERR | EPOLLHUP)) || !(mask & EPOLLIN)) {
                if (q->type != CLIENT_SOCK)
                    dv_abort("[ABORT] @%s() get non-client socket execption %d: `%s'\n", "dv_producer_worker",
                             static_cast<int>(q->type), "event_queue->type == CLIENT_SOCK");
                drop_client(producer, reinterpret_cast<dv_client*>(q), dead);
                continue;
            }
            if (q->type == LISTEN_SOCK)
                accept_client(producer, dead);
            else
                consumer_directive(producer, q, dead);
            if (producer->restarted) {
                producer->restarted = false;
                break;
            }
        }
        dead.clear();
        free_taken(producer);
        if (ending)
            break;
    }

    for (;;) {
        pthread_mutex_lock(&producer->direct_lock);
        dv_client* c = producer->clients.head;
        pthread_mutex_unlock(&producer->direct_lock);
        if (!c)
            break;
        drop_client(producer, c, dead);
    }
    dead.clear();
    free_taken(producer);
    // Hand-overs whose echo we will no longer read.
    for (size_t i = 0; i < h->service_size; i++) {
        if (h->worker[i].handed >= 0) {
            close(h->worker[i].handed);
            h->worker[i].handed = -1;
        }
    }
    // Consumers may still be running: the number must not be used after it
    // is closed.
    pthread_mutex_lock(&producer->direct_lock);
    if (producer->pollfd >= 0) {
        close(producer->pollfd);
        producer->pollfd = -1;
    }
    delete producer->uids;
    producer->uids = nullptr;
    pthread_mutex_unlock(&producer->direct_lock);
}

void* dv_producer_worker_thread(void* arg)
{
    dv_producer_worker(static_cast<dv_worker*>(arg));
    pthread_exit(nullptr);
}
