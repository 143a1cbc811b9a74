// A live service driven by a hand-written client and by the real one: round
// trips in every worker mode, queueing, refusals and every client status,
// pause, consumer restarts, stopping, and nothing left behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "dv.h"
#include "support/death.h"
#include "support/fds.h"
#include "support/other_user.h"
#include "support/files.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/sysv_queue.h"
#include "support/test_service.h"

namespace {

using namespace std::chrono_literals;

std::string expected_echo(const std::string& name, const std::string& request)
{
    return name + "|" + request + "|" + std::to_string(getpid()) + "|" + std::to_string(getuid()) + "|" +
           std::to_string(getgid());
}

std::string reply_of(dv_io* io)
{
    return io->shared_data ? std::string(static_cast<char*>(io->shared_data), io->shared_size) : std::string();
}

int memfd_mappings()
{
    std::ifstream maps("/proc/self/maps");
    int n = 0;
    for (std::string line; std::getline(maps, line);)
        n += line.find("memfd:dovel") != std::string::npos;
    return n;
}

// Descriptors and request mappings are back to what they were.
void expect_nothing_left(int fds)
{
    EXPECT_TRUE(eventually([&] { return count_open_fds() == fds; })) << count_open_fds() << " vs " << fds;
    EXPECT_EQ(memfd_mappings(), 0);
}

int call_status(const std::string& service, const std::string& command, unsigned timeout = 5)
{
    return dv_ez_call(service.c_str(), command.c_str(), "{}", 2, nullptr, nullptr, timeout, -1);
}

class Modes : public testing::TestWithParam<u_int32_t> {};

// Both clients get text, credentials and the extra descriptor through; then
// dv_stop ends the service promptly with no thread, child or descriptor left.
TEST_P(Modes, ServesBothClientsThenStopsPromptlyLeavingNothing)
{
    // One service first, so that helper threads of the test process itself
    // (a thread checker's, say) already exist when the counts are taken.
    { TestService warm_up(echo_exec, GetParam(), 1); }
    int fds_before = count_open_fds();
    int threads_before = thread_count();
    {
        TestService svc(echo_exec, GetParam(), 3);
        EXPECT_EQ(raw_call(svc.sockfile(), "hello", "{\"a\":1}"), expected_echo("hello", "{\"a\":1}"));
        EXPECT_EQ(raw_call(svc.sockfile(), "empty", ""), expected_echo("empty", ""));
        std::string longest(255, 'n');  // the longest name kept whole
        EXPECT_EQ(raw_call(svc.sockfile(), longest, "t"), expected_echo(longest, "t"));
        int extra = make_request_memfd("");
        EXPECT_EQ(raw_call(svc.sockfile(), "with-fd", "x", extra), expected_echo("with-fd", "x"));
        EXPECT_EQ(read_fd_text(extra), "extra:with-fd\n");

        dv_io* io = dv_io_create();
        dv_io_printf(io, "%s", "{\"k\":\"v\"}");
        ASSERT_EQ(dv_call(svc.name().c_str(), "cmd", io, 5, -1), DV_STATUS_OK);
        EXPECT_EQ(reply_of(io), expected_echo("cmd", "{\"k\":\"v\"}"));
        EXPECT_EQ(io->sockfd, -1);
        dv_io_free(io);
        void* reply = nullptr;
        size_t size = 0;
        ASSERT_EQ(dv_ez_call(svc.name().c_str(), "ez", "abc", 3, &reply, &size, 5, extra), DV_STATUS_OK);
        EXPECT_EQ(std::string(static_cast<char*>(reply), size), expected_echo("ez", "abc"));
        EXPECT_EQ(read_fd_text(extra), "extra:with-fd\nextra:ez\n");
        free(reply);
        close(extra);
        // No reply buffer: the call still waits for the reply.
        EXPECT_EQ(dv_ez_call(svc.name().c_str(), "ez", nullptr, 0, nullptr, nullptr, 5, -1), DV_STATUS_OK);

        RawClient idle_waiter;  // a client that connected and said nothing
        ASSERT_TRUE(idle_waiter.connect_to(svc.sockfile()));
        auto start = std::chrono::steady_clock::now();
        svc.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
        EXPECT_TRUE(idle_waiter.closed_by_peer(1000));
        EXPECT_FALSE(file_exists(svc.sockfile()));
    }
    EXPECT_EQ(count_open_fds(), fds_before);
    EXPECT_EQ(memfd_mappings(), 0);
    EXPECT_EQ(thread_count(), threads_before);
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child process is left";
}

// Producer on a thread of its own, in the thread that called dv_start (which
// dv_free, from another thread, must release), and with forked consumers.
INSTANTIATE_TEST_SUITE_P(Service, Modes,
                         testing::Values(DV_PTHREAD_MODE | DV_STANDALONE, DV_PTHREAD_MODE, DV_PROCESS_MODE),
                         [](const testing::TestParamInfo<u_int32_t>& info) {
                             return std::string(info.param & DV_PROCESS_MODE ? "Processes"
                                                : info.param & DV_STANDALONE ? "Threads"
                                                                             : "ThreadsInline");
                         });

// "block" holds its consumer until released, "hangup" answers nothing;
// everything served is recorded in order.
std::mutex order_lock;
std::vector<std::string> served;
std::atomic<bool> release{false};
std::atomic<bool> blocking{false};

void recording_exec(const char* name, dv_io* io, int fd)
{
    if (std::string(name) == "block")
        for (blocking = true; !release.load();)
            std::this_thread::sleep_for(1ms);
    if (std::string(name) == "hangup") {
        dv_io_free(io);
        if (fd >= 0)
            close(fd);
        return;
    }
    {
        std::lock_guard<std::mutex> g(order_lock);
        served.push_back(name);
    }
    echo_exec(name, io, fd);
}

// One consumer, blocked by a first client until release is set.
struct BlockedService {
    BlockedService() : svc(recording_exec, DV_PTHREAD_MODE | DV_STANDALONE, 1)
    {
        served.clear();
        release = false;
        blocking = false;
    }
    void block()
    {
        blocker = std::thread([this] { raw_call(svc.sockfile(), "block", ""); });
        while (!blocking)
            std::this_thread::sleep_for(1ms);
    }
    ~BlockedService()
    {
        release = true;
        if (blocker.joinable())
            blocker.join();
    }
    TestService svc;
    std::thread blocker;
};

// With the only consumer busy: clients wait and are served in arrival order,
// the 1001st waiting client is turned away, a paused service refuses all.
// Connects as uid (this thread only: the service's threads keep theirs), or
// as ourselves when we may not switch.
bool connect_as(RawClient& c, const std::string& sockfile, uid_t uid)
{
    const bool switched = can_switch_user() && syscall(SYS_setresuid, -1, uid, -1) == 0;
    const bool connected = c.connect_to(sockfile);
    if (switched && syscall(SYS_setresuid, -1, 0, -1) != 0)
        abort();
    return connected;
}

// At most DV_MAX_WAITING_PER_UID wait per uid, DV_MAX_WAITING_CLIENTS in
// all (that needs other uids: only when we may switch); uids take turns,
// each in its own arrival order.
TEST(Service, WaitingClientsAreQueuedInTurnsBoundedAndRefusedWhilePausedOrNotAdmitted)
{
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = std::max(rl.rlim_cur, std::min<rlim_t>(4096, rl.rlim_max));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
    ASSERT_GE(rl.rlim_cur, 2100u) << "not enough descriptors for 1001 waiting clients";
    const bool others = can_switch_user();
    const size_t total = others ? DV_MAX_WAITING_CLIENTS : DV_MAX_WAITING_PER_UID;
    auto uid_of = [](size_t i) { return static_cast<uid_t>(70000 + i / DV_MAX_WAITING_PER_UID); };
    BlockedService b;
    const std::string name = b.svc.name(), sockfile = b.svc.sockfile();
    ASSERT_TRUE(!others || allow_search(sockfile.substr(0, sockfile.rfind('/'))));
    b.block();
    std::vector<std::unique_ptr<RawClient>> waiting;
    for (size_t i = 0; i < total; i++) {
        waiting.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(connect_as(*waiting.back(), sockfile, uid_of(i)));
        if (i % DV_MAX_WAITING_PER_UID < 3)
            std::this_thread::sleep_for(5ms);  // arrival order is the order of accept
    }
    // Nobody is told to go ahead while the consumer is busy.
    EXPECT_EQ(waiting[0]->next_type(100), -1);
    RawClient extra;
    ASSERT_TRUE(connect_as(extra, sockfile, uid_of(0)));
    EXPECT_EQ(extra.next_type(), DV_DIRECTIVE_BUSY);
    EXPECT_TRUE(extra.closed_by_peer());
    if (others) {  // the whole queue is full: a uid with nobody waiting is refused too
        ASSERT_TRUE(connect_as(extra, sockfile, 69999));
        EXPECT_EQ(extra.next_type(), DV_DIRECTIVE_BUSY);
    }
    EXPECT_EQ(call_status(name, "x"), DV_STATUS_BUSY);

    // One waiting client leaves: there is room for one more of its uid again.
    waiting.back()->close_now();
    std::this_thread::sleep_for(50ms);
    RawClient fits;
    ASSERT_TRUE(connect_as(fits, sockfile, uid_of(total - 1)));
    EXPECT_EQ(fits.next_type(200), -1) << "queued, not refused";

    dv_pause(b.svc.handle());
    RawClient paused;
    ASSERT_TRUE(paused.connect_to(sockfile));
    EXPECT_EQ(paused.next_type(), DV_DIRECTIVE_PAUSED);
    EXPECT_TRUE(paused.closed_by_peer());
    EXPECT_EQ(call_status(name, "x"), DV_STATUS_PAUSED);
    dv_resume(b.svc.handle());

    // A refused peer is answered at once, whatever waits before it.
    dv_set_admit(b.svc.handle(), [](const char*, int pid, u_int32_t uid, u_int32_t, void*) {
        return static_cast<int>(pid != getpid() || uid != getuid());
    }, nullptr);
    RawClient refused;
    ASSERT_TRUE(refused.connect_to(sockfile));
    EXPECT_EQ(refused.next_type(), DV_DIRECTIVE_REJECT);
    EXPECT_TRUE(refused.closed_by_peer());
    EXPECT_EQ(call_status(name, "x"), DV_STATUS_REJECTED);
    dv_set_admit(b.svc.handle(), nullptr, nullptr);

    // The first three of the first uid and, with others, the first two of
    // the second stay and are served; the rest leave.
    std::vector<size_t> kept = {0, 1, 2};
    std::vector<std::string> order = {"block", "client0", "client1", "client2", "after"};
    if (others) {
        kept = {0, 1, 2, DV_MAX_WAITING_PER_UID, DV_MAX_WAITING_PER_UID + 1};
        const std::string a = "client" + std::to_string(kept[3]), b2 = "client" + std::to_string(kept[4]);
        order = {"block", "client0", a, "client1", b2, "client2", "after"};
    }
    for (size_t i = 0; i < waiting.size(); i++)
        if (std::find(kept.begin(), kept.end(), i) == kept.end())
            waiting[i]->close_now();
    fits.close_now();
    std::vector<std::thread> finishers;
    for (size_t i : kept)
        finishers.emplace_back([&, i] {
            RawClient& c = *waiting[i];
            ASSERT_EQ(c.next_type(10000), DV_DIRECTIVE_ACCEPT);
            int memfd = make_request_memfd("");
            c.send_directive(DV_DIRECTIVE_REQUEST, 0, "client" + std::to_string(i));
            c.send_fd(memfd);
            EXPECT_EQ(c.next_type(10000), DV_DIRECTIVE_REPLY);
            close(memfd);
        });
    release = true;
    for (auto& t : finishers)
        t.join();
    EXPECT_EQ(call_status(name, "after"), DV_STATUS_OK);
    std::lock_guard<std::mutex> g(order_lock);
    EXPECT_EQ(served, order);
}

// The statuses that need no full queue or admission check; a timeout below five seconds is
// raised to five. No outcome leaves a descriptor or mapping behind.
TEST(Client, StatusCodesTimeoutAndNothingLeftBehind)
{
    TempDir dir;
    int fds = settled_fd_count();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call_status("@" + dir.file("none.sock"), "x"), DV_STATUS_CONNECT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(call_status("@" + dir.file("none.sock"), std::string(257, 'c')), DV_STATUS_ARGUMENTS);
    EXPECT_EQ(call_status(std::string(65, 's'), "x"), DV_STATUS_ARGUMENTS);
    EXPECT_EQ(dv_ez_call(nullptr, "x", nullptr, 0, nullptr, nullptr, 5, -1), DV_STATUS_ARGUMENTS);
    // With no descriptor left for the memory file or the socket a call fails
    // with a status; with both it gets as far as connecting.
    for (int spare = 0; spare <= 2; spare++) {
        struct rlimit saved;
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
        const int top = open_fds().back();
        const struct rlimit tight = {static_cast<rlim_t>(top + 1 + spare), saved.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        std::vector<int> holes;  // free numbers below the highest, filled
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
            if (fd > top) {
                close(fd);
                break;
            }
            holes.push_back(fd);
        }
        const int status = call_status("@" + dir.file("none.sock"), "x");
        for (int fd : holes)
            close(fd);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
        EXPECT_EQ(status, spare < 2 ? DV_STATUS_SOCKET : DV_STATUS_CONNECT) << spare << " spare";
    }
    {
        BlockedService b;
        EXPECT_EQ(call_status(b.svc.name(), "hangup"), DV_STATUS_SOCKET);
        start = std::chrono::steady_clock::now();
        EXPECT_EQ(call_status(b.svc.name(), "block", 3), DV_STATUS_TIMEOUT);
        auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(waited, 4900ms);
        EXPECT_LT(waited, 6500ms);
    }
    expect_nothing_left(fds);
}

// Two running, the rest waiting: within what one uid may have in flight.
TEST(Client, OnePollerDrivesFiftyRequestsToTwoWorkers)
{
    constexpr int kRequests = 50;
    static_assert(kRequests <= 2 + DV_MAX_WAITING_PER_UID);
    TestService svc(echo_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
    int fds = settled_fd_count();
    dv_epoll* ep = dv_epoll_create();
    std::vector<dv_io*> ios;
    for (int i = 0; i < kRequests; i++) {
        ios.push_back(dv_io_create());
        dv_io_printf(ios[i], "request-%d", i);
        ios[i]->data = reinterpret_cast<void*>(static_cast<intptr_t>(i));
        ASSERT_EQ(dv_epoll_call(ep, svc.name().c_str(), ("cmd" + std::to_string(i)).c_str(), ios[i], -1), 0);
    }
    int done = 0;
    std::vector<bool> seen(kRequests, false);
    for (auto deadline = std::chrono::steady_clock::now() + 20s;
         done < kRequests && std::chrono::steady_clock::now() < deadline;) {
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
    EXPECT_EQ(done, kRequests);
    for (dv_io* io : ios)
        dv_io_free(io);
    dv_epoll_free(ep);
    expect_nothing_left(fds);
}

// Answers with the consumer's pid after a short piece of work, so that a
// kill under load often lands while a request is in hand.
void pid_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    usleep(2000);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%d", getpid());
    dv_reply(io);
    dv_io_free(io);
}

// A killed consumer is reported once at the next dispatch and replaced at
// its index; under load it costs at most the request it held.
TEST(Service, AKilledProcessConsumerIsRestartedAndServiceGoesOnUnderLoad)
{
    TestService svc(pid_exec, DV_PROCESS_MODE, 2);
    auto pid_call = [&] {
        auto r = raw_call(svc.sockfile(), "pid", "");
        return r ? std::stoi(*r) : -1;
    };
    auto restart_line = [&](int index, pid_t pid) {
        return "[Dovel] [WARN] [" + svc.name() + "] consumer-worker[" + std::to_string(index) +
               "].pid=" + std::to_string(pid) + " WIFSIGNALED=9, restart it.\n";
    };
    // With both consumers idle, dispatch goes round robin from index 1.
    pid_t pid1 = pid_call();
    ASSERT_GT(pid1, 0);
    pid_t pid0 = pid_call();
    ASSERT_GT(pid0, 0);
    ASSERT_NE(pid0, pid1);
    ASSERT_EQ(kill(pid0, SIGKILL), 0);
    std::this_thread::sleep_for(50ms);
    testing::internal::CaptureStderr();
    EXPECT_GT(pid_call(), 0);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), restart_line(0, pid0));

