// What a local user who is not root can try against the daemon program:
// every command without a grant, shells and interpreters through exec_cli
// with one, install scripts from folders others control, connections that
// go silent, memory files that shrink and grow under a request, descriptors
// leaking into children, a policy file others could write, and queues
// planted at the daemon's keys before it starts.
#include <gtest/gtest.h>
#include <json/json.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/json.h"
#include "dv.h"
#include "platform/paths.h"
#include "support/daemon_process.h"
#include "support/daemon_suite.h"
#include "support/files.h"
#include "support/other_user.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

namespace fs = std::filesystem;

namespace {

const std::string kAppScript = "/opt/VexProServer/script/operate_appboxcenter_app.sh";
const std::string kDenied = "{\"error_msg\":\"permission denied\",\"result\":-1}\n";
// A user who is not root, granted every command of the command service (the
// spare user is granted "test" alone).
constexpr uid_t kGrantedUid = kSpareUid - 1;
const std::string kTestReply = R"({"handler":"test_handler","service":"VexProServer-vexprod"})" "\n";

std::string exec_request(const std::vector<std::string>& command)
{
    Json::Value root;
    for (const std::string& arg : command)
        root["command"].append(arg);
    return json_write(root);
}

std::string exec_reply(int code, const std::string& key, const std::string& text)
{
    Json::Value reply;
    reply["handler"] = "exec_cli_handler";
    reply["service"] = "VexProServer-vexprod";
    reply["error_code"] = code;
    reply[key] = text;
    return json_write(reply);
}

size_t count_lines_with(const std::string& text, const std::string& a, const std::string& b = "")
{
    std::istringstream lines(text);
    size_t count = 0;
    for (std::string line; std::getline(lines, line);)
        count += line.find(a) != std::string::npos && line.find(b) != std::string::npos;
    return count;
}

// Every entry of a tree with its type, mode, size and modification time,
// except what the daemon and the stubs are meant to write: the debug log
// and the call journal.
std::map<std::string, std::string> snapshot(const std::string& top)
{
    std::map<std::string, std::string> out;
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(top)) {
        const std::string path = e.path().string();
        struct stat st;
        if (path.rfind(top + "/opt/VexProServer/.log", 0) == 0 || path == top + "/var/log/platform-calls.log" ||
            lstat(path.c_str(), &st) != 0)
            continue;
        out[path] = std::to_string(st.st_mode) + " " + std::to_string(st.st_size) + " " +
                    std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
    }
    return out;
}

// The daemon on a fresh simulated root, reachable by the spare user.
class Security : public testing::Test {
protected:
    void SetUp() override
    {
        root_.write_file(PATH_CALLER_POLICY, root_.read_file(PATH_CALLER_POLICY) + kPolicy);
        // Started the way a careless start script would: with a descriptor
        // of its own left open, which no program the daemon runs may see.
        int stray = open("/dev/null", O_RDONLY);
        ASSERT_GT(stray, 2);
        bool started = daemon_.start();
        close(stray);
        ASSERT_TRUE(started) << daemon_.stderr_text();
        ASSERT_TRUE(allow_search(daemon_.socket_dir()));
    }
    void TearDown() override
    {
        EXPECT_EQ(daemon_.stop(), 0);
        EXPECT_EQ(daemon_.stderr_text(), "");
    }

    static inline const std::string kPolicy =
        "[VexProServer-vexprod]\n* = uid:" + std::to_string(kGrantedUid) + "\ntest = uid:65534\n";

    // One call made by a user that is not root: the granted user (or uid)
    // when we may switch to it, ourselves when we are not root.
    std::string call_unprivileged(const std::string& command, const std::string& json, int* status = nullptr,
                                  uid_t uid = kGrantedUid)
    {
        if (!can_switch_user())
            return daemon_.call(command, json, status);
        auto text = run_as(uid, uid, [&] {
            int st = -1;
            std::string reply = daemon_.call(command, json, &st);
            return std::to_string(st) + "|" + reply;
        });
        if (!text)
            return "<the spare user's client failed>";
        size_t bar = text->find('|');
        if (status)
            *status = std::stoi(text->substr(0, bar));
        return text->substr(bar + 1);
    }

