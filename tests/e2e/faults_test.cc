// Faults around the daemon program: callers that die at any step, descriptor
// messages that carry too much, a stop while many callers are busy, the
// notification service missing, and the debug log's disk full or gone. In
// each case the daemon keeps serving (or stops cleanly), loses nothing it
// should keep and holds no descriptor it should not.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon/json.h"
#include "daemon/queue_consumers.h"
#include "support/daemon_suite.h"
#include "support/env.h"
#include "support/fds.h"
#include "support/files.h"
#include "support/raw_client.h"

namespace {

using namespace std::chrono_literals;

const char kTestReply[] = "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n";

// Back to the descriptors it held before, and both consumers answer.
void expect_recovered(const DaemonProcess& d, int baseline)
{
    EXPECT_TRUE(eventually([&] { return count_open_fds_of(d.pid()) == baseline; }, 5000))
        << count_open_fds_of(d.pid()) << " open, " << baseline << " before";
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(call_socket(d.command_socket(), "test", "{}"), kTestReply) << "call " << i;
}

// Each test's own daemon; it must stop with status 0 and nothing on stderr.
class Faults : public DaemonPerTest {};

// A caller in a process of its own that goes as far as `steps` takes it,
// says so, and waits to be killed.
pid_t spawn_caller(const std::string& sockfile, const std::function<void(RawClient&)>& steps)
{
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        RawClient c;
        if (c.connect_to(sockfile))
            steps(c);
        (void)!write(ready[1], "r", 1);
        for (;;)
            pause();
    }
    close(ready[1]);
    struct pollfd p = {ready[0], POLLIN, 0};
    bool ok = poll(&p, 1, 10000) == 1;
    close(ready[0]);
    if (!ok && pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

void kill_and_reap(pid_t pid)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// A caller killed at each step of the handshake, while it waits for a
// consumer, and while its handler runs.
TEST_F(Faults, ACallerKilledAtAnyStepLeavesTheDaemonServingAndHoldingNothing)
{
    const std::string sock = daemon_.command_socket();
    const int baseline = settled_fd_count(daemon_.pid());
    const std::string half(100, '\x08');
    const std::pair<const char*, std::function<void(RawClient&)>> steps[] = {
        {"connected, not yet accepted", [](RawClient&) {}},
        {"accepted", [](RawClient& c) { c.next_type(10000); }},
        {"half a request directive", [&](RawClient& c) {
             c.next_type(10000);
             c.send_bytes(half.data(), half.size());
         }},
        {"request directive without its memory file", [](RawClient& c) {
             c.next_type(10000);
             c.send_directive(DV_DIRECTIVE_REQUEST, 0, "test");
         }},
        {"extra descriptor announced, never sent", [](RawClient& c) {
             c.next_type(10000);
             c.send_directive(DV_DIRECTIVE_REQUEST, DV_DIRECTIVE_FLAG_EXTRA_FD, "test");
             int memfd = make_request_memfd("{}");
             c.send_fd(memfd);
             close(memfd);
         }},
    };
    for (const auto& [what, step] : steps) {
        SCOPED_TRACE(what);
        pid_t caller = spawn_caller(sock, step);
        ASSERT_GT(caller, 0);
        kill_and_reap(caller);
        expect_recovered(daemon_, baseline);
    }
    {
        SCOPED_TRACE("waiting in the queue behind two busy consumers");
        root_.set_delay_ms("/sbin/hwd_app", 1500);
        std::atomic<int> answered{0};
        std::vector<std::jthread> busy;  // joined however the scope is left
        for (int i = 0; i < 2; i++)
            busy.emplace_back([&] {
                int status = -1;
                call_socket(sock, "get_vpd_productnamed", "{}", &status);
                answered += status == DV_STATUS_OK;
            });
        ASSERT_TRUE(eventually([&] { return root_.calls("/sbin/hwd_app").size() == 2; }, 5000));
        pid_t caller = spawn_caller(sock, [](RawClient&) {});
        ASSERT_GT(caller, 0);
        kill_and_reap(caller);
        busy.clear();
        EXPECT_EQ(answered.load(), 2);
        expect_recovered(daemon_, baseline);
    }
    {
        SCOPED_TRACE("while its handler runs");
        root_.clear_calls();
        root_.set_delay_ms("/sbin/hwd_app", 700);
        pid_t caller = spawn_caller(sock, [](RawClient& c) {
            if (c.next_type(10000) != DV_DIRECTIVE_ACCEPT ||
                !c.send_directive(DV_DIRECTIVE_REQUEST, 0, "get_vpd_productnamed"))
                return;
            int memfd = make_request_memfd("{}");
            c.send_fd(memfd);
            close(memfd);
        });
        ASSERT_GT(caller, 0);
        ASSERT_TRUE(eventually([&] { return root_.calls("/sbin/hwd_app").size() == 1; }, 5000));
        kill_and_reap(caller);
        // The handler finishes, finds its caller gone and drops the reply.
        expect_recovered(daemon_, baseline);
    }
}

// Two descriptors fit the daemon's control buffer exactly; more arrive
// truncated (MSG_CTRUNC), the rest closed by the kernel on the way.
TEST_F(Faults, ADescriptorMessageCarryingSeveralDropsTheCallerAndClosesEveryOne)
{
    const int baseline = settled_fd_count(daemon_.pid());
    const struct {
        bool as_extra;  // in place of the extra descriptor (after a good memory file)
        size_t count;
    } cases[] = {{false, 2}, {false, 64}, {true, 2}, {true, 16}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.count) + (c.as_extra ? " as the extra descriptor" : " as the memory file"));
        // Write ends of pipes whose read ends we keep: a read end reaches
        // end-of-file only once every copy of its write end is closed.
        std::vector<int> readers, writers;
        for (size_t i = 0; i < c.count; i++) {
            int p[2];
            ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
            readers.push_back(p[0]);
            writers.push_back(p[1]);
        }
        RawClient client;
        ASSERT_TRUE(client.connect_to(daemon_.command_socket()));
        ASSERT_EQ(client.next_type(), DV_DIRECTIVE_ACCEPT);
        ASSERT_TRUE(client.send_directive(DV_DIRECTIVE_REQUEST, c.as_extra ? DV_DIRECTIVE_FLAG_EXTRA_FD : 0, "test"));
        if (c.as_extra) {
            int memfd = make_request_memfd("{}");
            ASSERT_TRUE(client.send_fd(memfd));
            close(memfd);
        }
        // One data byte with all the descriptors attached.
        char byte = 0;
        struct iovec iov = {&byte, 1};
        std::vector<char> control(CMSG_SPACE(c.count * sizeof(int)));
        struct msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control.data();
        msg.msg_controllen = CMSG_LEN(c.count * sizeof(int));
        struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_len = CMSG_LEN(c.count * sizeof(int));
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        memcpy(CMSG_DATA(cmsg), writers.data(), c.count * sizeof(int));
        ASSERT_EQ(sendmsg(client.fd(), &msg, MSG_NOSIGNAL), 1);
        for (int w : writers)
            close(w);

        EXPECT_TRUE(client.closed_by_peer()) << "the caller was not dropped";
        for (size_t i = 0; i < readers.size(); i++) {
            struct pollfd p = {readers[i], POLLIN, 0};
            char ch;
            EXPECT_TRUE(poll(&p, 1, 3000) == 1 && read(readers[i], &ch, 1) == 0) << "descriptor " << i << " still open";
            close(readers[i]);
        }
        expect_recovered(daemon_, baseline);
    }
}

