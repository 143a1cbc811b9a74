#include "support/daemon_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "dv.h"

extern char** environ;

std::string daemon_binary()
{
    return binary_dir() + "/bin/dwe-dv-vexprod";
}

DaemonProcess::DaemonProcess(SimRoot& root) : root_(root)
{
    // At most 15 characters, unique per process and instance.
    static std::atomic<int> instances{0};
    program_ = "vxd" + std::to_string(getpid() % 1000000) + "_" + std::to_string(instances++ % 1000);
    if (symlink(daemon_binary().c_str(), program_path().c_str()) != 0)
        throw std::runtime_error("cannot link " + program_path());
    err_file_ = bin_.file("stderr");
    // The names hash into the daemon's socket directory.
    ScopedEnv env("DV_SOCKET_DIR", sockets_.path().c_str());
    char path[MAXIMUM_NAME_SIZE];
    dv_sockfile("VexProServer-vexprod", path, sizeof(path));
    command_socket_ = path;
    dv_sockfile("VexProServer_send_mail-vexprod", path, sizeof(path));
    mail_socket_ = path;
}

DaemonProcess::~DaemonProcess()
{
    if (pid_ > 0)
        stop(SIGTERM, 5000);
}

pid_t DaemonProcess::spawn(const std::vector<std::string>& args)
{
    std::vector<std::string> env = {"DV_SOCKET_DIR=" + sockets_.path(), "VEXPROD_PLATFORM_ROOT=" + root_.path()};
    for (char** e = environ; *e; e++)
        if (strncmp(*e, "DV_SOCKET_DIR=", 14) && strncmp(*e, "VEXPROD_PLATFORM_ROOT=", 22))
            env.push_back(*e);
    std::vector<std::string> argv_strings = {program_path()};
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char*> envp, argv;
    for (std::string& s : env)
        envp.push_back(s.data());
    for (std::string& s : argv_strings)
        argv.push_back(s.data());
    envp.push_back(nullptr);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, err_file_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0)
        pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    status_ = -1;
    return pid_;
}

bool DaemonProcess::start(const std::vector<std::string>& args)
{
    if (spawn(args) <= 0)
        return false;
    for (int tries = 0; tries < 1000; ++tries) {
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
        status_ = wait_process(pid_, timeout_ms);
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

std::string DaemonProcess::stderr_text() const
{
    return read_text_file(err_file_);
}

std::string DaemonProcess::debug_log() const
{
    return read_text_file(root_.abs("/opt/VexProServer/.log/.dwe_dv_vexprod.log"));
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

std::string DaemonProcess::call(const std::string& command, const std::string& json, int* status, int fd,
                                unsigned timeout_s) const
{
    return call_socket(command_socket_, command, json, status, fd, timeout_s);
}

std::string DaemonProcess::call_mail(const std::string& command, const std::string& json, int* status) const
{
    return call_socket(mail_socket_, command, json, status);
}
