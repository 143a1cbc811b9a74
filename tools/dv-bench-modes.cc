// dv-bench's modes: the raw-socket floor, an in-process dv_ service, spawning
// a program, and calls to a running service.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "dv-bench.h"
#include "dv.h"

extern char** environ;

namespace {

// A private directory for an in-process server's socket, removed with it.
// Its path must leave room for "@" + "/s.sock" within a dv_ service name.
class SocketDir {
public:
    ~SocketDir() { remove(); }

    bool create(std::string* error)
    {
        const char* tmp = getenv("TMPDIR");
        std::string base = (tmp && *tmp) ? tmp : "/tmp";
        const size_t room = MAXIMUM_NAME_SIZE - strlen("@/dv-bench.XXXXXX/s.sock");
        if (base.size() > room)
            base = "/tmp";
        std::string templ = base + "/dv-bench.XXXXXX";
        if (!mkdtemp(templ.data())) {
            *error = "cannot make a directory under " + base + ": " + strerror(errno);
            return false;
        }
        path_ = templ;
        return true;
    }

    std::string socket() const { return path_ + "/s.sock"; }

    void remove()
    {
        if (path_.empty())
            return;
        unlink(socket().c_str());
        rmdir(path_.c_str());
        path_.clear();
    }

private:
    std::string path_;
};

bool set_timeouts(int fd, unsigned timeout_s)
{
    struct timeval tv = {static_cast<time_t>(timeout_s), 0};
    return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) == 0;
}

// Both loops return 0, or the errno that stopped them (EPIPE for an early end).
int send_all(int fd, const char* buf, size_t len)
{
    while (len > 0) {
        ssize_t n = send(fd, buf, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? errno : EPIPE;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

int recv_all(int fd, char* buf, size_t len)
{
    while (len > 0) {
        ssize_t n = recv(fd, buf, len, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? errno : EPIPE;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

// The floor keys its failures like the dv_ client would, so the two compare.
const char* socket_failure(int err)
{
    return (err == EAGAIN || err == EWOULDBLOCK) ? "status1" : "status5";
}

class FloorMode : public BenchMode {
public:
    FloorMode(const std::string& payload, unsigned servers, unsigned timeout_s)
        : payload_(payload), servers_(servers), timeout_s_(timeout_s)
    {
    }

    std::string describe() const override
    {
        return "mode=floor servers=" + std::to_string(servers_) + " payload=" + std::to_string(payload_.size());
    }

    bool start(std::string* error) override
    {
        if (!dir_.create(error))
            return false;
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", dir_.socket().c_str());
        listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(listen_fd_, SOMAXCONN) != 0) {
            *error = "cannot listen on " + dir_.socket() + ": " + strerror(errno);
            return false;
        }
        addr_ = addr;
        // A pool of threads all blocked in accept(): the kernel hands each
        // connection to one of them, which is the cheapest hand-over there is.
        for (unsigned i = 0; i < servers_; i++)
            threads_.emplace_back([this] { serve(); });
        return true;
    }

    bool call(std::string* failure) override
    {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || !set_timeouts(fd, timeout_s_) ||
            connect(fd, reinterpret_cast<const sockaddr*>(&addr_), sizeof(addr_)) != 0) {
            *failure = (fd >= 0 && (errno == EAGAIN || errno == EINPROGRESS)) ? "status1" : "status2";
            if (fd >= 0)
                close(fd);
            return false;
        }
        thread_local std::vector<char> reply;
        reply.resize(payload_.size());
        int err = send_all(fd, payload_.data(), payload_.size());
        if (err == 0)
            err = recv_all(fd, reply.data(), reply.size());
        close(fd);
        if (err != 0)
            *failure = socket_failure(err);
        return err == 0;
    }

    void stop() override
    {
        // Every server thread sits in accept(); one connection each wakes it to
        // see the flag. The connections stay open until the threads are gone.
        stopping_ = true;
        std::vector<int> wakers;
        for (size_t i = 0; i < threads_.size(); i++) {
            int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&addr_), sizeof(addr_)) != 0) {
                close(fd);
                fd = -1;
            }
            if (fd >= 0)
                wakers.push_back(fd);
        }
        // Should a wake-up connection fail, shutting the listener down is the
        // fallback that still ends accept() on Linux.
        if (wakers.size() < threads_.size())
            shutdown(listen_fd_, SHUT_RDWR);
        for (std::thread& t : threads_)
            t.join();
        threads_.clear();
        for (int fd : wakers)
            close(fd);
        if (listen_fd_ >= 0)
            close(listen_fd_);
        listen_fd_ = -1;
        dir_.remove();
    }

    ~FloorMode() override
    {
        if (!threads_.empty() || listen_fd_ >= 0)
            stop();
    }

private:
    void serve()
    {
        std::vector<char> buf(payload_.size());
        for (;;) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (stopping_) {
                if (fd >= 0)
                    close(fd);
                return;
            }
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED)
                    continue;
                if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                    // Out of descriptors for a moment: the clients time out
                    // and close theirs; do not spin meanwhile.
                    usleep(1000);
                    continue;
                }
                return;
            }
            if (recv_all(fd, buf.data(), buf.size()) == 0)
                send_all(fd, buf.data(), buf.size());
            close(fd);
        }
    }

    std::string payload_;
    unsigned servers_;
    unsigned timeout_s_;
    SocketDir dir_;
    struct sockaddr_un addr_ = {};
    int listen_fd_ = -1;
    std::atomic<bool> stopping_{false};
    std::vector<std::thread> threads_;
};