// Live processes running a program of the simulated root.
std::vector<std::string> leftovers(const SimRoot& root)
{
    std::vector<std::string> out;
    std::error_code ec, unreadable;
    for (auto it = std::filesystem::directory_iterator("/proc", ec); !ec && it != decltype(it)(); it.increment(ec))
        if (std::filesystem::read_symlink(it->path() / "exe", unreadable).string().rfind(root.path() + "/", 0) == 0)
            out.push_back(it->path().string());
    return out;
}

// Half the callers rewrite the ban list, each with addresses of its own
// (lists of different lengths, so a torn or cut-short file cannot pass for
// any caller's list); the other half each keep one reverse-proxy rule file.
TEST_F(Faults, SigtermWhileSixtyFourCallersAreBusyStopsCleanlyWithinFiveSeconds)
{
    const std::string sock = daemon_.command_socket();
    auto ban_list_of = [](int caller, bool as_file) {
        std::string text;
        for (int n = 0; n <= caller % 5; n++) {
            const std::string address = "10." + std::to_string(100 + caller) + ".0." + std::to_string(n + 1);
            text += as_file ? "deny from " + address + "\n" : (text.empty() ? "" : ",") + address;
        }
        return as_file ? "<LocationMatch \"/.*\">\norder allow,deny\n" + text + "allow from all\n</LocationMatch>\n"
                       : "{\"ip_list\":\"" + text + "\"}";
    };
    auto rule_of = [](int caller) {
        return "{\"action\":\"add\",\"rule_list\":[{\"GUID\":\"rule" + std::to_string(caller) +
               "\",\"port\":9443,\"des_port\":80,\"protocol\":\"https\",\"des_protocol\":\"http\",\"hsts\":false,"
               "\"host_name\":\"camera1\"}]}";
    };
    // The text one rule file must have, from a call before the load.
    Json::Value first;
    ASSERT_TRUE(json_parse(call_socket(sock, "reverse_proxy", rule_of(99)), first));
    ASSERT_EQ(first["result"], 0);
    const std::string rule_text = root_.read_file("/etc/reverseproxy_vexpro/extra/rule99.conf");
    ASSERT_FALSE(rule_text.empty());

    constexpr int kCallers = 64;
    std::atomic<int> answered{0};
    std::vector<std::jthread> callers;  // asked to stop and joined however the test ends
    for (int i = 0; i < kCallers; i++)
        callers.emplace_back([&, i](std::stop_token stop) {
            while (!stop.stop_requested()) {
                int status = -1;
                if (i % 2)
                    call_socket(sock, "reverse_proxy", rule_of(i), &status);
                else
                    call_socket(sock, "update_ip_ban_list", ban_list_of(i, false), &status);
                if (status == DV_STATUS_OK)
                    answered++;
                else
                    std::this_thread::sleep_for(20ms);  // refused: the daemon is going; no busy loop
            }
        });
    ASSERT_TRUE(eventually([&] { return answered.load() >= kCallers; }, 30000)) << answered.load();

    const pid_t pid = daemon_.pid();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon_.stop(SIGTERM, 5000), 0);
    auto took = std::chrono::steady_clock::now() - start;
    callers.clear();
    EXPECT_LT(took, 5s);
    printf("faults: stopped %lld ms after SIGTERM, %d calls answered before\n",
           static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()),
           answered.load());
    EXPECT_FALSE(file_exists("/proc/" + std::to_string(pid)));
    EXPECT_EQ(leftovers(root_), std::vector<std::string>{});

    // Each file is whole: exactly what one caller asked for.
    std::set<std::string> lists;
    for (int i = 0; i < kCallers; i += 2)
        lists.insert(ban_list_of(i, true));
    const std::string ban_list = root_.read_file("/etc/default_config/apache/extra/vexcms_ip_ban_list.conf");
    EXPECT_EQ(lists.count(ban_list), 1u) << ban_list;
    for (int i = 1; i < kCallers; i += 2) {
        const std::string rule = "/etc/reverseproxy_vexpro/extra/rule" + std::to_string(i) + ".conf";
        if (root_.exists(rule)) {
            EXPECT_EQ(root_.read_file(rule), rule_text) << rule;
        }
    }
}

