// dv-bench: what the run loop (dv-bench.cc) needs from the modes it drives
// (dv-bench-modes.cc): set up, make one call from any client thread, tear down.
#pragma once

#include <memory>
#include <string>

// One way of making a call. call() runs concurrently on every client thread.
class BenchMode {
public:
    virtual ~BenchMode() = default;
    // The "mode=... " words that open the report line.
    virtual std::string describe() const = 0;
    // Brings up whatever the mode serves in-process; false with *error set
    // when that cannot be done.
    virtual bool start(std::string* error) = 0;
    // One call. On failure *failure is the report's key for it ("status2",
    // "exit1", "timeout", ...).
    virtual bool call(std::string* failure) = 0;
    // Undoes start(); every client thread has finished by then.
    virtual void stop() = 0;
};

// Connect, send the payload, read as many bytes back, close: per call, to an
// in-process AF_UNIX echo server with server_threads accepting threads.
std::unique_ptr<BenchMode> make_floor_mode(const std::string& payload, unsigned server_threads, unsigned timeout_s);
// dv_ez_call to an in-process dv_ service with `workers` thread-mode workers.
std::unique_ptr<BenchMode> make_self_mode(const std::string& payload, unsigned workers, unsigned timeout_s);
// posix_spawn of path and a wait for it, per call.
std::unique_ptr<BenchMode> make_spawn_mode(const std::string& path, unsigned timeout_s);
// dv_ez_call of command to a running service.
std::unique_ptr<BenchMode> make_service_mode(const std::string& service, const std::string& command,
                                             const std::string& payload, unsigned timeout_s);
