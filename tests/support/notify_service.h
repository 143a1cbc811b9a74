// A stand-in for the app's notification service: serves the real name
// "VexProServer_notify-vexprod" from a private socket directory (DV_SOCKET_DIR
// points there while the object lives), records every call and answers
// {"result":0}. One instance at a time.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dv.h"
#include "support/env.h"
#include "support/tempdir.h"

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
