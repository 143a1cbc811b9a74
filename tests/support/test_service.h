// An in-process dv_ service for tests on a private socket path, freed when
// the object goes away.
#pragma once

#include <string>
#include <thread>

#include "dv.h"
#include "support/tempdir.h"

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

// Replies "name|request|pid|uid|gid"; writes "extra:<name>\n" to an extra
// descriptor before closing it.
void echo_exec(const char* name, dv_io* io, int fd);
