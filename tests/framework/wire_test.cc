// A live service in this process, driven by a hand-written client and by the
// real one: round trips in every worker mode, waiting clients and refusals,
// misbehaving clients, client statuses, a killed consumer; nothing left behind.
#include "support/suite.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string echoed(const std::string& name, const std::string& request)
{
    return name + "|" + request + "|" + std::to_string(getpid()) + "|0|0";
}

int status_of(const std::string& service, const std::string& command, unsigned timeout = 5)
{
    return dv_ez_call(service.c_str(), command.c_str(), "{}", 2, nullptr, nullptr, timeout, -1);
}

// Both clients get text, credentials and the extra descriptor through, many
// requests share one poller, and dv_stop ends the service promptly with no
// thread, child, descriptor or mapping left.
TEST(Wire, EveryModeServesBothClientsAndStopsLeavingNothing)
{
    ASSERT_EQ(getuid(), 0u);
    { TestService warm_up(echo_exec); }  // helper threads of the test process exist before the counts
    for (u_int32_t mode : {DV_PTHREAD_MODE | DV_STANDALONE, DV_PTHREAD_MODE, DV_PROCESS_MODE}) {
        SCOPED_TRACE(mode);
        const int fds = count_open_fds(), threads = thread_count();
        {
            TestService svc(echo_exec, mode, 3);
            EXPECT_EQ(std::filesystem::symlink_status(svc.sockfile()).permissions(), std::filesystem::perms::all);
            const std::string longest(255, 'n');
            EXPECT_EQ(raw_call(svc.sockfile(), longest, "{\"a\":1}"), echoed(longest, "{\"a\":1}"));
            int extra = make_request_memfd("");
            EXPECT_EQ(raw_call(svc.sockfile(), "with-fd", "", extra), echoed("with-fd", ""));
            EXPECT_EQ(call_socket(svc.sockfile(), "ez", "abc", nullptr, extra), echoed("ez", "abc"));
            EXPECT_EQ(read_fd_text(extra), "extra:with-fd\nextra:ez\n");
            close(extra);

            dv_epoll* ep = dv_epoll_create();
            std::vector<dv_io*> ios(40);
            for (size_t i = 0; i < ios.size(); i++) {
                ios[i] = dv_io_create();
                dv_io_printf(ios[i], "r%zu", i);
                ios[i]->data = ios[i];
                ASSERT_EQ(dv_epoll_call(ep, svc.name().c_str(), ("c" + std::to_string(i)).c_str(), ios[i], -1), 0);
            }
            std::set<dv_io*> done;
            for (auto end = Clock::now() + 20s; done.size() < ios.size() && Clock::now() < end;) {
                int status = -1;
                if (dv_io* io = dv_epoll_perform(ep, 1000, &status)) {
                    const size_t i = std::find(ios.begin(), ios.end(), io) - ios.begin();
                    EXPECT_EQ(status, DV_STATUS_OK);
                    EXPECT_EQ(std::string(static_cast<char*>(io->shared_data), io->shared_size),
                              echoed("c" + std::to_string(i), "r" + std::to_string(i)));
                    EXPECT_TRUE(done.insert(io).second);
                }
            }
            EXPECT_EQ(done.size(), ios.size());
            for (dv_io* io : ios)
                dv_io_free(io);
            dv_epoll_free(ep);

            RawClient idle;  // connected, said nothing: stop must not wait for it
            ASSERT_TRUE(idle.connect_to(svc.sockfile()));
            const auto start = Clock::now();
            svc.stop();
            EXPECT_LT(Clock::now() - start, 2s);
            EXPECT_TRUE(idle.closed_by_peer(1000));
            EXPECT_FALSE(file_exists(svc.sockfile()));
        }
        EXPECT_EQ(count_open_fds(), fds);
        EXPECT_EQ(thread_count(), threads);
        EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child process is left";
    }
}

// "block" holds its consumer until release; everything served is recorded
// in order.
std::mutex order_lock;
std::vector<std::string> served;
std::atomic<bool> release{false}, blocking{false};

