#include "support/test_service.h"

#include <unistd.h>

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

void echo_exec(const char* name, dv_io* io, int fd)
{
    size_t size = 0;
    const char* request = dv_io_read(io, &size);
    if (fd >= 0) {
        std::string line = std::string("extra:") + name + "\n";
        (void)!write(fd, line.data(), line.size());
        close(fd);
    }
    std::string reply = std::string(name) + "|" + std::string(request ? request : "", request ? size : 0) + "|" +
                        std::to_string(dv_io_pid(io)) + "|" + std::to_string(dv_io_uid(io)) + "|" +
                        std::to_string(dv_io_gid(io));
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", reply.c_str());
    dv_reply(io);
    dv_io_free(io);
}