    SimRoot root_;
    DaemonProcess daemon_{root_};
};

// Shells, interpreters and busybox by their own names and through links of
// the caller's; a shell copied into a directory the caller controls; links
// of /proc that lead into other processes. Each would write the marker.
TEST_F(Security, ExecCliRefusesShellsInterpretersAndSwappableProgramsToOtherUsers)
{
    TempDir scratch;
    ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
    const std::string marker = scratch.file("pwned");
    const std::string line = "echo pwned > " + marker;
    fs::create_symlink("/bin/bash", scratch.file("innocent"));
    fs::create_symlink("/usr/bin/python3", scratch.file("calculator"));
    fs::create_symlink("/bin/echo", scratch.file("busybox"));
    fs::copy_file("/bin/dash", scratch.file("notashell"));
    fs::create_symlink("/lib64/ld-linux-x86-64.so.2", scratch.file("loader"));
    const std::vector<std::vector<std::string>> attacks = {
        {"/bin/sh", "-c", line},
        {"/bin/bash", "-c", line},
        {"bash", "-c", line},
        {"/bin/../bin//sh", "-c", line},
        {"/bin/rbash", "-c", line},
        {scratch.file("innocent"), "-c", line},
        {"/bin/busybox", "sh", "-c", line},
        {scratch.file("busybox"), "sh", "-c", line},
        {"/usr/bin/python3", "-c", "open('" + marker + "', 'w').write('pwned')"},
        {scratch.file("calculator"), "-c", "open('" + marker + "', 'w').write('pwned')"},
        {"/usr/bin/php", "-r", "touch('" + marker + "');"},
        {scratch.file("notashell"), "-c", line},
        {"/proc/self/exe", "-t"},
        {"/dev/fd/0"},
        {"/usr/bin/env", "dash", "-c", line},
        {"/usr/bin/perl", "-e", "system('" + line + "')"},
        {"/usr/bin/awk", "BEGIN { system(\"" + line + "\") }"},
        {"/usr/bin/find", "/", "-maxdepth", "0", "-exec", "/bin/sh", "-c", line, ";"},
        {"/lib64/ld-linux-x86-64.so.2", "/usr/bin/bash", "-c", line},
        {scratch.file("loader"), "/usr/bin/bash", "-c", line},
        {"/usr/bin/ldd"},
    };
    const auto before = snapshot(root_.path());
    for (const auto& command : attacks)
        EXPECT_EQ(call_unprivileged("exec_cli", exec_request(command)),
                  exec_reply(-3, "error_msg", "program not allowed: " + command[0]));
    EXPECT_FALSE(file_exists(marker));
    EXPECT_EQ(snapshot(root_.path()), before);

    // One line per refusal, naming the caller.
    const std::string log = daemon_.debug_log();
    const std::string caller = " uid " + std::to_string(can_switch_user() ? kGrantedUid : getuid()) + ": ";
    for (const auto& command : attacks)
        EXPECT_EQ(count_lines_with(log, "] refused for pid ", caller + command[0] + " ("), 1u) << command[0];
    EXPECT_EQ(count_lines_with(log, "] refused for pid "), attacks.size());

    // Ordinary programs still run for them.
    EXPECT_EQ(call_unprivileged("exec_cli", exec_request({"/bin/echo", "hello", "two words"})),
              exec_reply(0, "result", "hello two words\n"));
}

