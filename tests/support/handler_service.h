// The daemon's dispatcher served in this process on a fresh simulated root,
// with the debug log in a private directory: handlers called exactly as the
// app calls them, through the real client library.
#pragma once

#include <string>

#include "daemon/dispatch.h"
#include "handlers/registry.h"
#include "support/debug_log.h"
#include "support/sim_root.h"
#include "support/test_service.h"

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
