#include "support/notify_service.h"

#include <unistd.h>

#include <chrono>

namespace {

// The exec callback has no user pointer.
FakeNotifyService* g_current = nullptr;

}  // namespace

FakeNotifyService::FakeNotifyService()
{
    if (g_current)
        abort();
    g_current = this;
    start();
}

FakeNotifyService::~FakeNotifyService()
{
    stop();
    g_current = nullptr;
}

void FakeNotifyService::start()
{
    if (!handle_) {
        handle_ = dv_create("VexProServer_notify-vexprod", DV_PTHREAD_MODE | DV_STANDALONE, 1, exec);
        dv_start(handle_);
    }
}

void FakeNotifyService::stop()
{
    if (handle_)
        dv_free(handle_);
    handle_ = nullptr;
}

std::vector<NotifyCall> FakeNotifyService::calls() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

bool FakeNotifyService::wait_calls(size_t n, int timeout_ms) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return calls_.size() >= n; });
}

void FakeNotifyService::exec(const char* name, dv_io* io, int fd)
{
    size_t size = 0;
    const char* request = dv_io_read(io, &size);
    {
        std::lock_guard<std::mutex> lock(g_current->mutex_);
        g_current->calls_.push_back({name, std::string(request ? request : "", request ? size : 0)});
        g_current->arrived_.notify_all();
    }
    if (fd >= 0)
        close(fd);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", "{\"result\":0}");
    dv_reply(io);
    dv_io_free(io);
}