TEST_F(Security, ExecCliLetsRootRunShellsAndInterpreters)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs a root caller; this test runs as uid " << geteuid();
    TempDir scratch;
    fs::create_symlink("/bin/bash", scratch.file("innocent"));
    const std::pair<std::vector<std::string>, std::string> runs[] = {
        {{"/bin/sh", "-c", "echo $((6 * 7))"}, "42\n"},
        {{"/bin/bash", "-c", "echo ${BASH_VERSION:+bash}"}, "bash\n"},
        {{scratch.file("innocent"), "-c", "echo innocent"}, "innocent\n"},
        {{"/usr/bin/python3", "-c", "print(6 * 7)"}, "42\n"},
        {{"/bin/echo", "hello"}, "hello\n"},
    };
    for (const auto& [command, output] : runs)
        EXPECT_EQ(daemon_.call("exec_cli", exec_request(command)), exec_reply(0, "result", output)) << command[0];
    EXPECT_EQ(count_lines_with(daemon_.debug_log(), "] refused for pid "), 0u);
}

// What a local user without a grant could do before callers needed one: each
// is refused, runs nothing, writes nothing and leaves one audit line; root
// is served as before. Text from a request never starts a log line.
TEST_F(Security, CallersWithoutAGrantAreRefusedAndAudited)
{
    if (!can_switch_user())
        GTEST_SKIP() << "needs another user; this test runs as uid " << geteuid();
    const std::string marker = root_.abs("/tmp/f"), shell = "id > " + marker;
    const struct {
        bool mail;
        std::string command, request;
    } attacks[] = {
        {false, "system_call_nc_notify", R"({"nc_notify":"x; )" + shell + "\"}"},
        {false, "exec_cli", exec_request({"/usr/bin/env", "dash", "-c", shell})},
        {false, "exec_cli", exec_request({"/usr/bin/find", "/", "-maxdepth", "0", "-exec", "/bin/sh", "-c", shell, ";"})},
        {false, "exec_cli", exec_request({"/lib64/ld-linux-x86-64.so.2", "/usr/bin/bash", "-c", shell})},
        {false, "vex_auth_add_session", R"({"type":1,"user":"admin","sid":"chosen"})"},
        {false, "system_call_cloud_get_user_token", "{}"},
        {false, "get_sms_config", "{}"},
        {false, "get_all_users", "{}"},
        {false, "system_call_vexpro_disable", "{}"},
        {false, "system_call_share_lock_remove", R"({"share_name":"Recordings"})"},
        {false, "system_zel_smb_setfolder_priv", R"({"share_name":"Recordings","command":"set","priv_type":"rw"})"},
        {false, "system_call_log_tool", R"({"log_type":1,"log_mseg":"admin logged in"})"},
        {true, "sendmail", R"({"user":"","pwd":"","config_file":"mail.conf","content_file":"mail.txt"})"},
    };
    auto call = [&](const auto& a, uid_t uid) {
        auto once = [&] {
            int status = -1;
            std::string reply = a.mail ? daemon_.call_mail(a.command, a.request, &status)
                                       : daemon_.call(a.command, a.request, &status);
            return std::to_string(status) + "|" + reply;
        };
        return uid == 0 ? once() : run_as(uid, uid, once).value_or("<the client failed>");
    };
    const auto before = snapshot(root_.path());
    root_.clear_calls();
    for (const auto& a : attacks)
        EXPECT_EQ(call(a, kSpareUid), a.mail ? "4|" : "0|" + kDenied) << a.command;
    EXPECT_EQ(call(attacks[0], kSpareUid), "0|" + kDenied);
    EXPECT_EQ(call_unprivileged("test", "{}", nullptr, kSpareUid), kTestReply);
    EXPECT_TRUE(root_.calls().empty());
    EXPECT_EQ(snapshot(root_.path()), before);
    // Each audit line follows its reply.
    EXPECT_TRUE(eventually([&] {
        const std::string log = daemon_.debug_log();
        return count_lines_with(log, "] audit: ", " uid 65534: refused by policy") == std::size(attacks) + 1 &&
               count_lines_with(log, "] audit: VexProServer-vexprod \"test\" pid ", " uid 65534: replied, ") == 1;
    })) << daemon_.debug_log();

    for (const auto& a : attacks) {
        const std::string reply = call(a, 0);
        EXPECT_EQ(reply.substr(0, 2), "0|") << a.command;
        EXPECT_NE(reply, "0|" + kDenied) << a.command;
    }
    EXPECT_FALSE(root_.calls().empty());

    int status = -1;
    daemon_.call("test\n[00001] [Mon Nov 16 03:38:07 ] forged", "{}", &status);
    EXPECT_EQ(status, DV_STATUS_SOCKET);
    EXPECT_EQ(daemon_.call("system_call_log_tool", R"({"log_type":1,"log_mseg":"a\n[00001] forged\r"})"), kOk);
    char prefix[32];
    snprintf(prefix, sizeof(prefix), "[%05d] [", static_cast<int>(daemon_.pid()));
    std::istringstream lines(daemon_.debug_log());
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.empty() || line.rfind(prefix, 0) == 0) << line;
}

