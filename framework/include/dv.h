/*
 * dv.h - the whole public interface of libdv, the local RPC service framework.
 *
 * A service is a named Unix stream socket served by one producer (accepts and
 * queues clients) and a pool of consumer workers (threads or forked processes)
 * that run the service's exec callback. Request and reply text travel in a
 * memory file (memfd) whose descriptor is passed over the socket; the sockets
 * themselves only carry fixed-size directives.
 *
 * Misuse and failures to set a service up print one "[ABORT] @fn() ...: `cond'"
 * line to stderr and abort(). Running out of descriptors or memory in a
 * message object or a client call is not misuse: the call fails instead (a
 * status code, -1 or null), and a reply that a client's file cannot take
 * costs that client its reply (its connection is shut down).
 *
 * Usable from C (C99 on) and C++; every symbol is unmangled.
 */
#ifndef DV_H
#define DV_H

#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdint.h>
#include <sys/types.h>
#include <pthread.h>

/* Strict ISO C modes (-std=c99, -std=c11) keep siginfo_t out of <signal.h>;
 * the C library's header of that one type gives it without asking the
 * including program to change its feature macros. */
#if !defined(__cplusplus) && defined(__GLIBC__) && !defined(__siginfo_t_defined)
#include <bits/types/siginfo_t.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define DV_API __attribute__((visibility("default")))

/* The version of this header and of the libdv it comes with. The SONAME
 * (libdv.so.MAJOR) changes with the major number only. */
#define DV_VERSION_MAJOR 1
#define DV_VERSION_MINOR 0
#define DV_VERSION_PATCH 0
#define DV_VERSION_STRING "1.0.0"

/* Object magics: the first 32-bit field of every framework object. */
#define DV_IO_MAGIC 0x64494F2DU     /* "-OId" in memory order */
#define DV_HANDLE_MAGIC 0x6453562DU /* "-VSd" */
#define DV_EPOLL_MAGIC 0x6445562DU  /* "-VEd" */

/* Mode bits of dv_create. Accepted values: 2, 3, 4, 5. */
#define DV_STANDALONE 1U
#define DV_PROCESS_MODE 2U
#define DV_PTHREAD_MODE 4U

#define MAXIMUM_NAME_SIZE 64
#define MAX_SIGNAL_SIZE 32
#define DV_MAX_WAITING_CLIENTS 1000
/* Clients of one uid that may wait in a service's queue at once; the next one
 * is told the service is busy. Enough for an app that keeps many calls in
 * flight, and it leaves most of the queue to other users. Waiting clients are
 * served round robin across uids, so that one user's connections cannot keep
 * another's waiting. */
#define DV_MAX_WAITING_PER_UID 128
#define DV_DEFAULT_SOCKET_DIR "/var/run/dv"

/* ---------------------------------------------------------------- wire format */

/* Every framework socket speaks this one 259-byte record (host byte order). */
#define DV_DIRECTIVE_SIZE 259
#define DV_DIRECTIVE_DATA_SIZE 257

enum dv_directive_type {
    DV_DIRECTIVE_READY = 1,    /* consumer -> producer: worker index (u64) is idle */
    DV_DIRECTIVE_BUSY = 2,     /* producer -> client: 1000 clients already wait */
    DV_DIRECTIVE_STOP = 3,     /* dv_stop -> consumer: end the worker */
    DV_DIRECTIVE_PAUSED = 4,   /* producer -> client: service paused */
    DV_DIRECTIVE_REJECT = 5,   /* producer -> client: the admission check refused it */
    DV_DIRECTIVE_TRANSFER = 6, /* producer -> consumer (i32 fd), echoed back */
    DV_DIRECTIVE_ACCEPT = 7,   /* consumer -> client: send the request now */
    DV_DIRECTIVE_REQUEST = 8,  /* client -> consumer: name in data; memfd follows */
    DV_DIRECTIVE_REPLY = 9     /* handler -> client: the reply is in the memfd */
};

/* flags bit 0 of a request: a second descriptor follows the memory file. */
#define DV_DIRECTIVE_FLAG_EXTRA_FD 0x01

typedef struct dv_directive {
    uint8_t type;
    uint8_t flags;
    uint8_t data[DV_DIRECTIVE_DATA_SIZE];
} __attribute__((packed)) dv_directive;

/* ------------------------------------------------------------ message object */

/*
 * One request and its reply. The payload lives in an anonymous memory file
 * created on first use; shared_data/shared_size is its current shared mapping
 * (null/0 when unmapped). Owned by whoever created it; freed only by
 * dv_io_free, which closes sockfd and memfd but never fd.
 */
