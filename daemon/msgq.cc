// The message-queue service: a receiving thread per System V queue, stopped by
// removing the queue, which wakes a blocked msgrcv with EIDRM.
#include "daemon/msgq.h"

#include "daemon/log.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool stop_requested(bool& flag)
{
    return std::atomic_ref<bool>(flag).load(std::memory_order_acquire);
}

}  // namespace

T_MSGQ_service::T_MSGQ_service(int key, msg_handler handler, unsigned long msg_size)
    : thread(0), msg_size(msg_size), msqid(-1), key(key), stop(false), handler(handler)
{
    msqid = msgget(key, IPC_CREAT | MSGQ_MODE);
}

T_MSGQ_service::~T_MSGQ_service() = default;

int T_MSGQ_service::server_start()
{
    recv_thread_create();
    return thread != 0 ? 0 : -1;
}

int T_MSGQ_service::server_stop()
{
    recv_thread_destroy();
    return 0;
}

void T_MSGQ_service::recv_thread_create()
{
    // One receiver per queue: a second one would be lost to every join.
    if (thread != 0)
        return;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    pthread_t id;
    int err = pthread_create(&id, &attr, do_msg_recv, this);
    pthread_attr_destroy(&attr);
    if (err != 0) {
        DBG("pthread_create fail: %s, key:%d", strerror(err), key);
        return;
    }
    thread = id;
}

void T_MSGQ_service::recv_thread_destroy()
{
    std::atomic_ref<bool>(stop).store(true, std::memory_order_release);
    remove_msgq();
    if (thread != 0) {
        pthread_join(thread, nullptr);
        thread = 0;
    }
}

void T_MSGQ_service::remove_msgq()
{
    // msqid is left as it is: the receiver may still be reading it, and a
    // second removal of a removed queue merely fails.
    if (msqid != -1)
        msgctl(msqid, IPC_RMID, nullptr);
}

void* T_MSGQ_service::do_msg_recv(void* self)
{
    T_MSGQ_service* service = static_cast<T_MSGQ_service*>(self);
    const size_t text_size = service->msg_size;
    // Type and text in one buffer, reused for every message.
    char* buffer = static_cast<char*>(malloc(text_size + MSGQ_TYPE_SIZE));
    if (!buffer) {
        DBG("malloc fail: %zu bytes, key:%d", static_cast<size_t>(text_size + MSGQ_TYPE_SIZE), service->key);
        return nullptr;
    }
    while (!stop_requested(service->stop)) {
        ssize_t got = msgrcv(service->msqid, buffer, text_size, 0, 0);
        if (got >= 0) {
            // A short message must not show the handler the tail of the one
            // before it.
            memset(buffer + MSGQ_TYPE_SIZE + got, 0, text_size - static_cast<size_t>(got));
            service->handler(buffer);
            continue;
        }
        int err = errno;
        // EIDRM: the queue is gone. A stop that removed the queue just before
        // this msgrcv began shows as EINVAL instead; that is no error either.
        if (err == EIDRM || stop_requested(service->stop))
            break;
        fprintf(stderr, "msgrcv Error：%s(%d), msgid:%d\n", strerror(err), err, service->msqid);
    }
    free(buffer);
    return nullptr;
}

void msgq_reclaim(int key)
{
    const uid_t us = geteuid();
    // Someone may make a queue at the key again between our removal and our
    // creation: look again, a few times.
    for (int attempt = 0; attempt < 5; ++attempt) {
        int id = msgget(key, 0);
        if (id == -1) {
            if (errno != ENOENT) {
                DBG("msgget key:%d fail: %s", key, strerror(errno));
                return;
            }
            if (msgget(key, IPC_CREAT | IPC_EXCL | MSGQ_MODE) != -1 || errno != EEXIST)
                return;
            continue;
        }
        struct msqid_ds ds;
        if (msgctl(id, IPC_STAT, &ds) != 0) {
            DBG("msgctl IPC_STAT key:%d fail: %s", key, strerror(errno));
            return;
        }
        // The creator keeps the right to change or remove it, whoever it
        // has been handed to since.
        if (ds.msg_perm.uid == us && ds.msg_perm.cuid == us)
            return;
        if (msgctl(id, IPC_RMID, nullptr) != 0) {
            DBG("queue key:%d belongs to uid %u (made by uid %u) and cannot be removed: %s", key,
                static_cast<unsigned>(ds.msg_perm.uid), static_cast<unsigned>(ds.msg_perm.cuid), strerror(errno));
            return;
        }
        DBG("queue key:%d belonged to uid %u (made by uid %u): removed, making our own", key,
            static_cast<unsigned>(ds.msg_perm.uid), static_cast<unsigned>(ds.msg_perm.cuid));
    }
    DBG("queue key:%d keeps being made by someone else", key);
}

void msgq_set_senders(int msqid, std::optional<gid_t> senders)
{
    struct msqid_ds ds;
    if (msqid == -1 || msgctl(msqid, IPC_STAT, &ds) != 0)
        return;
    ds.msg_perm.gid = senders ? *senders : getegid();
    ds.msg_perm.mode = senders ? MSGQ_MODE_SENDERS : MSGQ_MODE;
    if (msgctl(msqid, IPC_SET, &ds) != 0)
        DBG("msgctl IPC_SET msqid:%d fail: %s", msqid, strerror(errno));
}

int T_MSGQ_service::send_msg(int key, void* msg, unsigned long size)
{
    // IPC_PRIVATE names no queue: msgget would make a fresh one for every
    // message and leave it behind.
    if (key == IPC_PRIVATE)
        return MSGQ_SEND_LOOKUP_FAILED;
    int id = msgget(key, 0);
    if (id == -1)
        return errno == ENOENT ? MSGQ_SEND_NO_QUEUE : MSGQ_SEND_LOOKUP_FAILED;
    if (msgsnd(id, msg, size, IPC_NOWAIT) == -1)
        return MSGQ_SEND_FAILED;
    return MSGQ_SEND_OK;
}
