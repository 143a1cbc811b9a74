// The service handle: create, start, pause, resume, stop and free a service.
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <cstring>

#include "internal.h"

namespace {

constexpr const char HANDLE_COND[] = "service_handle && (*(u_int32_t*) service_handle == DV_HANDLE_MAGIC)";

// run_state bits, guarded by run_lock.
constexpr u_int32_t RUN_STOP_CLAIMED = 1;   // someone runs the stop sequence
constexpr u_int32_t RUN_PRODUCER_DONE = 2;  // the producer loop has ended
constexpr u_int32_t RUN_STOP_DONE = 4;      // the stop sequence has closed everything
constexpr u_int32_t RUN_FREED = 8;          // the worker array is gone
constexpr u_int32_t RUN_STARTED = 16;       // every record is initialised

void check_handle(const dv_handle* h, const char* fn, const char* what)
{
    if (!h || h->magic != DV_HANDLE_MAGIC)
        dv_abort("[ABORT] @%s() cannot %s incorrect dv_handle %p: `%s'\n", fn, what, static_cast<const void*>(h),
                 HANDLE_COND);
}

void wait_for(dv_handle* h, u_int32_t bits)
{
    while ((h->run_state & bits) != bits)
        pthread_cond_wait(&h->run_cond, &h->run_lock);
}

void set_state(dv_handle* h, u_int32_t bits)
{
    h->run_state |= bits;
    pthread_cond_broadcast(&h->run_cond);
}

dv_worker* producer_of(dv_handle* h)
{
    return dv_producer_of(h);
}

// Steps shared by dv_stop and by a producer that ended on its own: stop the
// consumers, end the producer, close whatever is still open.
void stop_sequence(dv_handle* h, bool producer_is_thread, bool wait_producer)
{
    unlink(h->sockfile);
    // Under the lock: once stopping is set the producer restarts no consumer,
    // so the records read below are no longer written by anyone else.
    pthread_mutex_lock(&h->run_lock);
    __atomic_store_n(&h->paused, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&h->stopping, 1, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&h->run_lock);

    dv_stop_consumers(h);

    dv_worker* producer = producer_of(h);
    if (producer->sockfd[1] >= 0)
        shutdown(producer->sockfd[1], SHUT_RDWR);  // wakes a producer blocked in epoll_wait
    if (wait_producer) {
        if (producer_is_thread) {
            pthread_join(producer->id.tid, nullptr);
        } else {
            pthread_mutex_lock(&h->run_lock);
            wait_for(h, RUN_PRODUCER_DONE);
            pthread_mutex_unlock(&h->run_lock);
        }
    }
    for (size_t i = 0; i <= h->service_size; i++)
        dv_close_worker_fds(&h->worker[i]);
}

}  // namespace

void dv_stop_consumers(dv_handle* h)
{
    for (size_t i = 0; i < h->service_size; i++) {
        dv_worker* w = &h->worker[i];
        if (w->sockfd[1] >= 0) {
            dv_send_directive_type(w->sockfd[1], DV_DIRECTIVE_STOP);
            // A stop directive could land between a hand-over's directive and
            // its descriptor message; closing our write side guarantees the
            // consumer still sees the end of its control stream.
            shutdown(w->sockfd[1], SHUT_WR);
        }
        if (w->mode & DV_PROCESS_MODE) {
            if (w->id.pid > 0)
                waitpid(w->id.pid, nullptr, 0);
        } else {
            pthread_join(w->id.tid, nullptr);
        }
    }
}

void dv_close_worker_fds(dv_worker* w)
{
    for (int& fd : w->sockfd) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
    if (w->pollfd >= 0) {
        close(w->pollfd);
        w->pollfd = -1;
    }
}

void dv_worker_thread_attr(pthread_attr_t* attr)
{
    pthread_attr_init(attr);
    pthread_attr_setscope(attr, PTHREAD_SCOPE_SYSTEM);
    // Stored but inert: the scheduling is inherited unless explicitly set,
    // so unprivileged services start as well.
    pthread_attr_setschedpolicy(attr, SCHED_RR);
}