typedef struct dv_io {
    uint32_t magic;
    int memfd;
    int sockfd;
    int fd;
    char name[256];
    void* data;
    void* shared_data;
    size_t shared_size;
    int pid;
    uint32_t uid;
    uint32_t gid;
} dv_io;

DV_API dv_io* dv_io_create(void);
DV_API void dv_io_free(dv_io* io);
DV_API void* dv_io_realloc(dv_io* io, size_t size);
DV_API char* dv_io_read(dv_io* io, size_t* size);
DV_API ssize_t dv_io_write(dv_io* io, const void* buf, size_t len);
DV_API ssize_t dv_io_splice(dv_io* io, int fdin, size_t len);
DV_API void dv_io_printf(dv_io* io, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
DV_API int dv_io_pid(dv_io* io);
DV_API int dv_io_uid(dv_io* io);
DV_API int dv_io_gid(dv_io* io);
DV_API void dv_io_set(dv_io* io, void* data);
DV_API void* dv_io_get(dv_io* io);
DV_API int dv_io_alive(dv_io* io);
DV_API size_t dv_io_size(dv_io* io);
/* The returned descriptor stays owned by io. */
DV_API int dv_io_fileno(dv_io* io);
/* The returned descriptor (or stream) is the caller's to close. */
DV_API int dv_io_dup(dv_io* io);
DV_API int dv_io_dup2(dv_io* io, int newfd);
DV_API int dv_io_dup3(dv_io* io, int newfd, int flags);
DV_API FILE* dv_io_fopen(dv_io* io, const char* mode);
DV_API FILE* dv_io_freopen(dv_io* io, const char* mode, FILE* stream);
DV_API void dv_io_sync(dv_io* io);

/* ------------------------------------------------------------ service handle */

typedef void (*dv_exec_fn)(const char* name, dv_io* io, int fd);
typedef void (*dv_hook_fn)(void* arg);
/*
 * Admission of a connecting client, asked with the peer's credentials
 * (SO_PEERCRED) before the client waits or takes a worker. Non-zero admits;
 * zero answers the reject directive (the client reports DV_STATUS_REJECTED)
 * and closes the connection. Runs once per connection on the producer's
 * thread or, in thread mode, on the idle worker that accepts the client
 * (several at once): it must be quick, must not block, and must be safe to
 * call from several threads.
 */
typedef int (*dv_admit_fn)(const char* service, int pid, uint32_t uid, uint32_t gid, void* arg);

typedef struct dv_worker dv_worker; /* private to the framework */

typedef struct dv_handle {
    uint32_t magic;
    uint8_t paused;
    uint8_t stopping;
    char sockfile[MAXIMUM_NAME_SIZE];
    char name[MAXIMUM_NAME_SIZE];
    uint32_t mode;
    size_t service_size;
    dv_exec_fn exec;
    dv_hook_fn worker_init;
    void* worker_init_arg;
    dv_hook_fn worker_fini;
    void* worker_fini_arg;
    dv_worker* worker;
    /* Private: lets dv_stop wait for a dv_start that runs the producer in
     * its caller's thread, so that dv_free never pulls the handle from under it. */
    pthread_mutex_t run_lock;
    pthread_cond_t run_cond;
    uint32_t run_state;
    /* Private: set by dv_set_admit. */
    dv_admit_fn admit;
    void* admit_arg;
    /* Private: set by dv_set_description, freed by dv_free. */
    char* description;
} dv_handle;

DV_API dv_handle* dv_create(const char* name, uint32_t mode, size_t workers, dv_exec_fn exec);
DV_API void dv_worker_init(dv_handle* service_handle, dv_hook_fn fn, void* arg);
DV_API void dv_worker_fini(dv_handle* service_handle, dv_hook_fn fn, void* arg);
/* Sets (or, with a null fn, clears) the admission check, at any time. */
DV_API void dv_set_admit(dv_handle* service_handle, dv_admit_fn fn, void* arg);
DV_API void dv_start(dv_handle* service_handle);
DV_API void dv_stop(dv_handle* service_handle);
DV_API void dv_pause(dv_handle* service_handle);
DV_API void dv_resume(dv_handle* service_handle);
DV_API void dv_free(dv_handle* service_handle);

/*
 * Waits up to timeout_ms until dv_start has set the service up (its socket
 * listens and every worker record exists). Returns 1 when it has, 0 on
 * timeout. Lets a program that runs dv_start on a thread of its own make sure
 * a later dv_stop/dv_free cannot overtake it.
 */
DV_API int dv_wait_started(dv_handle* service_handle, unsigned timeout_ms);

/*
 * The directory of hashed socket files: $DV_SOCKET_DIR when set and non-empty,
 * else "/var/run/dv". Names beginning with '@' are paths and ignore it.
 */
DV_API const char* dv_socket_dir(void);

/*
 * Socket path of a service name into buf (size bytes). Returns 0, or -1 when
 * the name's SHA-1 cannot be computed. Used by server and client alike.
 */
DV_API int dv_sockfile(const char* name, char* buf, size_t size);

/*
 * Introspection. A service may describe itself to its callers: one JSON text
 * of its commands, their request keys and types and what they answer (the
 * daemon's form: {"service": NAME, "commands": [{"name", "summary", "args":
 * [{"key", "type"}], ...}]}). A copy is kept. Set it before any caller may
 * ask (before dv_start, or before the service is announced): a replaced one
 * is freed at once. Returns 0, or -1 when there is no memory for the copy.
 *
 * DV_DESCRIBE_COMMAND is then answered by the framework itself with that
 * text, before the exec callback would see the request: no application
 * command can have this name (the dot keeps it apart from every command
 * name made of letters, digits and underscores). A service that registered
 * no description gets the name like any other, so a dispatcher that does
 * not know it closes the connection without a reply, as it always has.
 */
#define DV_DESCRIBE_COMMAND "dv.describe"
DV_API int dv_set_description(dv_handle* service_handle, const char* json);

/* Send the reply directive and shut the client socket down; closes nothing. */
DV_API int dv_reply(dv_io* io);

/* ------------------------------------------------------------------- client */

/* Client status codes. */
#define DV_STATUS_OK 0
#define DV_STATUS_TIMEOUT 1
#define DV_STATUS_CONNECT 2
#define DV_STATUS_PAUSED 3
#define DV_STATUS_REJECTED 4
#define DV_STATUS_SOCKET 5 /* also: no descriptor or memory left to make the call */
#define DV_STATUS_BUSY 6
#define DV_STATUS_ARGUMENTS 7

typedef struct dv_epoll {
    uint32_t magic;
    int fd;
} dv_epoll;

DV_API dv_epoll* dv_epoll_create(void);
DV_API int dv_epoll_call(dv_epoll* epoll, const char* service, const char* command, dv_io* io, int fd);
DV_API dv_io* dv_epoll_perform(dv_epoll* epoll, int timeout_ms, int* status);
DV_API void dv_epoll_cancel(dv_epoll* epoll, dv_io* io);
DV_API void dv_epoll_free(dv_epoll* epoll);
DV_API int dv_call(const char* service, const char* command, dv_io* io, unsigned timeout_s, int fd);
/* *recv must be null on entry; on status 0 it is a malloc'd copy of the reply for the caller to free. */
DV_API int dv_ez_call(const char* service, const char* command, const void* data, size_t dsize, void** recv,
                      size_t* rsize, unsigned timeout_s, int fd);
DV_API int dv_json_write_io(const char* text, size_t len, dv_io* io);

/* ----------------------------------------------------- signals and crashes */

#define BLOCKED_PROGRAM_LIST \
    "(\\b|/)(ash|bash|csh|jsh|ksh|ksh93|pfcsh|pfksh|pfsh|pfsh|rbash|rksh93|sh|tcsh|zsh|busybox|php|python.*)$"

typedef void (*dv_signal_fn)(int signum, siginfo_t* info, void* context);

DV_API void dv_signal(int signum, dv_signal_fn handler);
DV_API void dv_backtrace(void);
DV_API int dv_init(void);
DV_API void dv_fini(void);
/* 1 when path (as given: a path or a bare name) matches BLOCKED_PROGRAM_LIST:
 * a shell, busybox, php or python. Callers decide what a match refuses. */
DV_API int dv_blocked_program(const char* path);

/* ------------------------------------------------------------------- SHA-1 */

typedef struct SHA1Context {
    unsigned Message_Digest[5];
    unsigned Length_Low;
    unsigned Length_High;
    unsigned char Message_Block[64];
    int Message_Block_Index;
    int Computed;
    int Corrupted;
} SHA1Context;

DV_API void SHA1Reset(SHA1Context* context);
DV_API void SHA1Input(SHA1Context* context, const unsigned char* message_array, unsigned length);
/* Non-zero on success; the digest is then in Message_Digest. */
DV_API int SHA1Result(SHA1Context* context);

#ifdef __cplusplus
}
#endif

#endif /* DV_H */