// The policy is read again on SIGHUP, user names resolved; one that others
// could have written, or swapped through its directory, grants nothing.
TEST_F(Security, ThePolicyIsReadAgainOnSighupAndIgnoredWhenOthersCouldWriteIt)
{
    if (!can_switch_user())
        GTEST_SKIP() << "needs another user; this test runs as uid " << geteuid();
    auto spare = [&](const std::string& command, const std::string& json) {
        int status = -1;
        const std::string reply = call_unprivileged(command, json, &status, kSpareUid);
        return std::to_string(status) + "|" + reply;
    };
    auto queue_modes = [] {
        std::string out;
        for (int key : {65521, 65522}) {
            struct msqid_ds ds = {};
            msgctl(msgget(key, 0), IPC_STAT, &ds);
            out += std::to_string(ds.msg_perm.mode & 0777) + ":" + std::to_string(ds.msg_perm.gid) + " ";
        }
        return out;
    };
    const std::string echo = exec_request({"/bin/echo", "hi"});
    EXPECT_EQ(spare("exec_cli", echo), "0|" + kDenied);
    ASSERT_TRUE(reload_policy(root_, daemon_,
                              root_.read_file(PATH_CALLER_POLICY) + "exec_cli = user:nobody\n[queues]\nsenders = nogroup\n"));
    EXPECT_EQ(spare("exec_cli", echo), "0|" + exec_reply(0, "result", "hi\n"));
    EXPECT_EQ(queue_modes(), "400:65534 400:65534 ");  // 0620

    ASSERT_EQ(chmod(root_.abs(PATH_CALLER_POLICY).c_str(), 0666), 0);
    ASSERT_TRUE(reload_policy(root_, daemon_));
    EXPECT_EQ(spare("test", "{}"), "4|");
    EXPECT_NE(daemon_.debug_log().find("] caller policy /etc/config/dwe_dv_vexprod.policy is writable by group or "
                                       "others: only root may call.\n"),
              std::string::npos);
    EXPECT_EQ(queue_modes(), "384:" + std::to_string(getegid()) + " 384:" + std::to_string(getegid()) + " ");
    // The file is fine again, but others could swap it through its directory.
    ASSERT_EQ(chmod(root_.abs(PATH_CALLER_POLICY).c_str(), 0644), 0);
    ASSERT_EQ(chmod(root_.abs("/etc/config").c_str(), 0777), 0);
    ASSERT_TRUE(reload_policy(root_, daemon_));
    EXPECT_EQ(spare("test", "{}"), "4|");
    EXPECT_NE(daemon_.debug_log().find("/etc/config is writable by group or others: only root may call.\n"),
              std::string::npos);
    EXPECT_EQ(daemon_.call("test", "{}"), kTestReply);
}

