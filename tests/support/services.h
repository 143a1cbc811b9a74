// Services and queues a test runs in its own process: an echo service on a
// private socket, the dispatcher over a simulated root, a stand-in for the
// app's notification service, and System V queue keys of the test's own.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon/dispatch.h"
#include "dv.h"
#include "handlers/registry.h"
#include "support/sim_root.h"

// An in-process dv_ service for tests on a private socket path, freed when
// the object goes away.
class TestService {
public:
    // Listening once constructed. Without DV_STANDALONE in mode, dv_start
    // runs the producer on a thread of the test's.
    TestService(dv_exec_fn exec, u_int32_t mode = DV_PTHREAD_MODE | DV_STANDALONE, size_t workers = 2);
    ~TestService() { stop(); }
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;

    const std::string& sockfile() const { return sockfile_; }
    // The name a client passes: "@" and the socket path.
    std::string name() const { return "@" + sockfile_; }
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

// The daemon's dispatcher served in this process on a fresh simulated root,
// with the debug log in a private directory: handlers called exactly as the
// app calls them, through the real client library.
class HandlerService {
public:
    // exec: service_handler, sendmail_service_handler, or a test's own.
    explicit HandlerService(dv_exec_fn exec = service_handler, size_t workers = 2);
    ~HandlerService();

    SimRoot& root() { return root_; }
    const DebugLogCapture& log() const { return log_; }
    // As call_socket.
    std::string call(const std::string& command, const std::string& request, int* status = nullptr, int fd = -1) const;

private:
    // The dispatcher points descriptor 1 at /dev/null after every request;
    // the test gets its own standard output back at the end.
    int saved_stdout_;
    DebugLogCapture log_;
    SimRoot root_;
    TestService service_;
};

// A stand-in for the app's notification service: serves the real name
// "VexProServer_notify-vexprod" from a private socket directory (DV_SOCKET_DIR
// points there while the object lives), records every call and answers
// {"result":0}. One instance at a time.
struct NotifyCall {
    std::string command;
    std::string text;
};

class FakeNotifyService {
public:
    FakeNotifyService();
    ~FakeNotifyService();
    FakeNotifyService(const FakeNotifyService&) = delete;
    FakeNotifyService& operator=(const FakeNotifyService&) = delete;

    // Takes the service away (callers then fail to connect) and brings it
    // back; the socket directory and the calls stay.
    void stop();
    void start();

    std::vector<NotifyCall> calls() const;
    // Until at least n calls have arrived; false on timeout.
    bool wait_calls(size_t n, int timeout_ms = 5000) const;

private:
    static void exec(const char* name, dv_io* io, int fd);

    TempDir sockets_;
    ScopedEnv env_{"DV_SOCKET_DIR", sockets_.path().c_str()};
    dv_handle* handle_ = nullptr;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<NotifyCall> calls_;
};

// System V message queues in tests: keys derived from the test's pid, so
// tests side by side never meet, whose queue is removed on the way in and
// out, even when the test fails.
class TestQueueKey {
public:
    explicit TestQueueKey(int slot = 0);  // slot 0-3: several keys for one test
    ~TestQueueKey() { remove(); }
    TestQueueKey(const TestQueueKey&) = delete;
    TestQueueKey& operator=(const TestQueueKey&) = delete;

    int key() const { return key_; }
    bool exists() const;
    void remove() const;

private:
    int key_;
};

// The threads of this process, and whether one of them waits in msgrcv now.
int thread_count();
bool thread_in_msgrcv();
