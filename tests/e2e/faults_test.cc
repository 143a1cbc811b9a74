// Faults around the daemon program: callers that die at any step, descriptor
// messages that carry too much, a stop while many callers are busy, the
// notification service missing, and the debug log's disk full or gone. In
// each case the daemon keeps serving (or stops cleanly), loses nothing it
// should keep and holds no descriptor it should not.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon/json.h"
#include "daemon/queue_consumers.h"
#include "dv.h"
#include "support/daemon_process.h"
#include "support/env.h"
#include "support/files.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/fds.h"
#include "support/sim_root.h"

namespace {

using namespace std::chrono_literals;

const char kTestReply[] = "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n";
const char kLogFile[] = "/opt/VexProServer/.log/.dwe_dv_vexprod.log";

// Both consumers still answer, exactly.
void expect_serving(const DaemonProcess& d)
{
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(call_socket(d.command_socket(), "test", "{}"), kTestReply) << "call " << i;
}

// Sends one data byte with the given descriptors attached, however many.
bool send_fds(int sock, const std::vector<int>& fds)
{
    char byte = 0;
    struct iovec iov = {&byte, 1};
    std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
    struct msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.data();
    msg.msg_controllen = CMSG_LEN(fds.size() * sizeof(int));
    struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    memcpy(CMSG_DATA(cmsg), fds.data(), fds.size() * sizeof(int));
    return sendmsg(sock, &msg, MSG_NOSIGNAL) == 1;
}

// True when the pipe's write end is closed everywhere within timeout_ms.
bool reaches_eof(int read_end, int timeout_ms = 3000)
{
    struct pollfd p = {read_end, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1)
        return false;
    char c;
    return read(read_end, &c, 1) == 0;
}

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

void send_request(RawClient& c, const char* command, const char* json, uint8_t flags = 0)
{
    if (c.next_type(10000) != DV_DIRECTIVE_ACCEPT)
        return;
    c.send_directive(DV_DIRECTIVE_REQUEST, flags, command);
    int memfd = make_request_memfd(json);
    c.send_fd(memfd);
    close(memfd);
}

TEST(Faults, ACallerKilledAtAnyStepLeavesTheDaemonServingAndHoldingNothing)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    const std::string sock = d.command_socket();
    const int baseline = settled_fd_count(d.pid());

    struct Step {
        const char* what;
        std::function<void(RawClient&)> steps;
    };
    const std::string half(100, '\x08');
    const Step steps[] = {
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
        {"extra descriptor announced, never sent",
         [](RawClient& c) { send_request(c, "test", "{}", DV_DIRECTIVE_FLAG_EXTRA_FD); }},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        pid_t caller = spawn_caller(sock, step.steps);
        ASSERT_GT(caller, 0);
        kill_and_reap(caller);
        EXPECT_TRUE(eventually([&] { return count_open_fds_of(d.pid()) == baseline; }, 3000))
            << count_open_fds_of(d.pid()) << " open, " << baseline << " before";
        expect_serving(d);
    }

    {
        SCOPED_TRACE("waiting in the queue behind two busy consumers");
        root.set_delay_ms("/sbin/hwd_app", 1500);
        std::atomic<int> answered{0};
        std::vector<std::jthread> busy;  // joined however the scope is left
        for (int i = 0; i < 2; i++)
            busy.emplace_back([&] {
                int status = -1;
                call_socket(sock, "get_vpd_productnamed", "{}", &status);
                answered += status == DV_STATUS_OK;
            });
        ASSERT_TRUE(eventually([&] { return root.calls("/sbin/hwd_app").size() == 2; }, 5000));
        pid_t caller = spawn_caller(sock, [](RawClient&) {});
        ASSERT_GT(caller, 0);
        kill_and_reap(caller);
        busy.clear();
        EXPECT_EQ(answered.load(), 2);
        EXPECT_TRUE(eventually([&] { return count_open_fds_of(d.pid()) == baseline; }, 3000));
        expect_serving(d);
    }