    const int fds_before = settled_fd_count();
    std::atomic<int> answered{0}, failed{0};
    testing::internal::CaptureStderr();
    std::vector<std::jthread> callers;  // asked to stop and joined however the test ends
    for (int i = 0; i < 6; i++)
        callers.emplace_back([&](std::stop_token stop) {
            while (!stop.stop_requested())
                (pid_call() > 0 ? answered : failed)++;
        });
    ASSERT_TRUE(eventually([&] { return answered >= 200; }, 10000));
    ASSERT_EQ(kill(pid1, SIGKILL), 0);
    std::this_thread::sleep_for(100ms);  // the victim's request fails, its successor runs
    const int answered_at_kill = answered;
    ASSERT_TRUE(eventually([&] { return answered >= answered_at_kill + 300; }, 20000)) << "stalled after the kill";
    callers.clear();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), restart_line(1, pid1));
    EXPECT_LE(failed.load(), 1);
    // Both consumers serve again, neither of them a killed one.
    std::set<pid_t> pids;
    for (int i = 0; i < 6; i++)
        pids.insert(pid_call());
    EXPECT_EQ(pids.size(), 2u);
    EXPECT_FALSE(pids.count(pid0) || pids.count(pid1) || pids.count(-1));
    // The dead consumer may have taken one hand-over with it whose client
    // descriptor was never echoed back; nothing beyond that stays open.
    EXPECT_LE(settled_fd_count(), fds_before + 1);
}

