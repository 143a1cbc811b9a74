#include "support/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "dv.h"
#include "support/config.h"
#include "support/env.h"
#include "support/files.h"

extern char** environ;

namespace {

std::atomic<int> instances{0};

int decode(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

std::string daemon_binary()
{
    return binary_dir() + "/bin/dwe-dv-vexprod";
}

DaemonProcess::DaemonProcess(SimRoot& root) : root_(root)
{
    // At most 15 characters, unique per process and instance.
    program_ = "vxd" + std::to_string(getpid() % 1000000) + "_" + std::to_string(instances++ % 1000);
    std::string link = bin_.file(program_);
    if (symlink(daemon_binary().c_str(), link.c_str()) != 0)
        throw std::runtime_error("cannot link " + link);
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
    std::vector<std::string> env_strings;
    for (char** e = environ; *e; e++) {
        if (strncmp(*e, "DV_SOCKET_DIR=", 14) && strncmp(*e, "VEXPROD_PLATFORM_ROOT=", 22))
            env_strings.push_back(*e);
    }
    env_strings.push_back("DV_SOCKET_DIR=" + sockets_.path());
    env_strings.push_back("VEXPROD_PLATFORM_ROOT=" + root_.path());
    std::vector<char*> envp;
    for (std::string& s : env_strings)
        envp.push_back(s.data());
    envp.push_back(nullptr);

    std::string path = bin_.file(program_);
    std::vector<std::string> argv_strings = {path};
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : argv_strings)
        argv.push_back(s.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, err_file_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int rc = posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        pid_ = -1;
    status_ = -1;
    return pid_;
}

bool DaemonProcess::start(const std::vector<std::string>& args)
{
    if (spawn(args) <= 0)
        return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = decode(status);
            pid_ = -1;
            return false;
        }
        int a = -1, b = -1;
        call("test", "{}", &a, -1, 5);
        call_mail("test", "{}", &b);
        if (a == 0 && b == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int DaemonProcess::wait(int timeout_ms)
{
    if (pid_ <= 0)
        return status_;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            status_ = decode(status);
            pid_ = -1;
            return status_;
        }
        if (r < 0 && errno != EINTR) {
            pid_ = -1;
            return status_ = -1;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            pid_ = -1;
            return status_ = -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
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
    std::string name = "@" + sockfile;
    void* reply = nullptr;
    size_t size = 0;
    int st = dv_ez_call(name.c_str(), command.c_str(), json.data(), json.size(), &reply, &size, timeout_s, fd);
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
