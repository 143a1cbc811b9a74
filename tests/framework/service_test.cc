// A live service driven by a hand-written client: round trips in both
// worker modes, queueing, refusals, pause, consumer restarts and stopping.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>
#include <fcntl.h>

#include <atomic>
#include <memory>
#include <set>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "dv.h"
#include "framework/internal.h"
#include "support/fds.h"
#include "support/files.h"
#include "support/raw_client.h"
#include "support/test_service.h"

namespace {

using namespace std::chrono_literals;

int thread_count()
{
    int n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (struct dirent* e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

bool no_children_left()
{
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

std::string expected_echo(const std::string& name, const std::string& request)
{
    return name + "|" + request + "|" + std::to_string(getpid()) + "|" + std::to_string(getuid()) + "|" +
           std::to_string(getgid());
}

class Modes : public testing::TestWithParam<u_int32_t> {};

TEST_P(Modes, RoundTripCarriesTextCredentialsAndTheExtraDescriptor)
{
    TestService svc(echo_exec, GetParam(), 2);
    EXPECT_EQ(raw_call(svc.sockfile(), "hello", "{\"a\":1}"), expected_echo("hello", "{\"a\":1}"));
    EXPECT_EQ(raw_call(svc.sockfile(), "empty", ""), expected_echo("empty", ""));

    int pipefd[2];
    ASSERT_EQ(pipe2(pipefd, O_CLOEXEC), 0);
    EXPECT_EQ(raw_call(svc.sockfile(), "with-fd", "x", pipefd[1]), expected_echo("with-fd", "x"));
    close(pipefd[1]);
    char buf[64] = {};
    EXPECT_EQ(read(pipefd[0], buf, sizeof(buf) - 1), 14);
    EXPECT_STREQ(buf, "extra:with-fd\n");
    close(pipefd[0]);

    // A 255-character name is the longest kept whole.
    std::string longest(255, 'n');
    EXPECT_EQ(raw_call(svc.sockfile(), longest, "t"), expected_echo(longest, "t"));
}

// Threads with a producer thread of its own; processes with the producer in
// the thread that called dv_start.
INSTANTIATE_TEST_SUITE_P(Service, Modes, testing::Values(DV_PTHREAD_MODE | DV_STANDALONE, DV_PROCESS_MODE),
                         [](const testing::TestParamInfo<u_int32_t>& info) {
                             return (info.param & DV_PTHREAD_MODE) ? std::string("Threads") : std::string("Processes");
                         });

// A callback that blocks until released and records the order of requests.
std::mutex order_lock;
std::vector<std::string> served;
std::atomic<bool> release{false};
std::atomic<bool> blocking{false};

std::vector<std::string> served_so_far()
{
    std::lock_guard<std::mutex> g(order_lock);
    return served;
}

void recording_exec(const char* name, dv_io* io, int fd)
{
    if (std::string(name) == "block")
        for (blocking = true; !release.load();)
            std::this_thread::sleep_for(1ms);
    {
        std::lock_guard<std::mutex> g(order_lock);
        served.push_back(name);
    }
    echo_exec(name, io, fd);
}

TEST(Service, ClientsWaitForABusyConsumerAndAreServedInArrivalOrder)
{
    served.clear();
    release = false;
    blocking = false;
    TestService svc(recording_exec, DV_PTHREAD_MODE | DV_STANDALONE, 1);
    std::thread blocker([&] { raw_call(svc.sockfile(), "block", ""); });
    while (!blocking)  // the only consumer is busy from here on
        std::this_thread::sleep_for(2ms);
    std::vector<std::unique_ptr<RawClient>> waiting;
    for (int i = 0; i < 5; i++) {
        waiting.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(waiting.back()->connect_to(svc.sockfile()));
        std::this_thread::sleep_for(5ms);  // arrival order is the order of accept
    }
    // Nobody is told to go ahead while the consumer is busy.
    EXPECT_EQ(waiting[0]->next_type(100), -1);

    std::vector<std::thread> finishers;
    for (int i = 0; i < 5; i++) {
        finishers.emplace_back([&, i] {
            RawClient& c = *waiting[i];
            ASSERT_EQ(c.next_type(10000), DV_DIRECTIVE_ACCEPT);
            int memfd = make_request_memfd("");
            c.send_directive(DV_DIRECTIVE_REQUEST, 0, "client" + std::to_string(i));
            c.send_fd(memfd);
            EXPECT_EQ(c.next_type(10000), DV_DIRECTIVE_REPLY);
            close(memfd);
        });
    }
    release = true;
    blocker.join();
    for (auto& t : finishers)
        t.join();
    std::vector<std::string> expected = {"block", "client0", "client1", "client2", "client3", "client4"};
    EXPECT_EQ(served_so_far(), expected);
}

TEST(Service, TheThousandAndFirstWaitingClientIsTurnedAwayAndPauseRefusesAll)
{
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < 4096) {
        rl.rlim_cur = std::min<rlim_t>(4096, rl.rlim_max);
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    ASSERT_GE(rl.rlim_cur, 2100u) << "not enough descriptors for 1001 waiting clients";

    served.clear();
    release = false;
    blocking = false;
    TestService svc(recording_exec, DV_PTHREAD_MODE | DV_STANDALONE, 1);
    std::thread blocker([&] { raw_call(svc.sockfile(), "block", ""); });
    while (!blocking)
        std::this_thread::sleep_for(2ms);

    std::vector<std::unique_ptr<RawClient>> waiting;
    for (int i = 0; i < DV_MAX_WAITING_CLIENTS; i++) {
        waiting.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(waiting.back()->connect_to(svc.sockfile()));
    }
    RawClient extra;
    ASSERT_TRUE(extra.connect_to(svc.sockfile()));
    EXPECT_EQ(extra.next_type(), DV_DIRECTIVE_BUSY);
    EXPECT_TRUE(extra.closed_by_peer());

    // One waiting client leaves: there is room for one more again.
    waiting.front()->close_now();
    std::this_thread::sleep_for(50ms);
    RawClient fits;
    ASSERT_TRUE(fits.connect_to(svc.sockfile()));
    EXPECT_EQ(fits.next_type(200), -1) << "queued, not refused";

    dv_pause(svc.handle());
    RawClient paused;
    ASSERT_TRUE(paused.connect_to(svc.sockfile()));
    EXPECT_EQ(paused.next_type(), DV_DIRECTIVE_PAUSED);
    EXPECT_TRUE(paused.closed_by_peer());
    dv_resume(svc.handle());

    waiting.clear();
    fits.close_now();
    release = true;
    blocker.join();
    EXPECT_EQ(raw_call(svc.sockfile(), "after", ""), expected_echo("after", ""));
}

void pid_exec(const char* name, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s:%d", name, getpid());
    dv_reply(io);
    dv_io_free(io);
}

TEST(Service, AKilledProcessConsumerIsRestartedAtTheNextDispatch)
{
    TestService svc(pid_exec, DV_PROCESS_MODE, 2);
    // With both consumers idle, dispatch goes round robin from index 1.
    auto pid_of_call = [&] {
        auto r = raw_call(svc.sockfile(), "pid", "");
        return r ? std::stoi(r->substr(r->find(':') + 1)) : -1;
    };
    pid_t pid1 = pid_of_call();
    pid_t old_pid = pid_of_call();
    ASSERT_GT(old_pid, 0);
    ASSERT_NE(old_pid, pid1);
    ASSERT_EQ(kill(old_pid, SIGKILL), 0);
    std::this_thread::sleep_for(50ms);

    testing::internal::CaptureStderr();
    auto reply = raw_call(svc.sockfile(), "after-kill", "");
    std::this_thread::sleep_for(20ms);
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(reply.has_value());
    std::string line = "[Dovel] [WARN] [" + svc.name() + "] consumer-worker[0].pid=" + std::to_string(old_pid) +
                       " WIFSIGNALED=9, restart it.\n";
    EXPECT_EQ(err, line);
    // Both consumers serve again: the old one at index 1 and a fresh one.
    std::set<pid_t> pids;
    for (int i = 0; i < 6; i++)
        pids.insert(pid_of_call());
    EXPECT_EQ(pids.size(), 2u);
    EXPECT_TRUE(pids.count(pid1));
    EXPECT_FALSE(pids.count(old_pid));
    EXPECT_FALSE(pids.count(-1));
}

TEST_P(Modes, StopEndsPromptlyAndLeavesNothingBehind)
{
    // One service first, so that helper threads of the test process itself
    // (a thread checker's, say) already exist when the counts are taken.
    { TestService warm_up(echo_exec, GetParam(), 1); }
    int fds_before = count_open_fds();
    int threads_before = thread_count();
    {
        TestService svc(echo_exec, GetParam(), 3);
        ASSERT_TRUE(raw_call(svc.sockfile(), "one", "").has_value());
        RawClient idle_waiter;  // a client that connected and said nothing
        ASSERT_TRUE(idle_waiter.connect_to(svc.sockfile()));
        auto start = std::chrono::steady_clock::now();
        svc.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
        EXPECT_TRUE(idle_waiter.closed_by_peer(1000));
        EXPECT_FALSE(file_exists(svc.sockfile()));
    }
    EXPECT_EQ(count_open_fds(), fds_before);
    EXPECT_EQ(thread_count(), threads_before);
    EXPECT_TRUE(no_children_left());
}

TEST(Service, ProducerInTheCallersThreadStopsFromAnotherThread)
{
    TempDir dir;
    std::string name = "@" + dir.file("inline.sock");
    int fds_before = count_open_fds();
    dv_handle* h = dv_create(name.c_str(), DV_PTHREAD_MODE, 2, echo_exec);
    std::thread runner([h] { dv_start(h); });
    while (!file_exists(dir.file("inline.sock")))
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(raw_call(dir.file("inline.sock"), "inline", "q"), expected_echo("inline", "q"));
    dv_free(h);  // returns only once dv_start has let go of the handle
    runner.join();
    EXPECT_EQ(count_open_fds(), fds_before);
}

}  // namespace