TEST(ClientDeathTest, MisuseAbortsWithItsLine)
{
    const std::string ep_cond = ": `epoll && (*(u_int32_t*) epoll == DV_EPOLL_MAGIC)'";
    const std::string io_cond = ": `io && (*(u_int32_t*) io == DV_IO_MAGIC)'";
    const struct {
        std::function<void()> run;
        std::string line;
    } cases[] = {
        {[] { dv_epoll_call(nullptr, "svc", "cmd", dv_io_create(), -1); },
         "@dv_epoll_call() cannot call incorrect dv_epoll (nil)" + ep_cond},
        {[] { dv_epoll_perform(nullptr, 0, nullptr); },
         "@dv_epoll_perform() cannot perform incorrect dv_epoll (nil)" + ep_cond},
        {[] { dv_epoll_cancel(nullptr, dv_io_create()); },
         "@dv_epoll_cancel() cannot cancel incorrect dv_epoll (nil)" + ep_cond},
        {[] { dv_epoll_free(nullptr); }, "@dv_epoll_free() cannot free incorrect dv_epoll (nil)" + ep_cond},
        {[] { dv_epoll_call(dv_epoll_create(), "svc", "cmd", nullptr, -1); },
         "@dv_epoll_call() cannot make incorrect dv_io (nil) request" + io_cond},
        {[] { dv_epoll_cancel(dv_epoll_create(), nullptr); },
         "@dv_epoll_cancel() cannot cancel incorrect dv_io (nil)" + io_cond},
        {[] { dv_ez_call("svc", "cmd", nullptr, 3, nullptr, nullptr, 5, -1); },
         "@dv_ez_call() data memory access violation with size (3): `data != NULL || (data == NULL && dsize == 0U)'"},
        {[] {
             void* not_null = &not_null;
             dv_ez_call("svc", "cmd", nullptr, 0, &not_null, nullptr, 5, -1);
         },
         "@dv_ez_call() recv memory access violation: `(recv == NULL || *recv == NULL)'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EXIT(c.run(), testing::KilledBySignal(SIGABRT), "^" + literal_regex("[ABORT] " + c.line) + "\n$");
    }
}

}  // namespace