    {
        SCOPED_TRACE("while its handler runs");
        root.clear_calls();
        root.set_delay_ms("/sbin/hwd_app", 700);
        pid_t caller = spawn_caller(sock, [](RawClient& c) { send_request(c, "get_vpd_productnamed", "{}"); });
        ASSERT_GT(caller, 0);
        ASSERT_TRUE(eventually([&] { return root.calls("/sbin/hwd_app").size() == 1; }, 5000));
        kill_and_reap(caller);
        // The handler finishes, finds its caller gone and drops the reply.
        EXPECT_TRUE(eventually([&] { return count_open_fds_of(d.pid()) == baseline; }, 5000))
            << count_open_fds_of(d.pid()) << " open, " << baseline << " before";
        expect_serving(d);
    }
    EXPECT_EQ(d.stop(), 0);
    EXPECT_EQ(d.stderr_text(), "");
}

TEST(Faults, ADescriptorMessageCarryingSeveralDropsTheCallerAndClosesEveryOne)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    const std::string sock = d.command_socket();
    const int baseline = settled_fd_count(d.pid());

    struct Case {
        const char* what;
        bool as_extra;  // in place of the extra descriptor (after a good memory file)
        size_t count;
    };
    // Two fit the daemon's control buffer exactly; three or more arrive
    // truncated (MSG_CTRUNC), the rest closed by the kernel on the way.
    const Case cases[] = {
        {"two in place of the memory file", false, 2},
        {"three in place of the memory file (truncated)", false, 3},
        {"sixty-four in place of the memory file (truncated)", false, 64},
        {"two in place of the extra descriptor", true, 2},
        {"sixteen in place of the extra descriptor (truncated)", true, 16},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // Write ends of pipes whose read ends we keep: a read end reaches
        // end-of-file only once every copy of its write end, ours and any
        // the daemon received, is closed.
        std::vector<int> readers, writers;
        for (size_t i = 0; i < c.count; i++) {
            int p[2];
            ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
            readers.push_back(p[0]);
            writers.push_back(p[1]);
        }
        RawClient client;
        ASSERT_TRUE(client.connect_to(sock));
        ASSERT_EQ(client.next_type(), DV_DIRECTIVE_ACCEPT);
        ASSERT_TRUE(client.send_directive(DV_DIRECTIVE_REQUEST, c.as_extra ? DV_DIRECTIVE_FLAG_EXTRA_FD : 0, "test"));
        if (c.as_extra) {
            int memfd = make_request_memfd("{}");
            ASSERT_TRUE(client.send_fd(memfd));
            close(memfd);
        }
        ASSERT_TRUE(send_fds(client.fd(), writers));
        for (int w : writers)
            close(w);
        EXPECT_TRUE(client.closed_by_peer()) << "the caller was not dropped";
        for (size_t i = 0; i < readers.size(); i++) {
            EXPECT_TRUE(reaches_eof(readers[i])) << "descriptor " << i << " of " << readers.size() << " still open";
            close(readers[i]);
        }
        EXPECT_TRUE(eventually([&] { return count_open_fds_of(d.pid()) == baseline; }, 3000));
        expect_serving(d);
    }
    EXPECT_EQ(d.stop(), 0);
    EXPECT_EQ(d.stderr_text(), "");
}

// Pids of live processes running a program of the simulated root, or whose
// parent is ppid.
std::vector<pid_t> leftovers(const SimRoot& root, pid_t ppid)
{
    std::vector<pid_t> out;
    DIR* dir = opendir("/proc");
    if (!dir)
        return out;
    while (const dirent* e = readdir(dir)) {
        if (e->d_name[0] < '1' || e->d_name[0] > '9')
            continue;
        const std::string proc = std::string("/proc/") + e->d_name;
        char exe[4096] = "";
        ssize_t n = readlink((proc + "/exe").c_str(), exe, sizeof(exe) - 1);
        bool ours = n > 0 && std::string(exe, n).rfind(root.path() + "/", 0) == 0;
        const std::string status = read_text_file(proc + "/status");
        size_t at = status.find("\nPPid:\t");
        bool child = at != std::string::npos && atoi(status.c_str() + at + 7) == ppid;
        if (ours || child)
            out.push_back(atoi(e->d_name));
    }
    closedir(dir);
    return out;
}

