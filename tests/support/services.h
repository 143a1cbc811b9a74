// Services and queues a test runs in its own process.
#pragma once

#include "daemon/dispatch.h"
#include "handlers/registry.h"

// A service on a private socket path, listening once constructed. Without
// DV_STANDALONE in mode, dv_start runs the producer on a thread of the test's.
class TestService : NoCopy {
public:
    TestService(dv_exec_fn exec, u_int32_t mode = DV_PTHREAD_MODE | DV_STANDALONE, size_t workers = 2);
    ~TestService() { stop(); }

    const std::string& sockfile() const { return sockfile_; }
    std::string name() const { return "@" + sockfile_; }  // the name a client passes
    dv_handle* handle() { return handle_; }
    void stop();  // dv_free now (idempotent)

private:
    TempDir dir_;
    std::string sockfile_ = dir_.file("svc.sock");
    dv_handle* handle_ = nullptr;
    std::thread runner_;
};

// The request's text; a reply of text, which ends the request (io freed).
std::string request_text(dv_io* io);
void reply_text(dv_io* io, const std::string& text);

// Replies "name|request|pid|uid|gid"; writes "extra:<name>\n" to an extra
// descriptor before closing it.
void echo_exec(const char* name, dv_io* io, int fd);

// The daemon's dispatcher (or a test's own) served in this process on a fresh
// simulated root, the debug log in a private directory: handlers called
// exactly as the app calls them, through the real client library.
class HandlerService : NoCopy {
public:
    explicit HandlerService(dv_exec_fn exec = service_handler, size_t workers = 2)
        : saved_stdout_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)),
          service_(exec, DV_PTHREAD_MODE | DV_STANDALONE, workers)
    {
        root_.make_current();
    }
    ~HandlerService();

    SimRoot& root() { return root_; }
    const DebugLogCapture& log() const { return log_; }
    std::string call(const std::string& command, const std::string& request, int* status = nullptr, int fd = -1) const
    {
        return call_socket(service_.sockfile(), command, request, status, fd);
    }

private:
    // The dispatcher points descriptor 1 at /dev/null after every request;
    // the test gets its own standard output back at the end.
    int saved_stdout_;
    DebugLogCapture log_;
    SimRoot root_;
    TestService service_;
};

// A System V queue key derived from the test's pid, so that tests side by
// side never meet; its queue is removed on the way in and out, even when the
// test fails.
class TestQueueKey : NoCopy {
public:
    TestQueueKey() { remove(); }
    ~TestQueueKey() { remove(); }

    int key() const { return key_; }
    bool exists() const { return msgget(key_, 0) != -1; }
    void remove() const { msgctl(msgget(key_, 0), IPC_RMID, nullptr); }

private:
    const int key_ = static_cast<int>(0x5E000000U | (static_cast<unsigned>(getpid()) & 0xFFFFFFU));
};

// The threads of this process, and whether one of them waits in msgrcv now.
int thread_count();
bool thread_in_msgrcv();