// One record of NOTIFY_MSG_SIZE or EVENTLOG_MSG_SIZE bytes on a queue the
// daemon made, with text at the given offset of the record.
void send_record(int key, long type, size_t size, size_t at, const char* text)
{
    int id = msgget(key, 0);
    ASSERT_GE(id, 0) << "no queue at " << key;
    std::vector<char> msg(sizeof(long) + size, 0);
    memcpy(msg.data(), &type, sizeof(long));
    if (key == NOTIFY_MSGQ_KEY) {
        const int32_t fields[3] = {1, 2, 1};
        memcpy(msg.data() + sizeof(long), fields, sizeof(fields));
    }
    strcpy(msg.data() + sizeof(long) + at - MSGQ_TYPE_SIZE, text);
    ASSERT_EQ(msgsnd(id, msg.data(), size, IPC_NOWAIT), 0) << strerror(errno);
}

void notify_record(const char* info)
{
    send_record(NOTIFY_MSGQ_KEY, 1, NOTIFY_MSG_SIZE, notify_layout::kExtraInfo, info);
}

void event_record(const char* content)
{
    send_record(EVENTLOG_MSGQ_KEY, EVENTLOG_TYPE_SYSTEM, EVENTLOG_MSG_SIZE, EVENTLOG_SYSTEM_LAYOUT.content, content);
}