TEST(Faults, SigtermWhileSixtyFourCallersAreBusyStopsCleanlyWithinFiveSeconds)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    const std::string sock = d.command_socket();

    // Half the callers rewrite the ban list, each with its own addresses
    // (lists of different lengths, so a torn or cut-short file cannot pass
    // for any caller's list); the other half each keep one reverse-proxy
    // rule file of their own.
    auto addresses_of = [](int caller) {
        std::vector<std::string> out;
        for (int n = 0; n <= caller % 5; n++)
            out.push_back("10." + std::to_string(100 + caller) + ".0." + std::to_string(n + 1));
        return out;
    };
    auto ban_list_of = [&](int caller) {
        std::string list;
        for (const std::string& a : addresses_of(caller))
            list += (list.empty() ? "" : ",") + a;
        return list;
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
    const std::string rule_text = root.read_file("/etc/reverseproxy_vexpro/extra/rule99.conf");
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
                    call_socket(sock, "update_ip_ban_list", "{\"ip_list\":\"" + ban_list_of(i) + "\"}", &status);
                if (status == DV_STATUS_OK)
                    answered++;
                else
                    std::this_thread::sleep_for(20ms);  // refused: the daemon is going; no busy loop
            }
        });
    ASSERT_TRUE(eventually([&] { return answered.load() >= kCallers; }, 30000)) << answered.load();

    const pid_t pid = d.pid();
    auto start = std::chrono::steady_clock::now();
    int status = d.stop(SIGTERM, 5000);
    auto took = std::chrono::steady_clock::now() - start;
    callers.clear();
    EXPECT_EQ(status, 0);
    EXPECT_LT(took, 5s);
    printf("faults: stopped %lld ms after SIGTERM, %d calls answered before\n",
           static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()),
           answered.load());
    EXPECT_FALSE(file_exists("/proc/" + std::to_string(pid)));
    EXPECT_EQ(leftovers(root, pid), std::vector<pid_t>{});

    // Each file is whole: exactly what one caller asked for.
    std::set<std::string> lists;
    for (int i = 0; i < kCallers; i += 2) {
        std::string text = "<LocationMatch \"/.*\">\norder allow,deny\n";
        for (const std::string& a : addresses_of(i))
            text += "deny from " + a + "\n";
        lists.insert(text + "allow from all\n</LocationMatch>\n");
    }
    const std::string ban_list = root.read_file("/etc/default_config/apache/extra/vexcms_ip_ban_list.conf");
    EXPECT_EQ(lists.count(ban_list), 1u) << ban_list;
    for (int i = 1; i < kCallers; i += 2) {
        const std::string rule = "/etc/reverseproxy_vexpro/extra/rule" + std::to_string(i) + ".conf";
        if (root.exists(rule)) {
            EXPECT_EQ(root.read_file(rule), rule_text) << rule;
        }
    }
    EXPECT_EQ(d.stderr_text(), "");
}

// One record on a System V queue the daemon made: the type, then the text.
void send_record(int key, long type, std::vector<char> text)
{
    int id = msgget(key, 0);
    ASSERT_GE(id, 0) << "no queue at " << key;
    std::vector<char> msg(sizeof(long) + text.size());
    memcpy(msg.data(), &type, sizeof(long));
    memcpy(msg.data() + sizeof(long), text.data(), text.size());
    ASSERT_EQ(msgsnd(id, msg.data(), text.size(), IPC_NOWAIT), 0) << strerror(errno);
}

std::vector<char> notify_text(const char* info)
{
    std::vector<char> text(NOTIFY_MSG_SIZE, 0);
    int32_t fields[3] = {1, 2, 1};
    memcpy(text.data(), fields, sizeof(fields));
    strncpy(text.data() + notify_layout::kExtraInfo - MSGQ_TYPE_SIZE, info, notify_layout::kExtraInfoSize - 1);
    return text;
}

std::vector<char> event_text(const char* content)
{
    std::vector<char> text(EVENTLOG_MSG_SIZE, 0);
    strncpy(text.data() + EVENTLOG_SYSTEM_LAYOUT.content - MSGQ_TYPE_SIZE, content, EVENTLOG_CONTENT_SIZE - 1);
    return text;
}

