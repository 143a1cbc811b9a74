// Private to libdv: the worker records, the wire helpers and the abort line
// that every precondition failure prints.
#pragma once

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "dv.h"

// Prints one "[ABORT] @fn() ...: `cond'" line (fmt carries the whole text)
// and aborts. Never returns.
[[noreturn]] void dv_abort(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The framework's historical close-on-exec helper: it ORs bit value 1 into
// the status flags with F_SETFL, which the kernel ignores. Kept so that the
// checks that call it behave as they always have; real close-on-exec comes
// from SOCK_CLOEXEC, EPOLL_CLOEXEC, MFD_CLOEXEC and MSG_CMSG_CLOEXEC at
// creation. Returns true when both fcntl calls succeed.
bool set_fd_cloexec(int fd);

// Creates the message object's memory file when it has none yet. False (with
// errno set) when none can be made: descriptors or memory ran out.
bool dv_io_shm(dv_io* io);

// Maps a client's request file as dv_io_sync does, but fails instead of
// aborting when the file is larger than max_size or cannot be mapped: the
// client may resize its file at any moment, and that must cost it its
// request, never the service.
bool dv_io_map_request(dv_io* io, unsigned long long max_size);

// Closes every descriptor above 3 (a forked consumer keeps only 0-3).
void close_fds();

// Event masks of the producer's and consumers' epoll sets.
inline constexpr uint32_t DV_EVENTS = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP;  // 0x2019
inline constexpr uint32_t DV_EVENTS_WAITING = EPOLLERR | EPOLLHUP;                 // 0x18
inline constexpr uint32_t DV_EVENTS_GONE = EPOLLIN | EPOLLHUP | EPOLLRDHUP;        // 0x2011

// A client that a consumer accepted must have sent its whole request within
// this time, so that silent connections cannot hold every consumer. Real
// clients send at once, on the go-ahead.
inline constexpr int DV_REQUEST_DEADLINE_MS = 1000;

// How long the producer leaves its listening socket alone when accept runs
// out of descriptors or memory, instead of being woken for it at once again.
inline constexpr int DV_ACCEPT_PAUSE_MS = 100;

// Descriptors the producer leaves free for what the process already took on
// (requests' memory files and output, the programs handlers run, logs, the
// process's own client calls): a client whose socket would eat into them is
// told the service is busy, and the listening socket rests as on EMFILE.
inline constexpr int DV_FD_RESERVE = 64;

// Requests are small JSON texts; a memory file beyond this is refused rather
// than mapped.
inline constexpr unsigned long long DV_MAX_REQUEST_SIZE = 64ULL << 20;

// ------------------------------------------------------------- wire helpers

// One directive with MSG_DONTWAIT|MSG_NOSIGNAL; true when all 259 bytes went.
bool dv_send_directive(int sockfd, const dv_directive* directive);
bool dv_send_directive_type(int sockfd, uint8_t type);
// One read of 259 bytes; true only for a whole directive.
bool dv_read_directive(int sockfd, dv_directive* directive);

// The descriptor message: one zero byte carrying exactly one descriptor.
bool dv_send_fd(int sockfd, int fd);
// Receives one descriptor message; returns the descriptor (close-on-exec,
// owned by the caller) or -1. Anything unexpected in the control data (other
// levels or types, several descriptors, truncation) is closed and fails.
int dv_recv_fd(int sockfd);
// The same without waiting: -1 with *would_block set when nothing is there yet.
int dv_recv_fd_now(int sockfd, bool* would_block);

// ----------------------------------------------------------------- workers

enum dv_queue_type : uint32_t {
    LISTEN_SOCK = 1,
    CONSUMER_SOCK = 2,
    CLIENT_SOCK = 3,
};

// What the producer registers in its epoll set (event data points at it).
struct dv_event_queue {
    uint32_t type;
    int sockfd;
};

// A client's credentials, read once when it is accepted: they are fixed at
// connect, so whoever serves it need not ask the socket again.
struct dv_peer {
    struct ucred cred;
    bool known;  // false when they could not be read
};

// A client waiting in the producer's queue, in the order it will be served.
struct dv_client {
    dv_event_queue queue;  // type CLIENT_SOCK; first so the epoll pointer casts
    dv_client* prev;
    dv_client* next;
    uid_t uid;     // the peer's, from SO_PEERCRED (-1 when unknown)
    uint64_t turn; // its uid's round in which it is served
    dv_peer peer;
};

// Per-uid bookkeeping of the producer's queue (producer.cc).
struct dv_waiting_uids;

struct dv_worker {
    u_int8_t idle;
    int pollfd;
    int sockfd[2];
    size_t index;
    union {
        pid_t pid;
        pthread_t tid;
    } id;
    u_int32_t mode;
    dv_exec_fn exec;
    dv_hook_fn worker_init;
    void* worker_init_arg;
    dv_hook_fn worker_fini;
    void* worker_fini_arg;
    dv_event_queue queue;
    struct {
        dv_client* head;
        dv_client* tail;
    } clients;

    // Not part of the historical record, needed to do the job safely.
    dv_handle* handle;
    size_t waiting;        // producer: number of queued clients
    size_t last_chosen;    // producer: round-robin position
    int client;            // consumer: the client it holds, or -1
    bool restarted;        // producer: a consumer was restarted during this batch of events
    int handed;            // consumer record: the producer's copy of the client handed over, until echoed
    dv_waiting_uids* uids; // producer: waiting clients per uid
    long long listen_again_ms;  // producer: when to watch the listening socket again, 0 when watched

    // Thread consumers take their clients without the producer where they
    // can. One idle consumer at a time, the watcher, has the listening socket
    // in its epoll set, so that a new client wakes one thread, not every idle
    // one; when it takes a client, the watch passes to another idle consumer
    // (or back to the producer). A consumer that finishes while clients wait
    // takes the first of the queue itself, in the queue's order. The
    // producer's direct_lock guards every consumer's idle and direct flags,
    // the queue and its per-uid turns, watcher, taken and listen_again_ms.
    pthread_mutex_t direct_lock;  // producer
    dv_worker* watcher;           // producer: the consumer watching the listening socket, or null
    dv_client* taken;             // producer: queue entries consumers took, freed after its batch of events
    bool listening;               // producer: its own epoll set holds the listening socket
    bool direct;                  // consumer: idle and willing to watch the listening socket
};

// The producer's record of a service (after its consumers').
inline dv_worker* dv_producer_of(dv_handle* h)
{
    return &h->worker[h->service_size];
}

// Under the producer's direct_lock: an idle thread consumer offers to watch
// the listening socket (it becomes the watcher when there is none), or
// withdraws (the watch passes to another that offered, else the producer).
// The listening socket rests while listen_again_ms is set: nobody watches it.
void dv_direct_watch(dv_worker* producer, dv_worker* w, bool on);

// A thread consumer done with its client: the first waiting client's socket
// (its credentials in *peer), taken from the queue (w stays busy), or -1 with
// w idle and offering to watch the listening socket.
int dv_next_client(dv_worker* producer, dv_worker* w, dv_peer* peer);

// A consumer ran out of descriptors taking a client from the listening
// socket: nobody watches it for DV_ACCEPT_PAUSE_MS (the caller wakes the
// producer, which paces the retry).
void dv_rest_listener(dv_worker* producer);

// A consumer-to-producer directive that carries nothing: it only wakes the
// producer to look at the listening socket's state again.
inline constexpr uint8_t DV_DIRECTIVE_NUDGE = 0;

// Accepts a pending client (the listening socket never blocks: EAGAIN when
// another worker was quicker); the descriptor or -1 (errno set).
int dv_accept(int listen_fd);
// Whether accept's errno means the process ran out of descriptors or memory
// (then the listening socket rests); EMFILE also has the descriptor limit
// read again.
bool dv_out_of_descriptors(int err);
// Whether a new descriptor leaves DV_FD_RESERVE free below the limit.
bool dv_leaves_reserve(int fd);
// Sends a client the refusal of the given type and closes it.
void dv_refuse(int fd, uint8_t type);
// The checks every new client passes, with the refusals they send: the
// descriptor reserve, the admission check, paused. False when the client
// was refused (and closed); *peer holds the peer's credentials.
bool dv_admit_client(dv_handle* h, int fd, dv_peer* peer, bool* out_of_fds);

void dv_producer_worker_init(dv_handle* service_handle, dv_worker* producer);
void dv_consumer_worker_init(dv_handle* service_handle, dv_worker* producer, dv_worker* worker, size_t index,
                             bool first_start);
void dv_producer_worker(dv_worker* producer);
void* dv_producer_worker_thread(void* arg);
void* dv_consumer_worker(void* arg);

// Thread attributes shared by consumers and a standalone producer.
void dv_worker_thread_attr(pthread_attr_t* attr);

// Sends stop to every consumer and waits for each; closes what is left of
// their records. Used by dv_stop and by a producer that ends on its own.
void dv_stop_consumers(dv_handle* service_handle);
void dv_close_worker_fds(dv_worker* worker);