size_t count_of(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

std::mutex g_notified_mutex;
std::vector<std::string> g_notified;  // every request the stand-in service took: "name text"

void record_notification(const char* name, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    {
        std::lock_guard<std::mutex> lock(g_notified_mutex);
        g_notified.push_back(std::string(name) + " " + read_fd_text(io->memfd));
    }
    dv_io_realloc(io, 0);
    dv_io_printf(io, "{\"result\":0}\n");
    dv_reply(io);
    dv_io_free(io);
}

// The consumers print each notification on stderr, so this daemon is not
// held to a silent one.
TEST(FaultsOfTheNotificationService, RecordsArrivingWithoutItAreLoggedAndDropped)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    const int baseline = settled_fd_count(d.pid());
    for (int i = 0; i < 3; i++) {
        notify_record("camera 3 offline");
        event_record("disk 2 degraded");
    }
    ASSERT_TRUE(eventually(
        [&] {
            const std::string log = d.debug_log();
            return count_of(log, "[notify_handler][") == 3 && count_of(log, "[eventlog_handler][") == 3;
        },
        10000))
        << d.debug_log();
    EXPECT_EQ(count_of(d.debug_log(), "] eventlog_handler fail\n"), 6u);
    expect_recovered(d, baseline);

    // The service appears: the next records reach it, the dropped ones do not.
    dv_handle* service = nullptr;
    {
        ScopedEnv env("DV_SOCKET_DIR", d.socket_dir().c_str());
        service = dv_create(NOTIFY_SERVICE_NAME, DV_PTHREAD_MODE | DV_STANDALONE, 1, record_notification);
    }
    dv_start(service);
    ASSERT_EQ(dv_wait_started(service, 5000), 1);
    notify_record("camera 4 online");
    event_record("disk 2 rebuilt");
    auto notified = [] {
        std::lock_guard<std::mutex> lock(g_notified_mutex);
        return g_notified;
    };
    EXPECT_TRUE(eventually([&] { return notified().size() >= 2; }, 10000));
    dv_free(service);
    ASSERT_EQ(notified().size(), 2u);
    const std::string all = notified()[0] + notified()[1];
    for (const char* part : {"notify_event {", "camera 4 online", "notify_log {", "disk 2 rebuilt"})
        EXPECT_NE(all.find(part), std::string::npos) << part << "\n" << all;
    EXPECT_EQ(all.find("offline"), std::string::npos) << all;
    EXPECT_EQ(d.stop(), 0);
    // Only the framework's own line on a failed call would appear here.
    EXPECT_EQ(d.stderr_text().find("[ABORT]"), std::string::npos) << d.stderr_text();
}

TEST_F(Faults, ADebugLogOnAFullDiskOrRemovedLosesLinesSilently)
{
    const int baseline = settled_fd_count(daemon_.pid());
    const std::string log_file = root_.abs("/opt/VexProServer/.log/.dwe_dv_vexprod.log");
    // Requests that log: text that is not JSON, and a mistyped argument.
    auto load = [&] {
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(call_socket(daemon_.command_socket(), "get_vpd_ext_area", "{\"offest\":"), kParseError);
            EXPECT_EQ(call_socket(daemon_.command_socket(), "get_vpd_ext_area", "{\"offest\":\"1\",\"length\":2}"),
                      kParseError);
        }
        expect_recovered(daemon_, baseline);
    };
    ASSERT_EQ(unlink(log_file.c_str()), 0);
    ASSERT_EQ(symlink("/dev/full", log_file.c_str()), 0);
    load();
    // Still the link: nothing moved it aside or replaced it.
    std::error_code ec;
    EXPECT_EQ(std::filesystem::read_symlink(log_file, ec), "/dev/full");

    root_.remove("/opt/VexProServer/.log");
    load();
    EXPECT_FALSE(file_exists(root_.abs("/opt/VexProServer/.log")));
}

}  // namespace
