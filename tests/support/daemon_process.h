// The daemon binary running on a simulated root with a private socket
// directory, called through the real client library: the shape of every
// end-to-end test.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "support/sim_root.h"
#include "support/tempdir.h"

class DaemonProcess {
public:
    // Does not start anything yet. Each instance runs the binary under a name
    // of its own (a symbolic link), so that daemons of tests running side by
    // side do not take each other for a second instance.
    explicit DaemonProcess(SimRoot& root);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Starts the daemon with args and waits until both services answer, or
    // the process has ended (false).
    bool start(const std::vector<std::string>& args = {});
    // Starts without waiting for anything.
    pid_t spawn(const std::vector<std::string>& args = {});
    // Sends sig and waits up to timeout_ms for the exit; the exit status
    // (exit code, or 128 + signal), or -1 on timeout (the daemon is then killed).
    int stop(int sig = SIGTERM, int timeout_ms = 5000);
    // Waits for the process to end by itself; as stop() without a signal.
    int wait(int timeout_ms = 5000);
    pid_t pid() const { return pid_; }

    // The name the daemon runs under, and the path of that link.
    const std::string& program() const { return program_; }
    std::string program_path() const { return bin_.file(program_); }
    const std::string& socket_dir() const { return sockets_.path(); }
    // The socket files of the two services.
    const std::string& command_socket() const { return command_socket_; }
    const std::string& mail_socket() const { return mail_socket_; }
    // The daemon's stderr so far (a file, since the daemon may outlive a pipe).
    std::string stderr_text() const;
    // The debug log under the app's Install_Path in the root.
    std::string debug_log() const;

    // One call through dv_call; returns the reply text ("" when none) and
    // stores the client status. Safe from any thread.
    std::string call(const std::string& command, const std::string& json, int* status = nullptr, int fd = -1,
                     unsigned timeout_s = 10) const;
    std::string call_mail(const std::string& command, const std::string& json, int* status = nullptr) const;

private:
    SimRoot& root_;
    TempDir sockets_;
    std::string command_socket_;
    std::string mail_socket_;
    TempDir bin_;
    std::string program_;
    std::string err_file_;
    pid_t pid_ = -1;
    int status_ = -1;
};

// The daemon binary in the build tree.
std::string daemon_binary();

// One call to the service listening on sockfile, through dv_ez_call: the
// reply text ("" when none), the client status in *status.
std::string call_socket(const std::string& sockfile, const std::string& command, const std::string& json,
                        int* status = nullptr, int fd = -1, unsigned timeout_s = 10);
