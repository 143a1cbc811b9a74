#include "support/suite.h"

#include "platform/paths.h"

DaemonProcess::DaemonProcess(SimRoot& root) : root_(root)
{
    // At most 15 characters, unique per process and instance.
    static std::atomic<int> instances{0};
    program_ = "vxd" + std::to_string(getpid() % 1000000) + "_" + std::to_string(instances++ % 1000);
    if (symlink(daemon_binary().c_str(), program_path().c_str()) != 0)
        throw std::runtime_error("cannot link " + program_path());
    // The names hash into the daemon's socket directory.
    ScopedEnv env("DV_SOCKET_DIR", sockets_.path().c_str());
    char path[MAXIMUM_NAME_SIZE];
    dv_sockfile("VexProServer-vexprod", path, sizeof(path));
    command_socket_ = path;
    dv_sockfile("VexProServer_send_mail-vexprod", path, sizeof(path));
    mail_socket_ = path;
}

pid_t DaemonProcess::spawn(const std::vector<std::string>& args)
{
    std::vector<std::string> argv = {program_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC),
              err = open(bin_.file("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_ = spawn_process(argv, {"DV_SOCKET_DIR=" + sockets_.path(), "VEXPROD_PLATFORM_ROOT=" + root_.path()}, null,
                         null, err);
    close(null);
    close(err);
    status_ = -1;
    return pid_;
}

bool DaemonProcess::start(const std::vector<std::string>& args)
{
    if (spawn(args) <= 0)
        return false;
    // Up to a minute: a daemon under valgrind on a busy machine takes its time.
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < end) {
        int a = -1, b = -1;
        call("test", "{}", &a, -1, 5);
        call_mail("test", "{}", &b);
        if (a == 0 && b == 0)
            return true;
        if (int st; waitpid(pid_, &st, WNOHANG) == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            pid_ = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int DaemonProcess::wait(int timeout_ms)
{
    if (pid_ > 0) {
        status_ = wait_child(pid_, timeout_ms);
        pid_ = -1;
    }
    return status_;
}

int DaemonProcess::stop(int sig, int timeout_ms)
{
    if (pid_ > 0)
        kill(pid_, sig);
    return wait(timeout_ms);
}

std::string call_socket(const std::string& sockfile, const std::string& command, const std::string& json, int* status,
                        int fd, unsigned timeout_s)
{
    void* reply = nullptr;
    size_t size = 0;
    int st = dv_ez_call(("@" + sockfile).c_str(), command.c_str(), json.data(), json.size(), &reply, &size, timeout_s, fd);
    if (status)
        *status = st;
    std::string out = reply ? std::string(static_cast<char*>(reply), size) : std::string();
    free(reply);
    return out;
}

bool start_daemon(DaemonProcess& daemon, const TempDir& captures)
{
    ScopedEnv tmpdir("TMPDIR", captures.path().c_str());
    return daemon.start();
}

void expect_clean_stop(DaemonProcess& daemon)
{
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.stderr_text(), "");
}

bool reload_policy(SimRoot& root, const DaemonProcess& daemon, const std::string& text)
{
    auto reads = [&] {
        const std::string log = daemon.debug_log();
        size_t n = 0;
        for (size_t at = 0; (at = log.find("] [load_caller_policy][", at)) != std::string::npos; ++at)
            ++n;
        return n;
    };
    if (!text.empty())
        root.write_file(PATH_CALLER_POLICY, text);
    const size_t before = reads();
    return kill(daemon.pid(), SIGHUP) == 0 && eventually([&] { return reads() > before; }, 5000);
}