size_t count_of(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

std::mutex g_notified_mutex;
std::vector<std::string> g_notified;

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

TEST(Faults, RecordsArrivingWithoutTheNotificationServiceAreLoggedAndDropped)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    const int baseline = settled_fd_count(d.pid());

    for (int i = 0; i < 3; i++) {
        send_record(NOTIFY_MSGQ_KEY, 1, notify_text("camera 3 offline"));
        send_record(EVENTLOG_MSGQ_KEY, EVENTLOG_TYPE_SYSTEM, event_text("disk 2 degraded"));
    }
    ASSERT_TRUE(eventually(
        [&] {
            const std::string log = d.debug_log();
            return count_of(log, "[notify_handler][") == 3 && count_of(log, "[eventlog_handler][") == 3;
        },
        10000))
        << d.debug_log();
    EXPECT_EQ(count_of(d.debug_log(), "] eventlog_handler fail\n"), 6u);
    expect_serving(d);
    EXPECT_TRUE(eventually([&] { return count_open_fds_of(d.pid()) == baseline; }, 3000));

    // The service appears: the next records reach it, the dropped ones do not.
    dv_handle* service = nullptr;
    {
        ScopedEnv env("DV_SOCKET_DIR", d.socket_dir().c_str());
        service = dv_create(NOTIFY_SERVICE_NAME, DV_PTHREAD_MODE | DV_STANDALONE, 1, record_notification);
    }
    dv_start(service);
    ASSERT_EQ(dv_wait_started(service, 5000), 1);
    send_record(NOTIFY_MSGQ_KEY, 1, notify_text("camera 4 online"));
    send_record(EVENTLOG_MSGQ_KEY, EVENTLOG_TYPE_SYSTEM, event_text("disk 2 rebuilt"));
    EXPECT_TRUE(eventually(
        [&] {
            std::lock_guard<std::mutex> lock(g_notified_mutex);
            return g_notified.size() >= 2;
        },
        10000));
    dv_free(service);
    {
        std::lock_guard<std::mutex> lock(g_notified_mutex);
        ASSERT_EQ(g_notified.size(), 2u);
        std::string all = g_notified[0] + g_notified[1];
        EXPECT_NE(all.find("notify_event {"), std::string::npos) << all;
        EXPECT_NE(all.find("camera 4 online"), std::string::npos) << all;
        EXPECT_NE(all.find("notify_log {"), std::string::npos) << all;
        EXPECT_NE(all.find("disk 2 rebuilt"), std::string::npos) << all;
        EXPECT_EQ(all.find("offline"), std::string::npos) << all;
    }
    EXPECT_EQ(d.stop(), 0);
    // Only the framework's own line on a failed call would appear here.
    EXPECT_EQ(d.stderr_text().find("[ABORT]"), std::string::npos) << d.stderr_text();
}

TEST(Faults, ADebugLogOnAFullDiskOrRemovedLosesLinesSilently)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    const std::string sock = d.command_socket();
    const int baseline = settled_fd_count(d.pid());
    const std::string log_dir = root.abs("/opt/VexProServer/.log");

    struct Case {
        const char* what;
        std::function<void()> fault;
        std::function<void()> check;
    };
    const Case cases[] = {
        {"disk full",
         [&] {
             ASSERT_EQ(unlink(root.abs(kLogFile).c_str()), 0);
             ASSERT_EQ(symlink("/dev/full", root.abs(kLogFile).c_str()), 0);
         },
         [&] {
             // Still the link: nothing moved it aside or replaced it.
             char target[64] = "";
             EXPECT_GT(readlink(root.abs(kLogFile).c_str(), target, sizeof(target) - 1), 0);
             EXPECT_STREQ(target, "/dev/full");
         }},
        {"directory removed", [&] { root.remove("/opt/VexProServer/.log"); },
         [&] { EXPECT_FALSE(file_exists(log_dir)); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        c.fault();
        // Requests that log: text that is not JSON, and a mistyped argument.
        const std::string paser_fail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(call_socket(sock, "get_vpd_ext_area", "{\"offest\":"), paser_fail);
            EXPECT_EQ(call_socket(sock, "get_vpd_ext_area", "{\"offest\":\"1\",\"length\":2}"), paser_fail);
        }
        expect_serving(d);
        c.check();
        EXPECT_TRUE(eventually([&] { return count_open_fds_of(d.pid()) == baseline; }, 3000));
    }
    EXPECT_EQ(d.stop(), 0);
    EXPECT_EQ(d.stderr_text(), "");
}

}  // namespace
