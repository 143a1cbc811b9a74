// The client: blocking calls, many requests from one poller, every status
// code, and no descriptor or mapping left behind whatever the outcome.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dv.h"
#include "support/fds.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/tempdir.h"
#include "support/test_service.h"

namespace {

using namespace std::chrono_literals;

std::string reply_of(dv_io* io)
{
    return io->shared_data ? std::string(static_cast<char*>(io->shared_data), io->shared_size) : std::string();
}

std::string expected_echo(const std::string& name, const std::string& request)
{
    return name + "|" + request + "|" + std::to_string(getpid()) + "|" + std::to_string(getuid()) + "|" +
           std::to_string(getgid());
}

int memfd_mappings()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int n = 0;
    while (std::getline(maps, line))
        n += line.find("memfd:dovel") != std::string::npos;
    return n;
}

class ClientModes : public testing::TestWithParam<u_int32_t> {};

TEST_P(ClientModes, CallAndEasyCallRoundTrip)
{
    TestService svc(echo_exec, GetParam(), 2);
    dv_io* io = dv_io_create();
    dv_io_printf(io, "%s", "{\"k\":\"v\"}");
    ASSERT_EQ(dv_call(svc.name().c_str(), "cmd", io, 5, -1), DV_STATUS_OK);
    EXPECT_EQ(reply_of(io), expected_echo("cmd", "{\"k\":\"v\"}"));
    EXPECT_EQ(io->sockfd, -1);
    dv_io_free(io);

    void* reply = nullptr;
    size_t size = 0;
    ASSERT_EQ(dv_ez_call(svc.name().c_str(), "ez", "abc", 3, &reply, &size, 5, -1), DV_STATUS_OK);
    EXPECT_EQ(std::string(static_cast<char*>(reply), size), expected_echo("ez", "abc"));
    free(reply);

    // No reply buffer: the call still waits for the reply.
    EXPECT_EQ(dv_ez_call(svc.name().c_str(), "ez", nullptr, 0, nullptr, nullptr, 5, -1), DV_STATUS_OK);

    // The extra descriptor reaches the callback, which writes to it.
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    ASSERT_EQ(dv_ez_call(svc.name().c_str(), "withfd", "", 0, nullptr, nullptr, 5, p[1]), DV_STATUS_OK);
    close(p[1]);
    char buf[32] = {};
    EXPECT_GT(read(p[0], buf, sizeof(buf) - 1), 0);
    EXPECT_STREQ(buf, "extra:withfd\n");
    close(p[0]);
}

INSTANTIATE_TEST_SUITE_P(Client, ClientModes, testing::Values(DV_PTHREAD_MODE | DV_STANDALONE, DV_PROCESS_MODE),
                         [](const testing::TestParamInfo<u_int32_t>& info) {
                             return (info.param & DV_PTHREAD_MODE) ? std::string("Threads") : std::string("Processes");
                         });

std::atomic<bool> release{false};
std::atomic<int> blocked{0};

void blocking_exec(const char* name, dv_io* io, int fd)
{
    if (std::string(name) == "block") {
        blocked++;
        while (!release)
            std::this_thread::sleep_for(1ms);
    }
    if (std::string(name) == "hangup") {
        dv_io_free(io);  // no reply: the client sees the connection close
        if (fd >= 0)
            close(fd);
        return;
    }
    echo_exec(name, io, fd);
}

int call_status(const std::string& service, const std::string& command, unsigned timeout = 5)
{
    return dv_ez_call(service.c_str(), command.c_str(), "{}", 2, nullptr, nullptr, timeout, -1);
}

TEST(Client, StatusCodesAndNothingLeftBehind)
{
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < 4096) {
        rl.rlim_cur = std::min<rlim_t>(4096, rl.rlim_max);
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    release = false;
    blocked = 0;
    TempDir dir;
    int fds = settled_fd_count();

    // No socket file: 2 at once.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call_status("@" + dir.file("none.sock"), "x"), DV_STATUS_CONNECT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    // Argument limits: 7 without connecting.
    EXPECT_EQ(call_status("@" + dir.file("none.sock"), std::string(257, 'c')), DV_STATUS_ARGUMENTS);
    EXPECT_EQ(call_status(std::string(65, 's'), "x"), DV_STATUS_ARGUMENTS);
    EXPECT_EQ(dv_ez_call(nullptr, "x", nullptr, 0, nullptr, nullptr, 5, -1), DV_STATUS_ARGUMENTS);

    {
        TestService svc(blocking_exec, DV_PTHREAD_MODE | DV_STANDALONE, 1);
        int with_service = settled_fd_count();
        EXPECT_EQ(call_status(svc.name(), "hangup"), DV_STATUS_SOCKET);

        dv_pause(svc.handle());
        EXPECT_EQ(call_status(svc.name(), "x"), DV_STATUS_PAUSED);
        dv_resume(svc.handle());

        // Occupy the only consumer, then fill the waiting queue.
        std::thread blocker([&] { call_status(svc.name(), "block"); });
        while (!blocked)
            std::this_thread::sleep_for(1ms);
        std::vector<std::unique_ptr<RawClient>> waiting;
        for (int i = 0; i < DV_MAX_WAITING_CLIENTS; i++) {
            waiting.push_back(std::make_unique<RawClient>());
            ASSERT_TRUE(waiting.back()->connect_to(svc.sockfile()));
        }
        EXPECT_EQ(call_status(svc.name(), "x"), DV_STATUS_BUSY);
        waiting.clear();
        release = true;
        blocker.join();
        std::this_thread::sleep_for(100ms);  // let the producer drop the departed clients
        EXPECT_EQ(call_status(svc.name(), "x"), DV_STATUS_OK);
        EXPECT_TRUE(eventually([&] { return count_open_fds() == with_service; }));
    }
    EXPECT_TRUE(eventually([&] { return count_open_fds() == fds; })) << count_open_fds() << " vs " << fds;
    EXPECT_EQ(memfd_mappings(), 0);
}

