// An in-process dv_ service for tests, listening on a private socket path
// and stopped and freed when the object goes away.
#pragma once

#include <string>
#include <thread>

#include "dv.h"
#include "support/tempdir.h"

class TestService {
public:
    // Starts at once. Without DV_STANDALONE in mode, dv_start runs the
    // producer on a thread of the test's; construction returns once the
    // socket is listening either way.
    TestService(dv_exec_fn exec, u_int32_t mode = DV_PTHREAD_MODE | DV_STANDALONE, size_t workers = 2);
    ~TestService();
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;

    const std::string& sockfile() const { return sockfile_; }
    // The name a client passes: "@" followed by the socket path.
    std::string name() const { return "@" + sockfile_; }
    dv_handle* handle() { return handle_; }
    // dv_free now (idempotent).
    void stop();

private:
    TempDir dir_;
    std::string sockfile_;
    dv_handle* handle_ = nullptr;
    std::thread runner_;
};

// A reply text built by the echo callback below: "name|request|pid|uid|gid".
// When the request carries an extra descriptor the callback writes
// "extra:<name>\n" to it before closing it.
void echo_exec(const char* name, dv_io* io, int fd);