void recording_exec(const char* name, dv_io* io, int fd)
{
    for (blocking = std::string(name) == "block"; blocking && !release;)
        std::this_thread::sleep_for(1ms);
    {
        std::lock_guard<std::mutex> g(order_lock);
        served.push_back(name);
    }
    echo_exec(name, io, fd);
}

std::vector<std::string> take_served()
{
    std::lock_guard<std::mutex> g(order_lock);
    return std::exchange(served, {});
}

// One consumer, and a first client that holds it until release.
struct BlockedService {
    BlockedService()
    {
        served.clear();
        release = blocking = false;
        blocker = std::thread([this] { raw_call(svc.sockfile(), "block", ""); });
        while (!blocking)
            std::this_thread::sleep_for(1ms);
    }
    ~BlockedService()
    {
        release = true;
        blocker.join();
    }
    TestService svc{recording_exec, DV_PTHREAD_MODE | DV_STANDALONE, 1};
    std::thread blocker;
};

// Connects as uid (this thread only; the service's threads keep theirs).
bool connect_as(RawClient& c, const std::string& sockfile, uid_t uid)
{
    if (syscall(SYS_setresuid, -1, uid, -1) != 0)
        return false;
    const bool connected = c.connect_to(sockfile);
    if (syscall(SYS_setresuid, -1, 0, -1) != 0)
        abort();
    return connected;
}

// With the only consumer busy: at most DV_MAX_WAITING_PER_UID wait per uid
// and DV_MAX_WAITING_CLIENTS in all, the next is told busy; paused and
// refused callers are answered at once; uids take turns, each in arrival order.
TEST(Wire, WaitingClientsAreServedInTurnsBoundedAndRefusedWhilePausedOrNotAdmitted)
{
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = std::max(rl.rlim_cur, std::min<rlim_t>(4096, rl.rlim_max));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
    auto uid_of = [](size_t i) { return static_cast<uid_t>(70000 + i / DV_MAX_WAITING_PER_UID); };
    BlockedService b;
    const std::string name = b.svc.name(), sockfile = b.svc.sockfile();
    ASSERT_TRUE(allow_search(sockfile.substr(0, sockfile.rfind('/'))));
    std::vector<std::unique_ptr<RawClient>> waiting;
    for (size_t i = 0; i < DV_MAX_WAITING_CLIENTS; i++) {
        if (i == DV_MAX_WAITING_PER_UID) {  // the first uid is full, the service is not
            RawClient one_more;
            ASSERT_TRUE(connect_as(one_more, sockfile, uid_of(0)));
            EXPECT_EQ(one_more.next_type(), DV_DIRECTIVE_BUSY);
        }
        waiting.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(connect_as(*waiting.back(), sockfile, uid_of(i)));
        if (i % DV_MAX_WAITING_PER_UID < 3)
            std::this_thread::sleep_for(5ms);  // arrival order is the order of accept
    }
    EXPECT_EQ(waiting[0]->next_type(100), -1) << "told to go ahead while the consumer is busy";
    const struct {
        const char* what;
        uid_t uid;
        std::function<void()> before, after;
        int directive, status;
    } refusals[] = {
        {"a new uid when all are full", 69999, nullptr, nullptr, DV_DIRECTIVE_BUSY, DV_STATUS_BUSY},
        {"paused", 0, [&] { dv_pause(b.svc.handle()); }, [&] { dv_resume(b.svc.handle()); }, DV_DIRECTIVE_PAUSED,
         DV_STATUS_PAUSED},
        {"not admitted", 0,
         [&] {
             dv_set_admit(b.svc.handle(), [](const char*, int pid, u_int32_t uid, u_int32_t, void*) {
                 return static_cast<int>(pid != getpid() || uid != getuid());
             }, nullptr);
         },
         [&] { dv_set_admit(b.svc.handle(), nullptr, nullptr); }, DV_DIRECTIVE_REJECT, DV_STATUS_REJECTED},
    };
    for (const auto& r : refusals) {
        SCOPED_TRACE(r.what);
        if (r.before)
            r.before();
        RawClient c;
        ASSERT_TRUE(connect_as(c, sockfile, r.uid));
        EXPECT_EQ(c.next_type(), r.directive);
        EXPECT_TRUE(c.closed_by_peer());
        EXPECT_EQ(status_of(name, "x"), r.status);
        if (r.after)
            r.after();
    }
    // One waiting client leaves: its uid has room for one more again.
    waiting.back()->close_now();
    std::this_thread::sleep_for(50ms);
    RawClient fits;
    ASSERT_TRUE(connect_as(fits, sockfile, uid_of(DV_MAX_WAITING_CLIENTS - 1)));
    EXPECT_EQ(fits.next_type(200), -1) << "queued, not refused";

    // The first three of the first uid and two of the second stay and are
    // served, taking turns; the rest leave.
    const size_t p = DV_MAX_WAITING_PER_UID;
    const std::vector<size_t> kept = {0, 1, 2, p, p + 1};
    const std::vector<std::string> order = {"block", "client0", "client" + std::to_string(p), "client1",
                                            "client" + std::to_string(p + 1), "client2", "after"};
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
    EXPECT_EQ(status_of(name, "after"), DV_STATUS_OK);
    EXPECT_EQ(take_served(), order);
}