// install_app runs a script from a folder the request names: only one that
// nobody but root could have placed or changed.
TEST_F(Security, InstallRunsOnlyScriptsThatNobodyElseCouldHavePlaced)
{
    root_.write_file("/share/a.pkg", "package\n");
    auto install = [&](const std::string& folder, int* status = nullptr) {
        const std::string request = R"({"sys_install_folder":")" + folder + R"(","app_file_path":"/share/a.pkg"})";
        return call_unprivileged("install_app", request, status);
    };
    const std::string good = R"({"cli_ret":0,"result":0,"result_out":")";
    EXPECT_EQ(install("/opt/VexProServer").rfind(good, 0), 0u);

    // An attacker's folder in the platform's world-writable /tmp with a
    // script that would leave a mark; a folder reached through a link, one
    // whose script is a link, and one that climbs back up.
    const std::string marker = root_.abs("/tmp/pwned");
    root_.write_file("/tmp/evil/script/operate_appboxcenter_app.sh", "#!/bin/sh\necho pwned > " + marker + "\n");
    ASSERT_EQ(chmod(root_.abs("/tmp/evil/script/operate_appboxcenter_app.sh").c_str(), 0755), 0);
    fs::create_directory_symlink("VexProServer", root_.abs("/opt/Link"));
    fs::create_directories(root_.abs("/opt/Fake/script"));
    fs::create_symlink(root_.abs(kAppScript), root_.abs("/opt/Fake/script/operate_appboxcenter_app.sh"));
    struct Case {
        std::string folder, why;
        std::string loosen;  // made writable by group or others for the case, then tightened again
        uid_t owner = 0;     // given to this user for the case (the folder, or loosen when set)
    };
    std::vector<Case> cases = {
        {"/tmp/evil", "/tmp is writable by group or others", ""},
        {"/opt/Link", "/opt/Link is a symbolic link", ""},
        {"/opt/Fake", "/opt/Fake/script/operate_appboxcenter_app.sh is a symbolic link", ""},
        {"/opt/Fake/../VexProServer", "/opt/Fake/.. climbs out with ..", ""},
        {"/opt/VexProServer", "/opt/VexProServer/script is writable by group or others", "/opt/VexProServer/script"},
        {"/opt/VexProServer", kAppScript + " is writable by group or others", kAppScript},
        {"/opt/VexProServer", "/opt is writable by group or others", "/opt"},
    };
    if (can_switch_user()) {
        cases.push_back({"/opt/VexProServer", "/opt/VexProServer belongs to uid 65534", "", kSpareUid});
        cases.push_back({"/opt/VexProServer", kAppScript + " belongs to uid 65534", kAppScript, kSpareUid});
    }
    const auto before = snapshot(root_.path());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        const std::string target = root_.abs(c.loosen.empty() ? c.folder : c.loosen);
        struct stat st;
        ASSERT_EQ(stat(target.c_str(), &st), 0);
        if (c.owner) {  // the script is the root's one stub copy: given back below
            ASSERT_EQ(chown(target.c_str(), c.owner, c.owner), 0);
        } else if (!c.loosen.empty()) {
            ASSERT_EQ(chmod(target.c_str(), (st.st_mode & 07777) | (c.loosen == "/opt" ? 0002 : 0020)), 0);
        }
        root_.clear_calls();
        int status = -1;
        EXPECT_EQ(install(c.folder, &status), "");
        EXPECT_EQ(status, DV_STATUS_SOCKET);
        EXPECT_TRUE(root_.calls().empty());
        const std::string script = c.folder + "/script/operate_appboxcenter_app.sh";
        EXPECT_EQ(count_lines_with(daemon_.debug_log(), "] not running " + script + " for pid ", c.why), 1u);
        ASSERT_EQ(chown(target.c_str(), st.st_uid, st.st_gid), 0);
        ASSERT_EQ(chmod(target.c_str(), st.st_mode & 07777), 0);
    }
    EXPECT_FALSE(file_exists(marker));
    EXPECT_EQ(snapshot(root_.path()), before);
    // The app's own script is still run once all is tight again.
    EXPECT_EQ(install("/opt/VexProServer").rfind(good, 0), 0u);
}

