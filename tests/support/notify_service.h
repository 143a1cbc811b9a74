// A stand-in for the app's notification service: serves the real name
// "VexProServer_notify-vexprod" from a private socket directory (DV_SOCKET_DIR
// points there while the object lives) and records every call it receives.
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
    // Starts serving at once. One instance at a time.
    FakeNotifyService();
    ~FakeNotifyService();
    FakeNotifyService(const FakeNotifyService&) = delete;
    FakeNotifyService& operator=(const FakeNotifyService&) = delete;

    // Takes the service away (callers then fail to connect) and brings it
    // back; the socket directory and the recorded calls stay.
    void stop();
    void start();

    std::vector<NotifyCall> calls() const;
    // Waits until at least n calls have arrived; false on timeout.
    bool wait_calls(size_t n, int timeout_ms = 5000) const;

private:
    static void exec(const char* name, dv_io* io, int fd);
    void record(NotifyCall call);

    TempDir sockets_;
    std::optional<ScopedEnv> env_;
    dv_handle* handle_ = nullptr;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<NotifyCall> calls_;
};