using Act = std::function<void(RawClient&)>;

Act send(const std::string& bytes)
{
    return [bytes](RawClient& c) { c.send_bytes(bytes.data(), bytes.size()); };
}

// A request whose memory file (or, with extra, whose extra descriptor after
// a good memory file) is each of what make() returns, all in one message.
Act request_with(const std::function<std::vector<int>()>& make, bool extra = false, bool flagged = false)
{
    return [=](RawClient& c) {
        c.send_directive(DV_DIRECTIVE_REQUEST, extra || flagged ? DV_DIRECTIVE_FLAG_EXTRA_FD : 0, "cmd");
        if (extra) {
            int memfd = make_request_memfd("{}");
            c.send_fd(memfd);
            close(memfd);
        }
        std::vector<int> fds = make();
        char byte = 0;
        std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
        struct iovec iov = {&byte, 1};
        struct msghdr msg = {nullptr, 0, &iov, 1, control.data(), CMSG_LEN(fds.size() * sizeof(int)), 0};
        struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        *cmsg = {CMSG_LEN(fds.size() * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
        memcpy(CMSG_DATA(cmsg), fds.data(), fds.size() * sizeof(int));
        EXPECT_EQ(sendmsg(c.fd(), &msg, MSG_NOSIGNAL), 1);
        for (int fd : fds)
            close(fd);
    };
}

// Each is dropped without a handler call, within the 1 s a request may take
// when it leaves the service waiting, with every descriptor it made the
// service hold closed; the other consumer answers meanwhile.
TEST(Wire, MisbehavingClientsAreDroppedWithoutHarmingOthersOrLeaking)
{
    auto ro = [] { return std::vector<int>{open("/etc/passwd", O_RDONLY | O_CLOEXEC)}; };
    auto memfd = [] { return std::vector<int>{make_request_memfd("{}")}; };
    // A TCP connection to a listener that never accepts, its buffers full, set
    // to linger an hour: a plain close of it would wait that long.
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), small = 4096;
    struct sockaddr_in addr = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof(addr);
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    ASSERT_TRUE(bind(listener, reinterpret_cast<sockaddr*>(&addr), len) == 0 && listen(listener, 8) == 0 &&
                getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) == 0);
    auto lingering_tcp = [&] {
        int tcp = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setsockopt(tcp, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        EXPECT_EQ(connect(tcp, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        fcntl(tcp, F_SETFL, O_NONBLOCK);
        static const char chunk[4096] = {};
        for (int idle = 0; idle < 3; usleep(20000))
            for (idle++; write(tcp, chunk, sizeof(chunk)) > 0;)
                idle = 0;
        struct linger hour = {1, 3600};
        setsockopt(tcp, SOL_SOCKET, SO_LINGER, &hour, sizeof(hour));
        return std::vector<int>{tcp};
    };
    auto sealed = [](unsigned seals) {
        return [seals] {
            int fd = memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING);
            fcntl(fd, F_ADD_SEALS, seals);
            return std::vector<int>{fd};
        };
    };
    dv_directive request = {DV_DIRECTIVE_REQUEST, 0, {'c', 'm', 'd'}}, stop = {DV_DIRECTIVE_STOP, 0, {}};
    const std::string request_bytes(reinterpret_cast<char*>(&request), sizeof(request));
    enum Ends { WeHangUp, Dropped, DroppedAfterDeadline };
    const struct {
        const char* what;
        bool accepted;  // waits for the go-ahead first
        Act act;
        Ends ends;
    } cases[] = {
        {"hang up before being accepted", false, nullptr, WeHangUp},
        {"hang up after the accept", true, nullptr, WeHangUp},
        {"request, then hang up before the memory file", true, send(request_bytes), WeHangUp},
        {"accepted, then silent", true, nullptr, DroppedAfterDeadline},
        {"a short directive", true, send(std::string(100, '\x08')), Dropped},
        {"flagged extra descriptor that never comes", true, request_with(memfd, false, true), DroppedAfterDeadline},
        {"garbage directive", true, send(std::string(DV_DIRECTIVE_SIZE, '\xff')), Dropped},
        {"a type clients may not send", true, send(std::string(reinterpret_cast<char*>(&stop), sizeof(stop))),
         Dropped},
        {"request without a descriptor in the message", true, send(request_bytes + "x"), Dropped},
        {"a pipe as the memory file", true,
         request_with([] { int p[2] = {-1, -1}; (void)!pipe2(p, O_CLOEXEC); close(p[1]); return std::vector<int>{p[0]}; }),
         Dropped},
        {"a read-only file as the memory file", true, request_with(ro), Dropped},
        {"a memory file sealed against shrinking", true, request_with(sealed(F_SEAL_SHRINK)), Dropped},
        {"a memory file sealed against writes", true, request_with(sealed(F_SEAL_FUTURE_WRITE)), Dropped},
        {"an enormous memory file", true,
         request_with([=] { std::vector<int> fds = memfd(); (void)!ftruncate(fds[0], 1LL << 40); return fds; }), Dropped},
        {"two memory files in one message", true,
         request_with([=] { return std::vector<int>{memfd()[0], memfd()[0]}; }), Dropped},
        {"a lingering TCP socket as the extra descriptor", true, request_with(lingering_tcp, true), Dropped},
        {"a read-only extra descriptor", true, request_with(ro, true), Dropped},
    };
    TestService svc(recording_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
    ASSERT_TRUE(raw_call(svc.sockfile(), "warm-up", "").has_value());
    for (const auto& m : cases) {
        SCOPED_TRACE(m.what);
        take_served();
        const int before = settled_fd_count();
        {
            RawClient c;
            ASSERT_TRUE(c.connect_to(svc.sockfile()));
            ASSERT_TRUE(!m.accepted || c.next_type() == DV_DIRECTIVE_ACCEPT);
            const auto start = Clock::now();
            if (m.act)
                m.act(c);
            if (m.ends == DroppedAfterDeadline) {  // the other consumer serves meanwhile
                EXPECT_EQ(raw_call(svc.sockfile(), "good", "{}"), echoed("good", "{}"));
            }
            EXPECT_TRUE(m.ends == WeHangUp || c.closed_by_peer(3000));
            EXPECT_TRUE(m.ends != DroppedAfterDeadline || Clock::now() - start >= 900ms);
            EXPECT_LT(Clock::now() - start, 2500ms);
        }
        EXPECT_TRUE(eventually([&] { return count_open_fds() == before; })) << count_open_fds() << " vs " << before;
        EXPECT_EQ(take_served(), std::vector<std::string>(m.ends == DroppedAfterDeadline, "good"));
        for (int i = 0; i < 3; i++)
            ASSERT_EQ(raw_call(svc.sockfile(), "good", "{}"), echoed("good", "{}"));
    }
    close(listener);
}

// The statuses a lone caller can meet; a timeout below five seconds is
// raised to five. No outcome leaves a descriptor or mapping behind.
TEST(Wire, ClientStatusesAndNothingLeftBehind)
{
    TempDir dir;
    const std::string none = "@" + dir.file("none.sock");
    const int fds = settled_fd_count();
    EXPECT_EQ(status_of(std::string(65, 's'), "x"), DV_STATUS_ARGUMENTS);
    EXPECT_EQ(dv_ez_call(nullptr, "x", nullptr, 0, nullptr, nullptr, 5, -1), DV_STATUS_ARGUMENTS);
    // No descriptor left for the memory file or the socket: a status, no crash.
    for (int spare = 0; spare <= 2; spare++) {
        struct rlimit saved;
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
        const int top = open_fds().back();
        const struct rlimit tight = {static_cast<rlim_t>(top + 1 + spare), saved.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        std::vector<int> holes;
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
            if (fd > top) {
                close(fd);
                break;
            }
            holes.push_back(fd);
        }
        const int status = status_of(none, "x");
        for (int fd : holes)
            close(fd);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
        EXPECT_EQ(status, spare < 2 ? DV_STATUS_SOCKET : DV_STATUS_CONNECT) << spare << " spare";
    }
    {
        BlockedService b;
        const auto start = Clock::now();
        EXPECT_EQ(status_of(b.svc.name(), "waits", 3), DV_STATUS_TIMEOUT);
        EXPECT_GE(Clock::now() - start, 4900ms);
        EXPECT_LT(Clock::now() - start, 6500ms);
    }
    EXPECT_TRUE(eventually([&] { return count_open_fds() == fds; }));
}

void pid_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    usleep(2000);  // so that a kill under load often lands on a request in hand
    reply_text(io, std::to_string(getpid()));
}

// A killed consumer is reported once and replaced; under load it costs at
// most the request it held.
TEST(Wire, AKilledProcessConsumerIsReplacedAndServiceGoesOnUnderLoad)
{
    TestService svc(pid_exec, DV_PROCESS_MODE, 2);
    auto pid_call = [&] {
        auto r = raw_call(svc.sockfile(), "pid", "");
        return r ? std::stoi(*r) : -1;
    };
    std::set<pid_t> pids;
    for (int i = 0; i < 50 && pids.size() < 2; i++)
        pids.insert(pid_call());
    ASSERT_EQ(pids.size(), 2u);
    ASSERT_FALSE(pids.count(-1));
    const int fds = settled_fd_count();
    std::atomic<int> answered{0}, failed{0};
    testing::internal::CaptureStderr();
    std::vector<std::jthread> callers;
    for (int i = 0; i < 6; i++)
        callers.emplace_back([&](std::stop_token stop) {
            while (!stop.stop_requested())
                (pid_call() > 0 ? answered : failed)++;
        });
    for (pid_t victim : pids) {
        ASSERT_TRUE(eventually([&] { return answered >= 200; }, 10000));
        ASSERT_EQ(kill(victim, SIGKILL), 0);
        const int at_kill = answered;
        ASSERT_TRUE(eventually([&] { return answered >= at_kill + 300; }, 20000)) << "stalled after the kill";
        answered = 0;
    }
    callers.clear();
    const std::string err = testing::internal::GetCapturedStderr();
    for (pid_t victim : pids)
        EXPECT_NE(err.find("].pid=" + std::to_string(victim) + " WIFSIGNALED=9, restart it.\n"), std::string::npos)
            << err;
    EXPECT_LE(failed.load(), 2);
    std::set<pid_t> now;
    for (int i = 0; i < 50 && now.size() < 2; i++)
        now.insert(pid_call());
    EXPECT_EQ(now.size(), 2u);
    for (pid_t victim : pids)
        EXPECT_FALSE(now.count(victim) || now.count(-1));
    EXPECT_LE(settled_fd_count(), fds + 2);  // a dead consumer may take an unechoed hand-over with it
}

}  // namespace