// dv_ez_call and the report's key for a failed call. A status-0 call that
// brought no reply text (the client's time ran out just after sending) is a
// failure too: every service we measure answers with a JSON object.
bool dv_bench_call(const std::string& service, const std::string& command, const std::string& payload,
                   unsigned timeout_s, std::string* failure)
{
    void* reply = nullptr;
    size_t size = 0;
    int status = dv_ez_call(service.c_str(), command.c_str(), payload.data(), payload.size(), &reply, &size,
                            timeout_s, -1);
    free(reply);
    if (status != DV_STATUS_OK) {
        *failure = "status" + std::to_string(status);
        return false;
    }
    if (size == 0) {
        *failure = "noreply";
        return false;
    }
    return true;
}

const char SELF_REPLY[] = "{\"handler\":\"test_handler\",\"service\":\"dv-bench\"}\n";

// The in-process service's exec: a handler's least work, reading the request
// and answering with a small fixed object.
void self_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    size_t size = 0;
    (void)dv_io_read(io, &size);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", SELF_REPLY);
    dv_reply(io);
    dv_io_free(io);
}

class SelfMode : public BenchMode {
public:
    SelfMode(const std::string& payload, unsigned workers, unsigned timeout_s)
        : payload_(payload), workers_(workers), timeout_s_(timeout_s)
    {
    }

    std::string describe() const override
    {
        return "mode=self workers=" + std::to_string(workers_) + " payload=" + std::to_string(payload_.size());
    }

    bool start(std::string* error) override
    {
        if (!dir_.create(error))
            return false;
        name_ = "@" + dir_.socket();
        handle_ = dv_create(name_.c_str(), DV_PTHREAD_MODE | DV_STANDALONE, workers_, self_exec);
        dv_start(handle_);
        return true;
    }

    bool call(std::string* failure) override { return dv_bench_call(name_, "test", payload_, timeout_s_, failure); }

    void stop() override
    {
        if (handle_)
            dv_free(handle_);
        handle_ = nullptr;
        dir_.remove();
    }

    ~SelfMode() override { stop(); }

private:
    std::string payload_;
    unsigned workers_;
    unsigned timeout_s_;
    SocketDir dir_;
    std::string name_;
    dv_handle* handle_ = nullptr;
};

class SpawnMode : public BenchMode {
public:
    SpawnMode(const std::string& path, unsigned timeout_s) : path_(path), timeout_s_(timeout_s)
    {
        size_t slash = path_.rfind('/');
        argv0_ = slash == std::string::npos ? path_ : path_.substr(slash + 1);
    }

    std::string describe() const override { return "mode=spawn path=" + path_; }