// A client that connects and never sends its request holds a worker only
// until the request deadline (1 s); the command service has two workers.
TEST_F(Security, SilentClientsDoNotStopTheCommandService)
{
    RawClient silent, half;
    ASSERT_TRUE(silent.connect_to(daemon_.command_socket()));
    ASSERT_TRUE(half.connect_to(daemon_.command_socket()));
    ASSERT_EQ(silent.next_type(), DV_DIRECTIVE_ACCEPT);
    ASSERT_EQ(half.next_type(), DV_DIRECTIVE_ACCEPT);
    // One promises an extra descriptor that never comes.
    int memfd = make_request_memfd("{}");
    ASSERT_TRUE(half.send_directive(DV_DIRECTIVE_REQUEST, DV_DIRECTIVE_FLAG_EXTRA_FD, "test"));
    ASSERT_TRUE(half.send_fd(memfd));
    close(memfd);

    const auto start = std::chrono::steady_clock::now();
    int status = -1;
    EXPECT_EQ(daemon_.call("test", "{}", &status, -1, 30), kTestReply);
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(status, DV_STATUS_OK);
    EXPECT_LE(waited, 2.0);
    std::printf("third client served after %.2f s\n", waited);
    EXPECT_TRUE(silent.closed_by_peer(1000));
    EXPECT_TRUE(half.closed_by_peer(1000));
    // And the workers are free again at once.
    const auto again = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon_.call("test", "{}"), kTestReply);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - again).count(), 1.0);
}

