// FakeNotifyService: a one-worker dv_ service whose callback records the
// command and request text and answers {"result":0}.
#include "support/notify_service.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>

namespace {

// The exec callback has no user pointer, hence one instance at a time.
std::atomic<FakeNotifyService*> g_current{nullptr};

constexpr const char kServiceName[] = "VexProServer_notify-vexprod";

}  // namespace

FakeNotifyService::FakeNotifyService()
{
    env_.emplace("DV_SOCKET_DIR", sockets_.path().c_str());
    FakeNotifyService* expected = nullptr;
    if (!g_current.compare_exchange_strong(expected, this))
        abort();
    start();
}

FakeNotifyService::~FakeNotifyService()
{
    stop();
    g_current.store(nullptr);
}

void FakeNotifyService::start()
{
    if (handle_)
        return;
    handle_ = dv_create(kServiceName, DV_PTHREAD_MODE | DV_STANDALONE, 1, exec);
    dv_start(handle_);
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

void FakeNotifyService::record(NotifyCall call)
{
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
    arrived_.notify_all();
}

void FakeNotifyService::exec(const char* name, dv_io* io, int fd)
{
    size_t size = 0;
    const char* request = dv_io_read(io, &size);
    if (FakeNotifyService* self = g_current.load())
        self->record({name, std::string(request ? request : "", request ? size : 0)});
    if (fd >= 0)
        close(fd);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", "{\"result\":0}");
    dv_reply(io);
    dv_io_free(io);
}