extern "C" {

DV_API dv_handle* dv_create(const char* name, u_int32_t mode, size_t workers, dv_exec_fn exec)
{
    if (!(name && strlen(name) <= MAXIMUM_NAME_SIZE))
        dv_abort("[ABORT] @%s() name cannot be NULL and maximum characters is %d: `%s'\n", "dv_create",
                 MAXIMUM_NAME_SIZE, "name && strlen(name) <= MAXIMUM_NAME_SIZE");
    if ((mode | DV_STANDALONE) == DV_STANDALONE)
        dv_abort("[ABORT] @%s() mode miss DV_PROCESS_MODE or DV_PTHREAD_MODE: `%s'\n", "dv_create",
                 "(mode | DV_STANDALONE) != DV_STANDALONE");
    if ((mode | DV_PROCESS_MODE) > (DV_STANDALONE | DV_PROCESS_MODE) &&
        (mode | DV_PTHREAD_MODE) > (DV_STANDALONE | DV_PTHREAD_MODE))
        dv_abort("[ABORT] @%s() mode only work DV_PROCESS_MODE or DV_PTHREAD_MODE: `%s'\n", "dv_create",
                 "(mode | DV_PROCESS_MODE) == DV_PROCESS_MODE || (mode | DV_PROCESS_MODE) == (DV_STANDALONE | "
                 "DV_PROCESS_MODE) || (mode | DV_PTHREAD_MODE) == DV_PTHREAD_MODE || (mode | DV_PTHREAD_MODE) == "
                 "(DV_STANDALONE | DV_PTHREAD_MODE)");
    if (workers == 0)
        dv_abort("[ABORT] @%s() workers option cannot be zero: `%s'\n", "dv_create", "workers > 0");
    if (!exec)
        dv_abort("[ABORT] @%s() exec must be callable function pointer: `%s'\n", "dv_create", "exec");
    dv_handle* h = static_cast<dv_handle*>(malloc(sizeof(dv_handle)));
    if (!h)
        dv_abort("[ABORT] @%s() alloc dv_handle memory fail: `%s'\n", "dv_create",
                 "(service_handle = malloc(sizeof(dv_handle)))");
    if (name[0] == '@' && name[1] != '/')
        dv_abort("[ABORT] @%s() name must be absolute file path: `%s'\n", "dv_create",
                 "(name[0] == '@' && name[1] == '/')");

    memset(h, 0, sizeof(*h));
    if (dv_sockfile(name, h->sockfile, sizeof(h->sockfile)) != 0)
        dv_abort("[ABORT] @%s() generate [%s] SHA1 fail: `%s'\n", "dv_create", name, "SHA1Result(&sha1)");
    h->magic = DV_HANDLE_MAGIC;
    h->mode = mode;
    h->service_size = workers;
    h->exec = exec;
    h->paused = 0;
    h->stopping = 0;
    h->worker = nullptr;
    snprintf(h->name, sizeof(h->name), "%s", name);
    pthread_mutex_init(&h->run_lock, nullptr);
    pthread_cond_init(&h->run_cond, nullptr);
    return h;
}

DV_API void dv_worker_init(dv_handle* service_handle, dv_hook_fn fn, void* arg)
{
    check_handle(service_handle, "dv_worker_init", "start");
    service_handle->worker_init = fn;
    service_handle->worker_init_arg = arg;
}

DV_API void dv_worker_fini(dv_handle* service_handle, dv_hook_fn fn, void* arg)
{
    check_handle(service_handle, "dv_worker_fini", "start");
    service_handle->worker_fini = fn;
    service_handle->worker_fini_arg = arg;
}

DV_API void dv_set_admit(dv_handle* service_handle, dv_admit_fn fn, void* arg)
{
    check_handle(service_handle, "dv_set_admit", "start");
    // The producer may be reading these already: both go in atomically,
    // the argument first, so that a function never sees another's argument.
    __atomic_store_n(&service_handle->admit_arg, arg, __ATOMIC_RELEASE);
    __atomic_store_n(&service_handle->admit, fn, __ATOMIC_RELEASE);
}

DV_API void dv_start(dv_handle* service_handle)
{
    signal(SIGPIPE, SIG_IGN);
    check_handle(service_handle, "dv_start", "start");
    dv_handle* h = service_handle;
    pthread_mutex_lock(&h->run_lock);
    if (h->worker != nullptr)
        dv_abort("[ABORT] @%s() cannot start service twice: `%s'\n", "dv_start", "service_handle->worker == NULL");
    h->worker = static_cast<dv_worker*>(calloc(h->service_size + 1, sizeof(dv_worker)));
    if (!h->worker)
        dv_abort("[ABORT] @%s() alloc worker memory fail: `%s'\n", "dv_start",
                 "(service_handle->worker = calloc(service_option->service_size + 1, sizeof(dv_worker)))");
    h->run_state = 0;
    __atomic_store_n(&h->stopping, 0, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&h->run_lock);

    dv_worker* producer = producer_of(h);
    dv_producer_worker_init(h, producer);
    for (size_t i = 0; i < h->service_size; i++)
        dv_consumer_worker_init(h, producer, &h->worker[i], i, true);

    // A dv_stop that arrives while the records are being set up waits for this.
    auto started = [h] {
        pthread_mutex_lock(&h->run_lock);
        set_state(h, RUN_STARTED);
        pthread_mutex_unlock(&h->run_lock);
    };

    if (h->mode & DV_STANDALONE) {
        producer->mode = DV_PTHREAD_MODE;
        producer->worker_init = h->worker_init;
        producer->worker_fini = h->worker_fini;
        pthread_attr_t attr;
        dv_worker_thread_attr(&attr);
        if (pthread_create(&producer->id.tid, &attr, dv_producer_worker_thread, producer) != 0)
            dv_abort("[ABORT] @%s() producer-worker create thread fail: `%s'\n", "dv_start",
                     "pthread_create(&producer_worker->id.tid, &attr, dv_producer_worker, (void*) producer_worker) == 0");
        pthread_attr_destroy(&attr);
        started();
        return;
    }

    producer->mode = DV_PROCESS_MODE;
    producer->id.pid = getpid();
    started();
    dv_producer_worker(producer);

    // The loop has ended: either dv_stop is tearing the service down (wait
    // until it has closed everything) or the producer failed on its own
    // (then tear down here). Only then may the records go.
    pthread_mutex_lock(&h->run_lock);
    set_state(h, RUN_PRODUCER_DONE);
    if (h->run_state & RUN_STOP_CLAIMED) {
        wait_for(h, RUN_STOP_DONE);
    } else {
        h->run_state |= RUN_STOP_CLAIMED;
        pthread_mutex_unlock(&h->run_lock);
        stop_sequence(h, false, false);
        pthread_mutex_lock(&h->run_lock);
    }
    free(h->worker);
    h->worker = nullptr;
    set_state(h, RUN_FREED);
    pthread_mutex_unlock(&h->run_lock);
}

DV_API void dv_stop(dv_handle* service_handle)
{
    check_handle(service_handle, "dv_stop", "stop");
    dv_handle* h = service_handle;
    pthread_mutex_lock(&h->run_lock);
    if (h->worker == nullptr || (h->run_state & RUN_STOP_CLAIMED)) {
        pthread_mutex_unlock(&h->run_lock);
        return;
    }
    h->run_state |= RUN_STOP_CLAIMED;
    wait_for(h, RUN_STARTED);
    pthread_mutex_unlock(&h->run_lock);

    bool standalone = h->mode & DV_STANDALONE;
    stop_sequence(h, standalone, true);

    pthread_mutex_lock(&h->run_lock);
    if (standalone) {
        free(h->worker);
        h->worker = nullptr;
        set_state(h, RUN_STOP_DONE | RUN_FREED);
    } else {
        // dv_start frees the records once it sees this; wait so that the
        // caller may free the handle as soon as we return.
        set_state(h, RUN_STOP_DONE);
        wait_for(h, RUN_FREED);
    }
    pthread_mutex_unlock(&h->run_lock);
}

DV_API int dv_wait_started(dv_handle* service_handle, unsigned timeout_ms)
{
    check_handle(service_handle, "dv_wait_started", "start");
    dv_handle* h = service_handle;
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeout_ms / 1000;
    deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec++;
        deadline.tv_nsec -= 1000000000L;
    }
    pthread_mutex_lock(&h->run_lock);
    int rc = 0;
    while (!(h->run_state & RUN_STARTED) && rc == 0)
        rc = pthread_cond_timedwait(&h->run_cond, &h->run_lock, &deadline);
    int started = (h->run_state & RUN_STARTED) ? 1 : 0;
    pthread_mutex_unlock(&h->run_lock);
    return started;
}

DV_API void dv_pause(dv_handle* service_handle)
{
    check_handle(service_handle, "dv_pause", "pause");
    __atomic_store_n(&service_handle->paused, 1, __ATOMIC_RELAXED);
}

DV_API void dv_resume(dv_handle* service_handle)
{
    check_handle(service_handle, "dv_resume", "resume");
    __atomic_store_n(&service_handle->paused, 0, __ATOMIC_RELAXED);
}

DV_API void dv_free(dv_handle* service_handle)
{
    dv_stop(service_handle);
    pthread_mutex_destroy(&service_handle->run_lock);
    pthread_cond_destroy(&service_handle->run_cond);
    free(service_handle->description);
    service_handle->magic = 0;
    free(service_handle);
}

}  // extern "C"
