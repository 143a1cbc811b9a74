// The daemon binary running on a simulated root with a private socket
// directory, called through the real client library.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "support/sim_root.h"

class DaemonProcess {
public:
    // Starts nothing yet. Each instance runs the binary under a name of its
    // own (a symbolic link), so that daemons of tests running side by side
    // do not take each other for a second instance.
    explicit DaemonProcess(SimRoot& root);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Starts and waits until both services answer; false when it ended first.
    bool start(const std::vector<std::string>& args = {});
    pid_t spawn(const std::vector<std::string>& args = {});  // starts without waiting
    // Sends sig and waits up to timeout_ms: the exit code, 128 + signal, or
    // -1 on timeout (it is killed then). wait() sends nothing.
    int stop(int sig = SIGTERM, int timeout_ms = 5000);
    int wait(int timeout_ms = 5000);
    pid_t pid() const { return pid_; }

    const std::string& program() const { return program_; }  // the name it runs under
    std::string program_path() const { return bin_.file(program_); }
    const std::string& socket_dir() const { return sockets_.path(); }
    const std::string& command_socket() const { return command_socket_; }
    const std::string& mail_socket() const { return mail_socket_; }
    // Its stderr so far (a file, since the daemon may outlive a pipe).
    std::string stderr_text() const;
    // The debug log under the app's Install_Path in the root.
    std::string debug_log() const;

    // As call_socket, on either service; safe from any thread.
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

std::string daemon_binary();

// One call through dv_ez_call: the reply text ("" when none), the client
// status in *status.
std::string call_socket(const std::string& sockfile, const std::string& command, const std::string& json,
                        int* status = nullptr, int fd = -1, unsigned timeout_s = 10);
