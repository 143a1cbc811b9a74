// T_MSGQ_service: one System V message queue and the thread that takes each
// message off it and hands it to a handler. send_msg puts a message on such a
// queue from any process, without owning the object.
#pragma once

#include <pthread.h>

#include <sys/types.h>

#include <cstdint>
#include <optional>

// Results of T_MSGQ_service::send_msg, as callers have always tested them.
inline constexpr int MSGQ_SEND_OK = 0;
inline constexpr int MSGQ_SEND_LOOKUP_FAILED = 100;  // msgget failed other than ENOENT
inline constexpr int MSGQ_SEND_NO_QUEUE = 101;       // no queue with this key (ENOENT)
inline constexpr int MSGQ_SEND_FAILED = 102;         // msgsnd failed, e.g. the queue is full

// A message is a `long` type (8 bytes) followed by msg_size text bytes.
inline constexpr unsigned long MSGQ_TYPE_SIZE = sizeof(long);

// Queues are ours alone (0644 would let any user take the records off them),
// or let one group send (0620) when the caller policy names it.
inline constexpr int MSGQ_MODE = 0600;
inline constexpr int MSGQ_MODE_SENDERS = 0620;

// Sets the queue's group and mode: senders' group with MSGQ_MODE_SENDERS,
// or our own group with MSGQ_MODE. A failure is logged.
void msgq_set_senders(int msqid, std::optional<gid_t> senders);

// Before a daemon's queue object is made for key: a queue there that
// another user owns or created is removed (with a log line), since its
// owner could read our records, fill it, or take it away from us. Then the
// queue is created as ours unless one of ours is already there. Whatever
// cannot be done is logged; the object's own msgget then does what it can.
void msgq_reclaim(int key);

class T_MSGQ_service {
public:
    using msg_handler = void (*)(void*);

    // Opens or creates the queue at key (mode MSGQ_MODE). A failed msgget is not
    // reported: msqid stays -1 and the receiver's every msgrcv fails.
    T_MSGQ_service(int key, msg_handler handler, unsigned long msg_size);
    // Does nothing: stop the receiver with server_stop first.
    ~T_MSGQ_service();
    T_MSGQ_service(const T_MSGQ_service&) = delete;
    T_MSGQ_service& operator=(const T_MSGQ_service&) = delete;

    // Starts the receiving thread: 0, or -1 when it cannot be created.
    int server_start();
    // Removes the queue (messages still in it are lost) and joins the
    // receiving thread. Always 0; safe without a start and when repeated.
    int server_stop();

    void recv_thread_create();
    void recv_thread_destroy();
    void remove_msgq();

    // The receiving thread's body; self is the object.
    static void* do_msg_recv(void* self);

    // Puts msg (a long type, then size text bytes) on the queue at key
    // without waiting. One of the MSGQ_SEND_* results.
    static int send_msg(int key, void* msg, unsigned long size);

    // 0 while no receiving thread runs (a live pthread_t is never 0 here).
    pthread_t thread;
    // Text bytes per message, after the type.
    uint64_t msg_size;
    int msqid;
    int key;
    // Written by the stopping thread, read by the receiver; always accessed
    // atomically. The queue's removal is what wakes the receiver.
    bool stop;
    msg_handler handler;
};
