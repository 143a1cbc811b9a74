// What cannot be a row of a case file: callers that go silent, memory files
// that change under a request, long requests in parallel, a spool entry
// swapped while sendmail runs, queues planted before the daemon starts.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>

#include "dv.h"
#include "platform/paths.h"
#include "support/daemon_process.h"
#include "support/raw_client.h"

namespace {

using std::chrono::steady_clock;
const std::string kTestReply = R"({"handler":"test_handler","service":"VexProServer-vexprod"})" "\n";
const std::string kEcho = R"({"command":["/bin/echo","still here"]})";
const std::string kEchoReply =
    R"({"error_code":0,"handler":"exec_cli_handler","result":"still here\n","service":"VexProServer-vexprod"})" "\n";

class Security : public DaemonPerTest {
protected:
    void SetUp() override
    {
        DaemonPerTest::SetUp();
        ASSERT_TRUE(allow_search(daemon_.socket_dir()));
        root_.grant_everyone();
        ASSERT_TRUE(reload_policy(root_, daemon_));
    }
    double seconds_since(steady_clock::time_point t) const
    {
        return std::chrono::duration<double>(steady_clock::now() - t).count();
    }
};

// A client that never sends its request holds a worker only until the
// request deadline (1 s); the command service has two workers.
TEST_F(Security, SilentClientsDoNotStopTheCommandService)
{
    RawClient silent, half;
    ASSERT_TRUE(silent.connect_to(daemon_.command_socket()) && half.connect_to(daemon_.command_socket()));
    ASSERT_EQ(silent.next_type(), DV_DIRECTIVE_ACCEPT);
    ASSERT_EQ(half.next_type(), DV_DIRECTIVE_ACCEPT);
    // One promises an extra descriptor that never comes.
    int memfd = make_request_memfd("{}");
    ASSERT_TRUE(half.send_directive(DV_DIRECTIVE_REQUEST, DV_DIRECTIVE_FLAG_EXTRA_FD, "test") && half.send_fd(memfd));
    close(memfd);
    auto start = steady_clock::now();
    EXPECT_EQ(daemon_.call("test", "{}", nullptr, -1, 30), kTestReply);
    EXPECT_LE(seconds_since(start), 2.0);
    EXPECT_TRUE(silent.closed_by_peer(1000) && half.closed_by_peer(1000));
    start = steady_clock::now();
    EXPECT_EQ(daemon_.call("test", "{}"), kTestReply);
    EXPECT_LT(seconds_since(start), 1.0);
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

TEST_F(Security, MemoryFilesThatShrinkOrGrowUnderARequestHarmNobodyElse)
{
    const std::string sockfile = daemon_.command_socket();
    std::fflush(stdout);  // the child must not print what we buffered
    const pid_t hostile = start_as(kSpareUid, kSpareGid, [&] {
        int tally[3] = {0, 0, 0};
        for (int i = 0; i < 3000; ++i)
            ++tally[churned_request(sockfile, i)];
        std::printf("3000 hostile requests: %d not let in, %d answered, %d dropped\n", tally[0], tally[1], tally[2]);
        std::fflush(stdout);
        return tally[0] == 0 ? 0 : 1;
    });
    ASSERT_GT(hostile, 0);
    int served = 0, wrong = 0, status = 0;
    while (waitpid(hostile, &status, WNOHANG) == 0) {
        wrong += daemon_.call("test", "{}") != kTestReply;
        wrong += daemon_.call("exec_cli", kEcho) != kEchoReply;
        served += 2;
        usleep(5000);  // a steady caller, not a flood of our own
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(wrong, 0) << "of " << served;
    EXPECT_GT(served, 0);
}

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

// The policy's queue senders may put records on both queues (group write);
// a policy others could have written names no senders.
TEST_F(Security, QueueSendersFollowThePolicy)
{
    auto modes = [] {
        std::string out;
        for (int key : {65521, 65522}) {
            struct msqid_ds ds = {};
            msgctl(msgget(key, 0), IPC_STAT, &ds);
            out += std::to_string(ds.msg_perm.mode & 0777) + ":" + std::to_string(ds.msg_perm.gid) + " ";
        }
        return out;
    };
    ASSERT_TRUE(reload_policy(root_, daemon_, root_.read_file(PATH_CALLER_POLICY) + "[queues]\nsenders = nogroup\n"));
    EXPECT_EQ(modes(), "400:65534 400:65534 ");  // 0620
    ASSERT_EQ(chmod(root_.abs(PATH_CALLER_POLICY).c_str(), 0666), 0);
    ASSERT_TRUE(reload_policy(root_, daemon_));
    const std::string own = "384:" + std::to_string(getegid()) + " ";  // 0600
    EXPECT_EQ(modes(), own + own);
}

// Queues planted at the daemon's keys before it starts are replaced: one
// plainly the spare user's, one handed to root so that it looks like ours
// while its maker keeps every right over it.
TEST(PlantedQueues, AreReplacedByQueuesOfTheDaemonsOwn)
{
    for (int key : {65521, 65522})
        ASSERT_EQ(msgget(key, 0), -1) << "a queue at key " << key << " exists already";
    auto planted = run_as(kSpareUid, kSpareGid, [] {
        const int plain = msgget(65521, IPC_CREAT | IPC_EXCL | 0666);
        int disguised = msgget(65522, IPC_CREAT | IPC_EXCL | 0666);
        struct msqid_ds ds;
        if (disguised != -1 && msgctl(disguised, IPC_STAT, &ds) == 0) {
            ds.msg_perm.uid = 0;
            disguised = msgctl(disguised, IPC_SET, &ds) == 0 ? disguised : -2;  // -2: the kernel refused
        }
        return std::to_string(plain) + " " + std::to_string(disguised);
    });
    int plain = -1, disguised = -1;
    ASSERT_EQ(std::sscanf(planted.value_or("").c_str(), "%d %d", &plain, &disguised), 2);
    ASSERT_GE(plain, 0);
    SimRoot root;
    DaemonProcess daemon(root);
    ASSERT_TRUE(daemon.start()) << daemon.stderr_text();
    for (int key : {65521, 65522}) {
        struct msqid_ds ds = {};
        ASSERT_EQ(msgctl(msgget(key, 0), IPC_STAT, &ds), 0) << key;
        EXPECT_EQ(ds.msg_perm.uid + ds.msg_perm.cuid, 0u) << key;
        EXPECT_EQ(ds.msg_perm.mode & 0777, 0600u) << key;
    }
    EXPECT_NE(msgget(65521, 0), plain);
    const std::string log = daemon.debug_log();
    EXPECT_NE(log.find("] queue key:65521 belonged to uid 65534 (made by uid 65534): removed"), std::string::npos)
        << log;
    if (disguised >= 0) {
        EXPECT_NE(msgget(65522, 0), disguised);
        EXPECT_NE(log.find("] queue key:65522 belonged to uid 0 (made by uid 65534): removed"), std::string::npos);
    }
    auto sent = run_as(kSpareUid, kSpareGid, [] {
        struct {
            long type;
            char text[144];
        } msg = {1, {}};
        std::string results;
        for (int key : {65521, 65522}) {
            int id = msgget(key, 0);
            results += std::to_string(id == -1 ? -1 : msgsnd(id, &msg, sizeof(msg.text), IPC_NOWAIT));
            results += std::to_string(id == -1 ? -1 : msgrcv(id, &msg, sizeof(msg.text), 0, IPC_NOWAIT));
        }
        return results;
    });
    EXPECT_EQ(sent.value_or("?"), "-1-1-1-1");
    expect_clean_stop(daemon);
    EXPECT_EQ(msgget(65521, 0) + msgget(65522, 0), -2);
}

}  // namespace