// One hostile request: sent, then its memory file cut to nothing, grown far
// beyond any request and filled again, over and over, until the daemon
// answers or hangs up. 0: not let in, 1: answered, 2: dropped.
int churned_request(const std::string& sockfile, int round)
{
    RawClient c;
    if (!c.connect_to(sockfile) || c.next_type(15000) != DV_DIRECTIVE_ACCEPT)
        return 0;
    // Mostly requests that are read and parsed but run nothing (the types
    // are wrong), so that the daemon's reading is what is exercised.
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
    // The hostile client, in a process of its own: every request must reach
    // a worker; most are read and answered, the rest refused for a memory
    // file of an impossible size.
    constexpr int kHostileRequests = 3000;
    const std::string sockfile = daemon_.command_socket();
    auto churn = [&] {
        int tally[3] = {0, 0, 0};
        for (int i = 0; i < kHostileRequests; ++i)
            ++tally[churned_request(sockfile, i)];
        std::printf("%d hostile requests: %d not let in, %d answered, %d dropped\n", kHostileRequests, tally[0],
                    tally[1], tally[2]);
        std::fflush(stdout);
        return tally[0] == 0 ? 0 : 1;
    };
    std::fflush(stdout);  // the child must not print what we buffered
    pid_t hostile = -1;
    if (can_switch_user())
        hostile = start_as(kGrantedUid, kGrantedUid, churn);
    else if ((hostile = fork()) == 0)
        _exit(churn());
    ASSERT_GT(hostile, 0);

    // Meanwhile everyone else is served, exactly.
    const std::string echo_reply = exec_reply(0, "result", "still here\n");
    int served = 0, wrong = 0, status = 0;
    while (waitpid(hostile, &status, WNOHANG) == 0) {
        wrong += daemon_.call("test", "{}") != kTestReply;
        wrong += daemon_.call("exec_cli", exec_request({"/bin/echo", "still here"})) != echo_reply;
        served += 2;
        usleep(5000);  // a steady caller, not a flood of our own
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    std::printf("%d other calls served meanwhile, %d wrong\n", served, wrong);
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(served, 0);
    EXPECT_EQ(daemon_.call("test", "{}"), kTestReply);
}

// exec_cli's children see only their standard descriptors, whatever the
// daemon holds open: listening sockets, epolls, worker socket pairs, a
// client in the middle of its request, a request's memory file, the stray
// descriptor it was started with, an extra descriptor sent as its output.
TEST_F(Security, ChildrenInheritOnlyTheirStandardDescriptors)
{
    RawClient held;
    ASSERT_TRUE(held.connect_to(daemon_.command_socket()));
    ASSERT_EQ(held.next_type(), DV_DIRECTIVE_ACCEPT);
    EXPECT_GE(std::distance(fs::directory_iterator("/proc/" + std::to_string(daemon_.pid()) + "/fd"),
                            fs::directory_iterator()),
              10);

    // ls lists its own directory descriptor (3) as well.
    const std::string request = exec_request({"/bin/ls", "/proc/self/fd"});
    const std::string listing = exec_reply(0, "result", "0\n1\n2\n3\n");
    EXPECT_EQ(daemon_.call("exec_cli", request), listing);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(daemon_.call("exec_cli", request, nullptr, ends[1]), listing);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(call_unprivileged("exec_cli", request), listing);
}

// Queues planted at the daemon's keys before it starts are replaced by
// queues of its own: one plainly the spare user's, one whose owner was set
// to root so it looks like ours but whose maker keeps every right over it.
TEST(PlantedQueues, AreReplacedByQueuesOfTheDaemonsOwn)
{
    if (!can_switch_user())
        GTEST_SKIP() << "planting a queue of another user needs root; this test runs as uid " << geteuid();
    for (int key : {65521, 65522})
        if (msgget(key, 0) != -1)
            GTEST_SKIP() << "a queue at key " << key << " exists already (another daemon running?)";
    // Whatever the test leaves of the spare user's queues goes at its end.
    struct Cleanup {
        ~Cleanup()
        {
            for (int key : {65521, 65522}) {
                struct msqid_ds ds;
                int id = msgget(key, 0);
                if (id != -1 && msgctl(id, IPC_STAT, &ds) == 0 && ds.msg_perm.cuid == kSpareUid)
                    msgctl(id, IPC_RMID, nullptr);
            }
        }
    } cleanup;
    // Both open to everyone; the second handed to root (-2: the kernel refused).
    auto planted = run_as(kSpareUid, kSpareGid, [] {
        const int plain = msgget(65521, IPC_CREAT | IPC_EXCL | 0666);
        int disguised = msgget(65522, IPC_CREAT | IPC_EXCL | 0666);
        struct msqid_ds ds;
        if (disguised != -1 && msgctl(disguised, IPC_STAT, &ds) == 0) {
            ds.msg_perm.uid = 0;
            disguised = msgctl(disguised, IPC_SET, &ds) == 0 ? disguised : -2;
        }
        return std::to_string(plain) + " " + std::to_string(disguised);
    });
    int plain = -1, disguised = -1;
    ASSERT_EQ(std::sscanf(planted.value_or("").c_str(), "%d %d", &plain, &disguised), 2);
    ASSERT_GE(plain, 0);
    ASSERT_NE(disguised, -1);
    if (disguised == -2)
        std::printf("this kernel does not let the spare user hand its queue to root\n");

    SimRoot root;
    DaemonProcess daemon(root);
    ASSERT_TRUE(daemon.start()) << daemon.stderr_text();
    for (int key : {65521, 65522}) {
        struct msqid_ds ds = {};
        ASSERT_EQ(msgctl(msgget(key, 0), IPC_STAT, &ds), 0) << key;
        EXPECT_EQ(ds.msg_perm.uid, 0u) << key;
        EXPECT_EQ(ds.msg_perm.cuid, 0u) << key;
        EXPECT_EQ(ds.msg_perm.mode & 0777, 0600u) << key;
    }
    EXPECT_NE(msgget(65521, 0), plain);
    const std::string log = daemon.debug_log();
    EXPECT_EQ(count_lines_with(log, "] queue key:65521 belonged to uid 65534 (made by uid 65534): removed"), 1u)
        << log;
    if (disguised >= 0) {
        EXPECT_NE(msgget(65522, 0), disguised);
        EXPECT_EQ(count_lines_with(log, "] queue key:65522 belonged to uid 0 (made by uid 65534): removed"), 1u)
            << log;
    }

    // The spare user can no longer put anything on them, or take it off.
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
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(msgget(65521, 0), -1);
    EXPECT_EQ(msgget(65522, 0), -1);
}

}  // namespace
