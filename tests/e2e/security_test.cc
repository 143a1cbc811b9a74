// What cannot be a row of a case file: attacks on the wire by users other
// than root, each followed by the app's own requests, answered at once and
// exactly; long requests in parallel, a spool entry swapped while sendmail
// runs.
#include "platform/paths.h"

#include "support/suite.h"

namespace {

using std::chrono::steady_clock;
const std::string kEcho = R"({"command":["/bin/echo","still here"]})";
const std::string kEchoReply =
    R"({"error_code":0,"handler":"exec_cli_handler","result":"still here\n","service":"VexProServer-vexprod"})" "\n";

double seconds_since(steady_clock::time_point t)
{
    return std::chrono::duration<double>(steady_clock::now() - t).count();
}

// A memory file the client seals against shrinking just after sending it,
// a little later each time, racing the daemon's look at its seals.
int seal_after_send(const DaemonProcess& d)
{
    for (const auto start = steady_clock::now(); seconds_since(start) < 1.5;) {
        RawClient c;
        if (!c.connect_to(d.command_socket()) || c.next_type(2000) != DV_DIRECTIVE_ACCEPT)
            continue;
        int memfd = memfd_create("req", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        (void)!write(memfd, "{}", 2);
        c.send_directive(DV_DIRECTIVE_REQUEST, 0, "test");
        c.send_fd(memfd);
        for (auto sent = steady_clock::now(); seconds_since(sent) * 1e6 < long(seconds_since(start) * 1e3) % 200;) {
        }
        fcntl(memfd, F_ADD_SEALS, F_SEAL_SHRINK);
        c.next_type(2000);
        close(memfd);
    }
    return 0;
}

// One hostile request, its memory file cut to nothing, grown far beyond any
// request and filled again until the daemon answers or hangs up. 0: not let
// in, 1: answered, 2: dropped.
int churned_request(const std::string& sockfile, int round)
{
    RawClient c;
    if (!c.connect_to(sockfile) || c.next_type(15000) != DV_DIRECTIVE_ACCEPT)
        return 0;
    // Mostly requests read and parsed that run nothing (wrong types).
    const bool runs = round % 10 == 0;
    const std::string text = runs ? R"({"command":["/bin/echo","x"]})" : R"({"offest":"0","length":16})";
    int memfd = make_request_memfd(text);
    bool sent = memfd >= 0 && c.send_directive(DV_DIRECTIVE_REQUEST, 0, runs ? "exec_cli" : "get_vpd_ext_area") &&
                c.send_fd(memfd);
    for (int k = 0; sent && k < 2000000; ++k) {
        const int step = (round + k) % 3;
        (void)!ftruncate(memfd, step == 1 ? off_t(1) << 32 : 0);
        if (step == 2)
            (void)!pwrite(memfd, text.data(), text.size(), 0);
        struct pollfd p = {c.fd(), POLLIN, 0};
        if (poll(&p, 1, 0) != 0)
            break;
    }
    close(memfd);
    return !sent ? 0 : c.next_type(1000) == DV_DIRECTIVE_REPLY ? 1 : 2;
}

// 30 connections to each service that are let in and then say nothing; a
// full backlog does not stop the flood.
int silent_connections(const DaemonProcess& d)
{
    for (const std::string& sockfile : {d.command_socket(), d.mail_socket()}) {
        struct sockaddr_un addr = {AF_UNIX, {}};
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sockfile.c_str());
        for (int i = 0; i < 30; i++)
            connect(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0), reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    }
    return 0;
}

// The share of one CPU the process used over the next second, in percent.
long cpu_percent(pid_t pid)
{
    auto ticks = [pid] {
        const std::string text = read_text_file("/proc/" + std::to_string(pid) + "/stat");
        long utime = 0, stime = 0;  // fields 14 and 15, after a name that may hold spaces
        sscanf(text.c_str() + text.rfind(')'), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &utime, &stime);
        return utime + stime;
    };
    const long before = ticks();
    sleep(1);
    return (ticks() - before) * 100 / sysconf(_SC_CLK_TCK);
}

TEST(HostileWire, NoAttackCrashesHangsOrStarvesTheDaemon)
{
    if (!can_switch_user())
        GTEST_SKIP() << "attacking as other users needs root";
    const struct {
        const char* what;
        int uids;  // attackers, each a uid of its own
        std::function<int(const DaemonProcess&)> act;  // made by each, which then holds what it made; 0: as planned
        bool app_calls;  // the app calls while the attack is being made, every reply exact
        rlim_t nofile;   // the daemon's descriptor limit, 0: as ours
        std::function<void(const DaemonProcess&)> meanwhile;  // while the attack stands
    } attacks[] = {
        {"seal after send", 1, seal_after_send, true, 0, nullptr},
        {"memory files that shrink or grow under a request", 1,
         [](const DaemonProcess& d) {
             int tally[3] = {0, 0, 0};
             for (int i = 0; i < 3000; ++i)
                 ++tally[churned_request(d.command_socket(), i)];
             return tally[0];  // every request let in
         },
         true, 0, nullptr},
        {"a connection flood at RLIMIT_NOFILE 1024, then a queue record", 40, silent_connections, false, 1024,
         [](const DaemonProcess& d) {
             EXPECT_LT(cpu_percent(d.pid()), 50);
             EXPECT_EQ(run_process({binary_dir() + "/sim/vexprod-notify-demo", "event", "1", "u", "ip", "n", "disk"})
                           .status, 0);
             EXPECT_TRUE(eventually([&] { return d.debug_log().find("] eventlog_handler fail") != std::string::npos; },
                                    10000)) << d.debug_log();
         }},
    };
    for (const auto& a : attacks) {
        SCOPED_TRACE(a.what);
        SimRoot root;
        root.grant_everyone();
        DaemonProcess d(root);
        ASSERT_TRUE(d.start()) << d.stderr_text();
        const struct rlimit limit = {a.nofile, a.nofile};  // as if it had found no more to raise it to
        ASSERT_TRUE(!a.nofile || prlimit(d.pid(), RLIMIT_NOFILE, &limit, nullptr) == 0);
        ASSERT_TRUE(allow_search(d.socket_dir()));
        // Each attacker reports once its attack stands, and holds it until release is closed.
        int ready[2], release[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
        std::fflush(stdout);  // the children must not print what we buffered
        std::vector<pid_t> attackers;
        for (int i = 0; i < a.uids; i++)
            attackers.push_back(start_as(a.uids == 1 ? kSpareUid : static_cast<uid_t>(70000 + i), kSpareGid, [&] {
                close(release[1]);
                signal(SIGPIPE, SIG_IGN);
                const int made = a.act(d);
                char byte = 0;
                (void)!write(ready[1], &byte, 1);
                (void)!read(release[0], &byte, 1);
                return made;
            }));
        close(ready[1]);
        close(release[0]);
        int standing = 0, served = 0, wrong = 0;
        for (const auto start = steady_clock::now(); standing < a.uids && seconds_since(start) < 90;) {
            struct pollfd p = {ready[0], POLLIN, 0};
            char byte;
            if (poll(&p, 1, a.app_calls ? 5 : 1000) == 1 && read(ready[0], &byte, 1) != 1)
                break;  // no attacker left to report
            else if (p.revents)
                standing++;
            else if (a.app_calls)  // a steady caller, not a flood of our own
                wrong += (d.call("test", "{}") != kTestReply) + (d.call("exec_cli", kEcho) != kEchoReply), served += 2;
        }
        EXPECT_EQ(standing, a.uids);
        EXPECT_EQ(wrong, 0) << "of " << served;
        EXPECT_TRUE(!a.app_calls || served > 0);
        if (a.meanwhile)
            a.meanwhile(d);
        close(release[1]);
        close(ready[0]);
        for (pid_t pid : attackers)
            EXPECT_EQ(wait_child(pid, 5000), 0);
        const auto start = steady_clock::now();
        EXPECT_EQ(d.call("test", "{}"), kTestReply);
        EXPECT_LT(seconds_since(start), 1.0);
        EXPECT_EQ(d.call("exec_cli", kEcho), kEchoReply);
        EXPECT_EQ(d.call_mail("test", "{}"), kMailTestReply);
        expect_clean_stop(d);
    }
}

// A fresh root and daemon for every test, everything granted to everyone,
// checked at its end, with every capture file gone.
class Security : public testing::Test {
protected:
    void SetUp() override
    {
        root_.grant_everyone();
        ASSERT_TRUE(start_daemon(daemon_, captures_)) << daemon_.stderr_text();
    }
    void TearDown() override
    {
        expect_clean_stop(daemon_);
        EXPECT_TRUE(std::filesystem::is_empty(captures_.path())) << "capture files left behind";
    }

    SimRoot root_;
    TempDir captures_;
    DaemonProcess daemon_{root_};
};

// Seven callers at once with the longest request taken, full of empty
// arrays: memory peaks far below what the parser once took and comes back.
TEST_F(Security, ParallelLongRequestsKeepMemoryBounded)
{
    auto rss_kib = [&] {
        const std::string status = read_text_file("/proc/" + std::to_string(daemon_.pid()) + "/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    };
    std::string request = "[";
    while (request.size() + 4 < (64 << 10))
        request += "[],";
    request += "[]]";
    const long idle = rss_kib();
    std::vector<std::future<std::string>> calls;
    for (int i = 0; i < 7; ++i)
        calls.push_back(std::async(std::launch::async, [&] { return daemon_.call("update_ip_ban_list", request); }));
    long peak = idle;
    const auto deadline = steady_clock::now() + std::chrono::seconds(20);
    for (auto& c : calls)
        while (c.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready && steady_clock::now() < deadline)
            peak = std::max(peak, rss_kib());
    for (auto& c : calls)
        EXPECT_EQ(c.get(), kParseError);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // (A sanitizer's daemon keeps freed memory in quarantine and shadow.)
    EXPECT_TRUE(eventually([&] { return rss_kib() <= idle + 2048; }, 2000)) << rss_kib() << " KiB, idle " << idle;
    EXPECT_LT(peak, 32 << 10) << "KiB";
#endif
}

// The spool is everybody's: an entry swapped while sendmail runs is not
// what the mail used, and must not end up in our log directory.
TEST_F(Security, ASpoolEntrySwappedDuringTheSendGoesBackToTheSpool)
{
    root_.write_file("/tmp/vexpro_sendmail/mail.conf", "CONF\n");
    root_.write_file("/tmp/vexpro_sendmail/mail.txt", "Subject: hi\n\nbody\n");
    root_.write_file("/tmp/victim", "precious\n");
    root_.set_delay_ms(PATH_SENDMAIL, 800);
    auto reply = std::async(std::launch::async, [&] {
        return daemon_.call_mail("sendmail", R"({"user":"","pwd":"","config_file":"mail.conf","content_file":"mail.txt"})");
    });
    ASSERT_TRUE(eventually([&] { return !root_.calls(PATH_SENDMAIL).empty(); }, 5000));
    const std::string entry = root_.abs("/tmp/vexpro_sendmail/mail.txt");
    ASSERT_EQ(unlink(entry.c_str()), 0);
    ASSERT_EQ(symlink(root_.abs("/tmp/victim").c_str(), entry.c_str()), 0);
    EXPECT_EQ(reply.get(), kOk);
    EXPECT_EQ(root_.calls(PATH_SENDMAIL)[0].input, "Subject: hi\n\nbody\n");
    EXPECT_TRUE(std::filesystem::is_symlink(entry));
    EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.conf"), "CONF\n");
    EXPECT_FALSE(root_.exists("/tmp/.vexpro_log/sendmail.content"));
    EXPECT_EQ(root_.read_file("/tmp/victim"), "precious\n");
    EXPECT_NE(daemon_.debug_log().find(
                  "] /tmp/vexpro_sendmail/mail.txt changed while the mail was sent; left in the spool.\n"),
              std::string::npos);
}

}  // namespace
