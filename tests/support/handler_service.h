// The daemon's dispatcher served in this process on a fresh simulated root,
// with the debug log in a private directory: handlers are called exactly as
// the app calls them, through the real client library.
#pragma once

#include <string>

#include "daemon/dispatch.h"
#include "handlers/registry.h"
#include "dv.h"
#include "support/debug_log.h"
#include "support/sim_root.h"
#include "support/test_service.h"

// The dispatcher points descriptor 1 at /dev/null after every request; this
// gives the test its own standard output back afterwards.
class StdoutKeeper {
public:
    StdoutKeeper();
    ~StdoutKeeper();
    StdoutKeeper(const StdoutKeeper&) = delete;
    StdoutKeeper& operator=(const StdoutKeeper&) = delete;

private:
    int saved_ = -1;
};

class HandlerService {
public:
    // exec: service_handler, sendmail_service_handler, or a test's own.
    explicit HandlerService(dv_exec_fn exec = service_handler, size_t workers = 2);
    HandlerService(const HandlerService&) = delete;
    HandlerService& operator=(const HandlerService&) = delete;

    SimRoot& root() { return root_; }
    const DebugLogCapture& log() const { return log_; }
    std::string name() const { return service_.name(); }

    // One request through dv_ez_call: the reply text ("" when none came),
    // the client status in *status.
    std::string call(const std::string& command, const std::string& request, int* status = nullptr, int fd = -1,
                     unsigned timeout_s = 10) const;

private:
    StdoutKeeper stdout_;
    DebugLogCapture log_;
    SimRoot root_;
    TestService service_;
};
