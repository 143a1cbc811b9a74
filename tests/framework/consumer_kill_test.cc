// A process-mode service keeps serving under load when one of its consumers
// is killed: the dead consumer costs at most the request it held, and the
// next dispatch replaces it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dv.h"
#include "support/settle.h"
#include "support/test_service.h"

namespace {

using namespace std::chrono_literals;

// Answers with the consumer's pid after a short piece of work, so that a
// kill often lands while a request is in hand.
void slow_pid_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    usleep(2000);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%d", getpid());
    dv_reply(io);
    dv_io_free(io);
}

pid_t pid_call(const std::string& name, int* status)
{
    void* recv = nullptr;
    size_t size = 0;
    *status = dv_ez_call(name.c_str(), "pid", "{}", 2, &recv, &size, 5, -1);
    pid_t pid = *status == DV_STATUS_OK && recv ? atoi(std::string(static_cast<char*>(recv), size).c_str()) : -1;
    free(recv);
    return pid;
}

TEST(ConsumerKill, AConsumerKilledUnderLoadIsReplacedAndServiceGoesOn)
{
    TestService svc(slow_pid_exec, DV_PROCESS_MODE, 2);
    const std::string name = svc.name();
    int status = -1;
    ASSERT_GT(pid_call(name, &status), 0);
    const int fds_before = settled_fd_count();

    std::atomic<int> answered{0}, failed{0};
    std::mutex mutex;
    std::set<pid_t> serving;  // the consumers seen since `serving` was last cleared
    testing::internal::CaptureStderr();
    std::vector<std::jthread> callers;  // asked to stop and joined however the test ends
    for (int i = 0; i < 6; i++)
        callers.emplace_back([&](std::stop_token stop) {
            while (!stop.stop_requested()) {
                int st = -1;
                pid_t pid = pid_call(name, &st);
                if (st != DV_STATUS_OK) {
                    failed++;
                    continue;
                }
                answered++;
                std::lock_guard<std::mutex> lock(mutex);
                serving.insert(pid);
            }
        });

    ASSERT_TRUE(eventually([&] { return answered >= 200; }, 10000));
    pid_t victim;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ASSERT_EQ(serving.size(), 2u);
        victim = *serving.begin();
    }
    ASSERT_EQ(kill(victim, SIGKILL), 0);
    // Long enough for the request the victim may have held to fail, and for
    // its successor to be running.
    std::this_thread::sleep_for(100ms);
    const int answered_at_kill = answered;
    {
        std::lock_guard<std::mutex> lock(mutex);
        serving.clear();
    }
    ASSERT_TRUE(eventually([&] { return answered >= answered_at_kill + 300; }, 20000))
        << "the service stalled after the kill";
    callers.clear();
    const std::string err = testing::internal::GetCapturedStderr();

    // One request at most went down with the consumer.
    EXPECT_LE(failed.load(), 1);
    // One restart line, for the victim, whichever index it had.
    const std::string head = "[Dovel] [WARN] [" + name + "] consumer-worker[";
    const std::string tail = "].pid=" + std::to_string(victim) + " WIFSIGNALED=9, restart it.\n";
    EXPECT_TRUE(err == head + "0" + tail || err == head + "1" + tail) << err;
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(serving.size(), 2u);
        EXPECT_EQ(serving.count(victim), 0u);
    }
    // The dead consumer may have taken one hand-over with it whose client
    // descriptor was never echoed back; nothing beyond that stays open.
    EXPECT_LE(settled_fd_count(), fds_before + 1);
}

}  // namespace