    bool start(std::string* error) override
    {
        // Above 2 so that the child's dup2 onto 0..2 always makes a fresh,
        // inheritable copy even when this process was started without them.
        int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        null_fd_ = fd >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 3) : -1;
        if (fd >= 0)
            close(fd);
        if (null_fd_ < 0) {
            *error = std::string("cannot open /dev/null: ") + strerror(errno);
            return false;
        }
        posix_spawn_file_actions_init(&actions_);
        for (int target = 0; target <= 2; target++)
            posix_spawn_file_actions_adddup2(&actions_, null_fd_, target);
        // The child starts as a handler's child would: nothing blocked and
        // no disposition of ours (SIGPIPE ignored, our SIGINT) carried over.
        posix_spawnattr_init(&attr_);
        sigset_t none, defaults;
        sigemptyset(&none);
        sigfillset(&defaults);
        posix_spawnattr_setsigmask(&attr_, &none);
        posix_spawnattr_setsigdefault(&attr_, &defaults);
        posix_spawnattr_setflags(&attr_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        ready_ = true;
        return true;
    }

    bool call(std::string* failure) override
    {
        char* argv[] = {argv0_.data(), nullptr};
        pid_t pid;
        int rc = posix_spawn(&pid, path_.c_str(), &actions_, &attr_, argv, environ);
        if (rc != 0) {
            *failure = "spawnfail";
            return false;
        }
        if (!wait_exit(pid)) {
            kill(pid, SIGKILL);
            reap(pid);
            *failure = "timeout";
            return false;
        }
        int status = reap(pid);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            return true;
        *failure = WIFEXITED(status) ? "exit" + std::to_string(WEXITSTATUS(status))
                                     : "signal" + std::to_string(WTERMSIG(status));
        return false;
    }

    void stop() override
    {
        if (!ready_)
            return;
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attr_);
        close(null_fd_);
        null_fd_ = -1;
        ready_ = false;
    }

    ~SpawnMode() override { stop(); }

private:
    // False when the child outlived the time limit. Without pidfds (an old
    // kernel) the wait is unbounded, as a plain waitpid is.
    bool wait_exit(pid_t pid)
    {
        // Through syscall(): this libc's <sys/pidfd.h> is not usable from C++.
        int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (pidfd < 0)
            return true;
        struct timespec start, now;
        clock_gettime(CLOCK_MONOTONIC, &start);
        long long limit_ms = static_cast<long long>(timeout_s_) * 1000;
        bool exited = false;
        for (;;) {
            clock_gettime(CLOCK_MONOTONIC, &now);
            long long spent = (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
            if (spent >= limit_ms)
                break;
            struct pollfd p = {pidfd, POLLIN, 0};
            int n = poll(&p, 1, static_cast<int>(limit_ms - spent));
            if (n > 0 || (n < 0 && errno != EINTR)) {
                exited = true;
                break;
            }
        }
        close(pidfd);
        return exited;
    }

    static int reap(pid_t pid)
    {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return status;
    }

    std::string path_;
    std::string argv0_;
    unsigned timeout_s_;
    int null_fd_ = -1;
    bool ready_ = false;
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attr_;
};

class ServiceMode : public BenchMode {
public:
    ServiceMode(const std::string& service, const std::string& command, const std::string& payload,
                unsigned timeout_s)
        : service_(service), command_(command), payload_(payload), timeout_s_(timeout_s)
    {
    }

    std::string describe() const override
    {
        return "mode=service service=" + service_ + " command=" + command_ +
               " payload=" + std::to_string(payload_.size());
    }

    bool start(std::string*) override { return true; }
    bool call(std::string* failure) override { return dv_bench_call(service_, command_, payload_, timeout_s_, failure); }
    void stop() override {}

private:
    std::string service_;
    std::string command_;
    std::string payload_;
    unsigned timeout_s_;
};

}  // namespace

std::unique_ptr<BenchMode> make_floor_mode(const std::string& payload, unsigned server_threads, unsigned timeout_s)
{
    return std::make_unique<FloorMode>(payload, server_threads, timeout_s);
}

std::unique_ptr<BenchMode> make_self_mode(const std::string& payload, unsigned workers, unsigned timeout_s)
{
    return std::make_unique<SelfMode>(payload, workers, timeout_s);
}

std::unique_ptr<BenchMode> make_spawn_mode(const std::string& path, unsigned timeout_s)
{
    return std::make_unique<SpawnMode>(path, timeout_s);
}

std::unique_ptr<BenchMode> make_service_mode(const std::string& service, const std::string& command,
                                             const std::string& payload, unsigned timeout_s)
{
    return std::make_unique<ServiceMode>(service, command, payload, timeout_s);
}
