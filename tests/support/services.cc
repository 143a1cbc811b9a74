#include "support/suite.h"

TestService::TestService(dv_exec_fn exec, u_int32_t mode, size_t workers)
    : handle_(dv_create(name().c_str(), mode, workers, exec))
{
    if (mode & DV_STANDALONE) {
        dv_start(handle_);
        return;
    }
    runner_ = std::thread([h = handle_] { dv_start(h); });
    // The socket file exists from bind on, a moment before it listens.
    dv_wait_started(handle_, 10000);
}

void TestService::stop()
{
    if (handle_)
        dv_free(handle_);
    handle_ = nullptr;
    if (runner_.joinable())
        runner_.join();
}

std::string request_text(dv_io* io)
{
    size_t size = 0;
    const char* request = dv_io_read(io, &size);
    return std::string(request ? request : "", request ? size : 0);
}

void reply_text(dv_io* io, const std::string& text)
{
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", text.c_str());
    dv_reply(io);
    dv_io_free(io);
}

void echo_exec(const char* name, dv_io* io, int fd)
{
    if (fd >= 0) {
        std::string line = std::string("extra:") + name + "\n";
        (void)!write(fd, line.data(), line.size());
        close(fd);
    }
    reply_text(io, std::string(name) + "|" + request_text(io) + "|" + std::to_string(dv_io_pid(io)) + "|" +
                       std::to_string(dv_io_uid(io)) + "|" + std::to_string(dv_io_gid(io)));
}

HandlerService::~HandlerService()
{
    service_.stop();
    fflush(stdout);
    dup2(saved_stdout_, STDOUT_FILENO);
    close(saved_stdout_);
}

int thread_count()
{
    // A sanitizer runtime may add a thread of its own at the process's first
    // pthread_create; that happens before anything is counted.
    [[maybe_unused]] static const bool warmed_up = (std::thread([] {}).join(), true);
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

bool thread_in_msgrcv()
{
    const std::string wanted = std::to_string(SYS_msgrcv) + " ";
    std::error_code ec;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ec))
        if (read_text_file(task.path().string() + "/syscall").rfind(wanted, 0) == 0)
            return true;
    return false;
}
