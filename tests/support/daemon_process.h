// The daemon binary on a simulated root with a private socket directory,
// called through the real client library, and its test fixture.
#pragma once

// Replies all handler families share, and a handler's own failure reply.
inline const std::string kOk = "{\"result\":0}\n";
inline const std::string kInputError = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
inline const std::string kParseError = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
inline const std::string kTestReply = R"({"handler":"test_handler","service":"VexProServer-vexprod"})" "\n";
inline const std::string kMailTestReply =
    R"({"handler":"nox_test_sendmail_srv_handler","service":"VexProServer_send_mail-vexprod"})" "\n";
inline std::string failure(const std::string& handler)
{
    return "{\"error_msg\":\"" + handler + " fail\",\"result\":-1}\n";
}

inline std::string daemon_binary()
{
    return binary_dir() + "/bin/dwe-dv-vexprod";
}
// One call through dv_ez_call: the reply text ("" when none), the client
// status in *status.
std::string call_socket(const std::string& sockfile, const std::string& command, const std::string& json,
                        int* status = nullptr, int fd = -1, unsigned timeout_s = 10);

class DaemonProcess : NoCopy {
public:
    // Starts nothing yet. Each instance runs the binary under a name of its
    // own (a symbolic link), so that daemons of tests running side by side
    // do not take each other for a second instance.
    explicit DaemonProcess(SimRoot& root);
    ~DaemonProcess() { stop(); }

    // Starts and waits until both services answer; false when it ended first.
    bool start(const std::vector<std::string>& args = {});
    pid_t spawn(const std::vector<std::string>& args = {});  // starts without waiting
    // Sends sig (wait() nothing) and waits up to timeout_ms, as wait_child.
    int stop(int sig = SIGTERM, int timeout_ms = 5000);
    int wait(int timeout_ms = 5000);
    pid_t pid() const { return pid_; }

    std::string program_path() const { return bin_.file(program_); }
    const std::string& socket_dir() const { return sockets_.path(); }
    const std::string& command_socket() const { return command_socket_; }
    const std::string& mail_socket() const { return mail_socket_; }
    // A file, since the daemon may outlive a pipe.
    std::string stderr_text() const { return read_text_file(bin_.file("stderr")); }
    std::string debug_log() const { return read_text_file(root_.abs("/opt/VexProServer/.log/.dwe_dv_vexprod.log")); }

    // Safe from any thread.
    std::string call(const std::string& command, const std::string& json, int* status = nullptr, int fd = -1,
                     unsigned timeout_s = 10) const
    {
        return call_socket(command_socket_, command, json, status, fd, timeout_s);
    }
    std::string call_mail(const std::string& command, const std::string& json, int* status = nullptr) const
    {
        return call_socket(mail_socket_, command, json, status);
    }

private:
    SimRoot& root_;
    TempDir sockets_;
    std::string command_socket_;
    std::string mail_socket_;
    TempDir bin_;
    std::string program_;
    pid_t pid_ = -1;
    int status_ = -1;
};

// TMPDIR at captures for the daemon alone.
bool start_daemon(DaemonProcess& daemon, const TempDir& captures);
// An orderly stop with nothing on stderr (a sanitizer report fails the
// test); harmless after a test stopped the daemon itself.
void expect_clean_stop(DaemonProcess& daemon);
// Writes text as the caller policy (unless empty), sends SIGHUP and waits
// until the log says the policy was read again.
bool reload_policy(SimRoot& root, const DaemonProcess& daemon, const std::string& text = "");