TEST(Client, ShortTimeoutsWaitFiveSeconds)
{
    release = false;
    blocked = 0;
    TestService svc(blocking_exec, DV_PTHREAD_MODE | DV_STANDALONE, 1);
    int fds = settled_fd_count();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call_status(svc.name(), "block", 3), DV_STATUS_TIMEOUT);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 4900ms);
    EXPECT_LT(waited, 6500ms);
    release = true;
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(eventually([&] { return count_open_fds() == fds; })) << count_open_fds() << " vs " << fds;
    EXPECT_EQ(memfd_mappings(), 0);
}

TEST(Client, OnePollerDrivesFiftyRequestsToTwoWorkers)
{
    TestService svc(echo_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
    int fds = settled_fd_count();
    dv_epoll* ep = dv_epoll_create();
    std::vector<dv_io*> ios;
    for (int i = 0; i < 50; i++) {
        dv_io* io = dv_io_create();
        dv_io_printf(io, "request-%d", i);
        io->data = reinterpret_cast<void*>(static_cast<intptr_t>(i));
        ASSERT_EQ(dv_epoll_call(ep, svc.name().c_str(), ("cmd" + std::to_string(i)).c_str(), io, -1), 0);
        ios.push_back(io);
    }
    int done = 0;
    std::vector<bool> seen(50, false);
    auto deadline = std::chrono::steady_clock::now() + 20s;
    while (done < 50 && std::chrono::steady_clock::now() < deadline) {
        int status = -1;
        dv_io* io = dv_epoll_perform(ep, 1000, &status);
        if (!io)
            continue;
        ASSERT_EQ(status, DV_STATUS_OK);
        int i = static_cast<int>(reinterpret_cast<intptr_t>(io->data));
        EXPECT_FALSE(seen[i]);
        seen[i] = true;
        EXPECT_EQ(reply_of(io), expected_echo("cmd" + std::to_string(i), "request-" + std::to_string(i)));
        done++;
    }
    EXPECT_EQ(done, 50);
    for (dv_io* io : ios)
        dv_io_free(io);
    dv_epoll_free(ep);
    EXPECT_TRUE(eventually([&] { return count_open_fds() == fds; })) << count_open_fds() << " vs " << fds;
    EXPECT_EQ(memfd_mappings(), 0);
}

TEST(ClientDeathTest, MisuseAbortsWithItsLine)
{
    EXPECT_EXIT(dv_epoll_free(nullptr), testing::KilledBySignal(SIGABRT),
                "cannot free incorrect dv_epoll \\(nil\\): `epoll && \\(\\*\\(u_int32_t\\*\\) epoll == DV_EPOLL_MAGIC\\)'");
    EXPECT_EXIT(
        {
            dv_epoll* ep = dv_epoll_create();
            dv_epoll_call(ep, "svc", "cmd", nullptr, -1);
        },
        testing::KilledBySignal(SIGABRT), "@dv_epoll_call\\(\\) cannot make incorrect dv_io \\(nil\\) request");
    EXPECT_EXIT(dv_ez_call("svc", "cmd", nullptr, 3, nullptr, nullptr, 5, -1), testing::KilledBySignal(SIGABRT),
                "^\\[ABORT\\] @dv_ez_call\\(\\) data memory access violation with size \\(3\\): `data != NULL \\|\\| "
                "\\(data == NULL && dsize == 0U\\)'\n$");
    EXPECT_EXIT(
        {
            void* not_null = &not_null;
            dv_ez_call("svc", "cmd", nullptr, 0, &not_null, nullptr, 5, -1);
        },
        testing::KilledBySignal(SIGABRT),
        "^\\[ABORT\\] @dv_ez_call\\(\\) recv memory access violation: `\\(recv == NULL \\|\\| \\*recv == NULL\\)'\n$");
}

}  // namespace
