// Attacks on the wire, each made by users other than root against the daemon
// program on a simulated root: a memory file sealed under the daemon, a
// lingering TCP socket as the extra descriptor, silent connections, and a
// connection flood at the descriptor limit with a queue record behind it.
// After each the daemon answers at once, serves the app's request exactly
// and stops on SIGTERM.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "dv.h"
#include "support/daemon_process.h"
#include "support/config.h"
#include "support/fds.h"
#include "support/other_user.h"
#include "support/process.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/sim_root.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kTestReply = R"({"handler":"test_handler","service":"VexProServer-vexprod"})" "\n";
const std::string kMailTestReply =
    R"({"handler":"nox_test_sendmail_srv_handler","service":"VexProServer_send_mail-vexprod"})" "\n";
const std::string kAppRequest = R"({"command":["/bin/echo","still here"]})";
const std::string kAppReply =
    R"({"error_code":0,"handler":"exec_cli_handler","result":"still here\n","service":"VexProServer-vexprod"})" "\n";

long long ms_since(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A request whose memory file the client seals against shrinking just after
// it is sent, a little later each time, racing the daemon's look at its seals.
void seal_after_send(const DaemonProcess& d)
{
    const auto start = Clock::now();
    for (int round = 0; ms_since(start) < 1500; round++) {
        RawClient c;
        if (!c.connect_to(d.command_socket()) || c.next_type(2000) != DV_DIRECTIVE_ACCEPT)
            continue;
        int memfd = memfd_create("req", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        (void)!write(memfd, "{}", 2);
        c.send_directive(DV_DIRECTIVE_REQUEST, 0, "test");
        c.send_fd(memfd);
        for (auto sent = Clock::now(); Clock::now() - sent < std::chrono::microseconds(round % 200);) {
        }
        fcntl(memfd, F_ADD_SEALS, F_SEAL_SHRINK);
        c.next_type(2000);
        close(memfd);
    }
}

// A TCP connection to a listener that never accepts, its buffers full, set to
// linger an hour on close: passed as the extra descriptor and let go of, so
// that the daemon's close would be the one to wait.
void lingering_tcp_extra_fd(const DaemonProcess& d)
{
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int small = 4096;
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(listener, 8) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        return;
    for (int i = 0; i < 3; i++) {  // more than the command service has workers
        int tcp = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setsockopt(tcp, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        if (connect(tcp, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
            return;
        fcntl(tcp, F_SETFL, O_NONBLOCK);
        // Written until the peer's window and our buffer stay full.
        static const char chunk[4096] = {};
        for (int idle = 0; idle < 3; usleep(20000)) {
            bool took = false;
            while (write(tcp, chunk, sizeof(chunk)) > 0)
                took = true;
            idle = took ? 0 : idle + 1;
        }
        struct linger hour = {1, 3600};
        setsockopt(tcp, SOL_SOCKET, SO_LINGER, &hour, sizeof(hour));
        RawClient c;
        int memfd = make_request_memfd("{}");
        if (c.connect_to(d.command_socket()) && c.next_type(2000) == DV_DIRECTIVE_ACCEPT) {
            c.send_directive(DV_DIRECTIVE_REQUEST, DV_DIRECTIVE_FLAG_EXTRA_FD, "test");
            c.send_fd(memfd);
            c.send_fd(tcp);
        }
        close(tcp);
        close(memfd);
        c.next_type(2000);
    }
    // The listener stays until the test lets us go: closing it would reset
    // the connections and free the daemon by itself.
}

// Connections that are let in and then say nothing.
std::function<void(const DaemonProcess&)> connections(int n, bool both_services)
{
    return [n, both_services](const DaemonProcess& d) {
        for (const std::string* sockfile : {&d.command_socket(), &d.mail_socket()}) {
            if (sockfile == &d.mail_socket() && !both_services)
                break;
            struct sockaddr_un addr = {};
            addr.sun_family = AF_UNIX;
            snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sockfile->c_str());
            // Not waiting when the backlog is full: the flood goes on.
            for (int i = 0; i < n; i++)
                connect(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0), reinterpret_cast<sockaddr*>(&addr),
                        sizeof(addr));
        }
    };
}

// The share of one CPU the process used over the next second, in percent.
long cpu_percent(pid_t pid)
{
    auto ticks = [pid] {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        long utime = 0, stime = 0;  // fields 14 and 15; the name before them may hold spaces
        sscanf(text.c_str() + text.rfind(')'), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &utime, &stime);
        return utime + stime;
    };
    long before = ticks();
    sleep(1);
    return (ticks() - before) * 100 / sysconf(_SC_CLK_TCK);
}

TEST(HostileWire, NoAttackCrashesHangsOrStarvesTheDaemon)
{
    if (!can_switch_user())
        GTEST_SKIP() << "attacking as other users needs root; this test runs as uid " << geteuid();
    struct Attack {
        const char* what;
        int uids;                                      // attackers, each a uid of its own
        std::function<void(const DaemonProcess&)> act; // made by each, which then holds what it made
        rlim_t nofile;                                 // the daemon's descriptor limit, 0: as ours
        std::function<void(const DaemonProcess&)> meanwhile;
    };
    const Attack attacks[] = {
        {"seal after send", 1, seal_after_send, 0, nullptr},
        {"lingering TCP extra descriptor", 1, lingering_tcp_extra_fd, 0, nullptr},
        {"20 silent connections", 1, connections(20, false), 0,
         [](const DaemonProcess& d) {
             auto start = Clock::now();
             EXPECT_EQ(d.call("test", "{}"), kTestReply);
             std::printf("  another uid served after %lld ms\n", ms_since(start));
             EXPECT_LT(ms_since(start), 2000);
         }},
        {"connection flood at RLIMIT_NOFILE 1024, then a queue record", 40, connections(30, true), 1024,
         [](const DaemonProcess& d) {
             const long cpu = cpu_percent(d.pid());
             std::printf("  daemon CPU during the flood: %ld%%, holding %d descriptors\n", cpu,
                         count_open_fds_of(d.pid()));
             EXPECT_LT(cpu, 50);
             EXPECT_EQ(run_process({binary_dir() + "/sim/vexprod-notify-demo", "event", "1", "u", "ip", "n", "disk"})
                           .status,
                       0);
             EXPECT_TRUE(eventually([&] { return d.debug_log().find("] eventlog_handler fail") != std::string::npos; },
                                    10000))
                 << d.debug_log();
         }},
    };
    for (const Attack& a : attacks) {
        SCOPED_TRACE(a.what);
        std::printf("%s\n", a.what);
        SimRoot root;
        root.grant_everyone();
        DaemonProcess d(root);
        ASSERT_TRUE(d.start()) << d.stderr_text();
        if (a.nofile) {  // as if it had found no more to raise its limit to
            const struct rlimit limit = {a.nofile, a.nofile};
            ASSERT_EQ(prlimit(d.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
        }
        ASSERT_TRUE(allow_search(d.socket_dir()));

        // Each attacker reports once its attack stands and holds it until
        // the release end is closed.
        int ready[2], release[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
        std::fflush(stdout);
        std::vector<pid_t> attackers;
        for (int i = 0; i < a.uids; i++) {
            const uid_t uid = a.uids == 1 ? kSpareUid : static_cast<uid_t>(70000 + i);
            attackers.push_back(start_as(uid, kSpareGid, [&] {
                close(release[1]);
                signal(SIGPIPE, SIG_IGN);
                a.act(d);
                char byte = 0, none;
                (void)!write(ready[1], &byte, 1);
                (void)!read(release[0], &none, 1);
                return 0;
            }));
        }
        close(ready[1]);
        close(release[0]);
        for (int i = 0; i < a.uids; i++) {
            struct pollfd p = {ready[0], POLLIN, 0};
            char byte;
            EXPECT_TRUE(poll(&p, 1, 20000) == 1 && read(ready[0], &byte, 1) == 1) << "attacker " << i;
        }
        if (a.meanwhile)
            a.meanwhile(d);
        close(release[1]);
        close(ready[0]);
        for (pid_t pid : attackers)
            EXPECT_EQ(wait_child(pid, 5000), 0);

        auto start = Clock::now();
        EXPECT_EQ(d.call("test", "{}"), kTestReply);
        const long long answered = ms_since(start);
        EXPECT_LT(answered, 1000);
        EXPECT_EQ(d.call("exec_cli", kAppRequest), kAppReply);
        int status = -1;
        EXPECT_EQ(d.call_mail("test", "{}", &status), kMailTestReply);
        start = Clock::now();
        EXPECT_EQ(d.stop(SIGTERM, 5000), 0);
        const long long stopped = ms_since(start);
        std::printf("  then: test answered in %lld ms, SIGTERM stopped it in %lld ms\n", answered, stopped);
        EXPECT_EQ(d.stderr_text(), "");
    }
}

}  // namespace
