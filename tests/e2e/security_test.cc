// What a local user who is not root can try against the daemon program:
// shells and interpreters through exec_cli, install scripts from folders
// others control, connections that go silent, memory files that shrink and
// grow under a request, descriptors leaking into children, and queues
// planted at the daemon's keys before it starts.
#include <gtest/gtest.h>
#include <json/json.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "daemon/json.h"
#include "dv.h"
#include "support/daemon_process.h"
#include "support/files.h"
#include "support/other_user.h"
#include "support/raw_client.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

namespace fs = std::filesystem;

namespace {

const std::string kAppScript = "/opt/VexProServer/script/operate_appboxcenter_app.sh";

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

std::string refused(const std::string& program)
{
    return exec_reply(-3, "error_msg", "program not allowed: " + program);
}

size_t count_lines_with(const std::string& text, const std::string& a, const std::string& b)
{
    size_t count = 0;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(start, end - start);
        if (line.find(a) != std::string::npos && line.find(b) != std::string::npos)
            ++count;
    }
    return count;
}

// Every entry of a tree with its type, mode, size and modification time,
// except what the daemon and the stubs are meant to write: the debug log
// and the call journal.
using Snapshot = std::map<std::string, std::string>;

Snapshot snapshot(const std::string& top)
{
    Snapshot out;
    const std::string log_dir = top + "/opt/VexProServer/.log";
    const std::string journal = top + "/var/log/platform-calls.log";
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(top)) {
        const std::string path = e.path().string();
        if (path.rfind(log_dir, 0) == 0 || path == journal)
            continue;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0)
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

    // The uid of the callers that are not root: the spare user's when we
    // may switch to it, our own when we are not root ourselves.
    static uid_t other_uid() { return can_switch_user() ? kSpareUid : getuid(); }

    // One call made by a user that is not root.
    std::string call_unprivileged(const std::string& command, const std::string& json, int* status = nullptr)
    {
        if (!can_switch_user())
            return daemon_.call(command, json, status);
        auto text = run_as(kSpareUid, kSpareGid, [&] {
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

// Programs that would write the marker if they ran: shells, interpreters and
// busybox, by their own names and through links of the caller's.
struct Attack {
    std::string program;
    std::vector<std::string> args;
};

std::vector<Attack> shell_attacks(const TempDir& scratch, const std::string& marker)
{
    const std::string shell_line = "echo pwned > " + marker;
    const std::string python_line = "open('" + marker + "', 'w').write('pwned')";
    fs::create_symlink("/bin/bash", scratch.file("innocent"));
    fs::create_symlink("/usr/bin/python3", scratch.file("calculator"));
    fs::create_symlink("/bin/echo", scratch.file("busybox"));
    return {
        {"/bin/sh", {"-c", shell_line}},
        {"/bin/bash", {"-c", shell_line}},
        {"/usr/bin/bash", {"-c", shell_line}},
        {"bash", {"-c", shell_line}},
        {"/bin/../bin/sh", {"-c", shell_line}},
        {"/bin//sh", {"-c", shell_line}},
        {"/bin/rbash", {"-c", shell_line}},
        {scratch.file("innocent"), {"-c", shell_line}},
        {"/bin/busybox", {"sh", "-c", shell_line}},
        {scratch.file("busybox"), {"sh", "-c", shell_line}},
        {"/usr/bin/python3", {"-c", python_line}},
        {scratch.file("calculator"), {"-c", python_line}},
        {"/usr/bin/php", {"-r", "touch('" + marker + "');"}},
    };
}

TEST_F(Security, ExecCliRefusesShellsAndInterpretersToOtherUsers)
{
    TempDir scratch;
    const std::string marker = scratch.file("pwned");
    const std::vector<Attack> attacks = shell_attacks(scratch, marker);
    const Snapshot before = snapshot(root_.path());
    for (const Attack& a : attacks) {
        std::vector<std::string> command = {a.program};
        command.insert(command.end(), a.args.begin(), a.args.end());
        EXPECT_EQ(call_unprivileged("exec_cli", exec_request(command)), refused(a.program));
    }
    EXPECT_FALSE(file_exists(marker));
    EXPECT_EQ(snapshot(root_.path()), before);

    // One line per refusal, naming the caller.
    const std::string log = daemon_.debug_log();
    const std::string caller = " uid " + std::to_string(other_uid()) + ": ";
    for (const Attack& a : attacks)
        EXPECT_EQ(count_lines_with(log, "] refused for pid ", caller + a.program + " ("), 1u) << a.program;

    // Ordinary programs still run for them.
    EXPECT_EQ(call_unprivileged("exec_cli", exec_request({"/bin/echo", "hello", "two words"})),
              exec_reply(0, "result", "hello two words\n"));
    EXPECT_EQ(call_unprivileged("exec_cli", exec_request({"/usr/bin/printf", "%s", "ok"})),
              exec_reply(0, "result", "ok"));
}

TEST_F(Security, ExecCliLetsRootRunShellsAndInterpreters)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs a root caller; this test runs as uid " << geteuid();
    TempDir scratch;
    const std::string marker = scratch.file("written-by-root");
    // Nothing is refused; what is missing here simply does not run.
    for (const Attack& a : shell_attacks(scratch, marker)) {
        std::vector<std::string> command = {a.program};
        command.insert(command.end(), a.args.begin(), a.args.end());
        Json::Value reply;
        ASSERT_TRUE(json_parse(daemon_.call("exec_cli", exec_request(command)), reply)) << a.program;
        EXPECT_EQ(reply["error_code"].asInt(), 0) << a.program;
        EXPECT_FALSE(reply.isMember("error_msg")) << a.program;
    }
    EXPECT_TRUE(file_exists(marker));
    const std::pair<std::vector<std::string>, std::string> runs[] = {
        {{"/bin/sh", "-c", "echo $((6 * 7))"}, "42\n"},
        {{"/bin/bash", "-c", "echo ${BASH_VERSION:+bash}"}, "bash\n"},
        {{scratch.file("innocent"), "-c", "echo innocent"}, "innocent\n"},
        {{"/usr/bin/python3", "-c", "print(6 * 7)"}, "42\n"},
        {{scratch.file("busybox"), "sh", "-c", "x"}, "sh -c x\n"},
        {{"/bin/echo", "hello"}, "hello\n"},
    };
    for (const auto& [command, output] : runs) {
        EXPECT_EQ(daemon_.call("exec_cli", exec_request(command)), exec_reply(0, "result", output)) << command[0];
    }
    EXPECT_EQ(count_lines_with(daemon_.debug_log(), "] refused for pid ", ""), 0u);
}

// Programs that are not on the list but that the caller could have put in
// place, or swap after the check: copies and links in world-writable
// directories, and the links of /proc that lead into other processes.
TEST_F(Security, ExecCliRefusesProgramsOthersCouldSwapIn)
{
    TempDir scratch;
    ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
    const std::string marker = scratch.file("pwned");
    fs::copy_file("/bin/dash", scratch.file("notashell"));
    fs::create_symlink("/bin/echo", scratch.file("echo"));
    const std::string line = "echo pwned > " + marker;
    const std::vector<std::vector<std::string>> attacks = {
        {scratch.file("notashell"), "-c", line},
        {scratch.file("echo"), "harmless, but the link could point elsewhere by the time it runs"},
        {"/proc/self/exe", "-t"},
        {"/proc/1/exe"},
        {"/dev/fd/0"},
    };
    for (const auto& command : attacks)
        EXPECT_EQ(call_unprivileged("exec_cli", exec_request(command)), refused(command[0]));

    // A program of the caller's own in a memory file, run through the link
    // /proc keeps for the caller's descriptor.
    auto through_proc = [&]() -> std::string {
        int memfd = memfd_create("payload", 0);
        std::ifstream in("/bin/dash", std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (memfd < 0 || write(memfd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            return "no memory file";
        const std::string program = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(memfd);
        std::string reply = daemon_.call("exec_cli", exec_request({program, "-c", line}));
        close(memfd);
        return reply == refused(program) ? "refused" : reply;
    };
    if (can_switch_user()) {
        EXPECT_EQ(run_as(kSpareUid, kSpareGid, through_proc).value_or("<no child>"), "refused");
    } else {
        EXPECT_EQ(through_proc(), "refused");
    }
    EXPECT_FALSE(file_exists(marker));
    EXPECT_EQ(count_lines_with(daemon_.debug_log(), "] refused for pid ", ""), attacks.size() + 1);
}

// install_app runs a script from a folder the request names.
class InstallScripts : public Security {
protected:
    void expect_not_run(const std::string& folder, const std::string& why)
    {
        SCOPED_TRACE(folder);
        const std::string script = folder + "/script/operate_appboxcenter_app.sh";
        root_.clear_calls();
        int status = -1;
        const std::string request = R"({"sys_install_folder":")" + folder + R"(","app_file_path":"/share/Public/a.pkg"})";
        EXPECT_EQ(call_unprivileged("install_app", request, &status), "");
        EXPECT_EQ(status, DV_STATUS_SOCKET);
        EXPECT_TRUE(root_.calls().empty());
        EXPECT_EQ(count_lines_with(daemon_.debug_log(), "] not running " + script + " for pid ", why), 1u)
            << daemon_.debug_log();
    }

    std::string install(const std::string& folder)
    {
        return daemon_.call("install_app",
                            R"({"sys_install_folder":")" + folder + R"(","app_file_path":"/share/Public/a.pkg"})");
    }
};

TEST_F(InstallScripts, OnlyScriptsThatNobodyElseCouldHavePlacedRun)
{
    root_.write_file("/share/Public/a.pkg", "package\n");
    const std::string good = R"({"cli_ret":0,"result":0,"result_out":")";
    EXPECT_EQ(install("/opt/VexProServer").rfind(good, 0), 0u);

    // An attacker's folder in the platform's world-writable /tmp, with a
    // script that would leave a mark.
    const std::string marker = root_.abs("/tmp/pwned");
    root_.write_file("/tmp/evil/script/operate_appboxcenter_app.sh", "#!/bin/sh\necho pwned > " + marker + "\n");
    ASSERT_EQ(chmod(root_.abs("/tmp/evil/script/operate_appboxcenter_app.sh").c_str(), 0755), 0);
    // A second install folder reached through a link, one whose script is a
    // link, and one that climbs back up.
    fs::create_directory_symlink("VexProServer", root_.abs("/opt/Link"));
    fs::create_directories(root_.abs("/opt/Fake/script"));
    fs::create_symlink(root_.abs(kAppScript), root_.abs("/opt/Fake/script/operate_appboxcenter_app.sh"));

    struct Case {
        std::string folder;
        std::string why;
        std::string loosen;  // made writable by group or others for the case, then tightened again
    };
    const std::vector<Case> cases = {
        {"/tmp/evil", "/tmp is writable by group or others", ""},
        {"/opt/Link", "/opt/Link is a symbolic link", ""},
        {"/opt/Fake", "/opt/Fake/script/operate_appboxcenter_app.sh is a symbolic link", ""},
        {"/opt/Fake/../VexProServer", "/opt/Fake/.. climbs out with ..", ""},
        {"/opt/VexProServer", "/opt/VexProServer/script is writable by group or others", "/opt/VexProServer/script"},
        {"/opt/VexProServer", kAppScript + " is writable by group or others", kAppScript},
        {"/opt/VexProServer", "/opt is writable by group or others", "/opt"},
    };
    const Snapshot before = snapshot(root_.path());
    for (const Case& c : cases) {
        struct stat st;
        const std::string loosen = c.loosen.empty() ? "" : root_.abs(c.loosen);
        if (!loosen.empty()) {
            ASSERT_EQ(stat(loosen.c_str(), &st), 0);
            ASSERT_EQ(chmod(loosen.c_str(), (st.st_mode & 07777) | (c.loosen == "/opt" ? 0002 : 0020)), 0);
        }
        expect_not_run(c.folder, c.why);
        if (!loosen.empty()) {
            ASSERT_EQ(chmod(loosen.c_str(), st.st_mode & 07777), 0);
        }
    }
    EXPECT_FALSE(file_exists(marker));
    EXPECT_EQ(snapshot(root_.path()), before);

    // The app's own script is still run once all is tight again.
    EXPECT_EQ(install("/opt/VexProServer").rfind(good, 0), 0u);
}

TEST_F(InstallScripts, ScriptsOfOtherUsersDoNotRun)
{
    if (!can_switch_user())
        GTEST_SKIP() << "handing files to another user needs root; this test runs as uid " << geteuid();
    // Two app folders that play the app-centre script, one owned by the spare
    // user and one whose script is.
    for (const char* folder : {"/opt/Theirs", "/opt/Mixed"}) {
        root_.add_program(std::string(folder) + "/script/operate_appboxcenter_app.sh");
        root_.set_output(std::string(folder) + "/script/operate_appboxcenter_app.sh", "Installed.\n");
    }
    // Hard links of the stub share its owner: the spare user's script is a copy.
    const std::string mixed = root_.abs("/opt/Mixed/script/operate_appboxcenter_app.sh");
    fs::remove(mixed);
    fs::copy_file(root_.abs(kAppScript), mixed);
    ASSERT_EQ(chown(mixed.c_str(), kSpareUid, kSpareGid), 0);
    ASSERT_EQ(chown(root_.abs("/opt/Theirs").c_str(), kSpareUid, kSpareGid), 0);

    expect_not_run("/opt/Theirs", "/opt/Theirs belongs to uid 65534");
    expect_not_run("/opt/Mixed", "/opt/Mixed/script/operate_appboxcenter_app.sh belongs to uid 65534");

    // Given back to root, both run.
    ASSERT_EQ(chown(mixed.c_str(), 0, 0), 0);
    ASSERT_EQ(chown(root_.abs("/opt/Theirs").c_str(), 0, 0), 0);
    const std::string installed = R"({"cli_ret":0,"result":0,"result_out":"SW5zdGFsbGVkLgo="})" "\n";
    EXPECT_EQ(install("/opt/Theirs"), installed);
}

// A client that connects and never sends its request holds a worker only
// until the request deadline (10 s).
TEST_F(Security, SilentClientsDoNotStopTheCommandService)
{
    RawClient silent, half;
    ASSERT_TRUE(silent.connect_to(daemon_.command_socket()));
    ASSERT_TRUE(half.connect_to(daemon_.command_socket()));
    // Both workers take one: the command service has two.
    ASSERT_EQ(silent.next_type(), DV_DIRECTIVE_ACCEPT);
    ASSERT_EQ(half.next_type(), DV_DIRECTIVE_ACCEPT);
    // One promises an extra descriptor that never comes.
    int memfd = make_request_memfd("{}");
    ASSERT_TRUE(half.send_directive(DV_DIRECTIVE_REQUEST, DV_DIRECTIVE_FLAG_EXTRA_FD, "test"));
    ASSERT_TRUE(half.send_fd(memfd));
    close(memfd);

    const auto start = std::chrono::steady_clock::now();
    int status = -1;
    const std::string reply = daemon_.call("test", "{}", &status, -1, 30);
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(status, DV_STATUS_OK);
    EXPECT_EQ(reply, R"({"handler":"test_handler","service":"VexProServer-vexprod"})" "\n");
    EXPECT_LE(waited, 11.0);
    RecordProperty("third_client_served_after_s", std::to_string(waited));
    std::printf("third client served after %.2f s\n", waited);
    EXPECT_TRUE(silent.closed_by_peer(1000));
    EXPECT_TRUE(half.closed_by_peer(1000));
    // And the workers are free again at once.
    const auto again = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon_.call("test", "{}"), reply);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - again).count(), 1.0);
}

// What became of one hostile request.
enum class Churned { not_let_in, answered, dropped };

// One hostile request: sent, then its memory file cut to nothing, grown far
// beyond any request and filled again, over and over, until the daemon
// answers or hangs up.
Churned churned_request(const std::string& sockfile, int round)
{
    RawClient c;
    if (!c.connect_to(sockfile) || c.next_type(15000) != DV_DIRECTIVE_ACCEPT)
        return Churned::not_let_in;
    // Mostly requests that are read and parsed but run nothing (the types
    // are wrong), so that the daemon's reading is what is exercised.
    const bool runs = round % 10 == 0;
    const std::string text = runs ? R"({"command":["/bin/echo","x"]})" : R"({"offest":"0","length":16})";
    const char* command = runs ? "exec_cli" : "get_vpd_ext_area";
    int memfd = make_request_memfd(text);
    if (memfd < 0 || !c.send_directive(DV_DIRECTIVE_REQUEST, 0, command) || !c.send_fd(memfd)) {
        close(memfd);
        return Churned::not_let_in;
    }
    for (int k = 0; k < 2000000; ++k) {
        switch ((round + k) % 3) {
        case 0:
            (void)!ftruncate(memfd, 0);
            break;
        case 1:
            (void)!ftruncate(memfd, off_t(1) << 32);
            break;
        default:
            (void)!ftruncate(memfd, 0);
            (void)!pwrite(memfd, text.data(), text.size(), 0);
            break;
        }
        struct pollfd p = {c.fd(), POLLIN, 0};
        if (poll(&p, 1, 0) != 0)
            break;
    }
    close(memfd);
    return c.next_type(1000) == DV_DIRECTIVE_REPLY ? Churned::answered : Churned::dropped;
}

TEST_F(Security, MemoryFilesThatShrinkOrGrowUnderARequestHarmNobodyElse)
{
    constexpr int kHostileRequests = 3000;
    const std::string sockfile = daemon_.command_socket();
    int counts[2];  // the hostile client's tally: how many were answered, how many dropped
    ASSERT_EQ(pipe2(counts, O_CLOEXEC), 0);
    auto churn = [&] {
        int tally[3] = {0, 0, 0};
        for (int i = 0; i < kHostileRequests; ++i)
            ++tally[static_cast<int>(churned_request(sockfile, i))];
        return write(counts[1], tally, sizeof(tally)) == static_cast<ssize_t>(sizeof(tally)) ? 0 : 1;
    };
    const auto start = std::chrono::steady_clock::now();
    pid_t hostile = -1;
    if (can_switch_user()) {
        hostile = start_as(kSpareUid, kSpareGid, churn);
    } else if ((hostile = fork()) == 0) {
        _exit(churn());
    }
    close(counts[1]);
    ASSERT_GT(hostile, 0);

    // Meanwhile everyone else is served, exactly.
    const std::string test_reply = R"({"handler":"test_handler","service":"VexProServer-vexprod"})" "\n";
    const std::string echo_reply = exec_reply(0, "result", "still here\n");
    int served = 0, wrong = 0, status = 0;
    while (waitpid(hostile, &status, WNOHANG) == 0) {
        wrong += daemon_.call("test", "{}") != test_reply;
        wrong += daemon_.call("exec_cli", exec_request({"/bin/echo", "still here"})) != echo_reply;
        served += 2;
        usleep(5000);  // a steady caller, not a flood of our own
    }
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    int tally[3] = {-1, -1, -1};
    EXPECT_EQ(read(counts[0], tally, sizeof(tally)), static_cast<ssize_t>(sizeof(tally)));
    close(counts[0]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    // Every hostile request reached a worker; most were read and answered,
    // the rest refused for a memory file of an impossible size.
    EXPECT_EQ(tally[static_cast<int>(Churned::not_let_in)], 0);
    EXPECT_EQ(tally[static_cast<int>(Churned::answered)] + tally[static_cast<int>(Churned::dropped)],
              kHostileRequests);
    std::printf("%d hostile requests in %.1f s (%d answered, %d dropped); %d other calls served meanwhile, %d wrong\n",
                kHostileRequests, took, tally[1], tally[2], served, wrong);
    RecordProperty("other_calls_served", served);
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(served, 0);
    EXPECT_EQ(daemon_.call("test", "{}"), test_reply);
    EXPECT_EQ(kill(daemon_.pid(), 0), 0);
}

// exec_cli's children see only their standard descriptors, whatever the
// daemon holds open at the time: listening sockets, epolls, worker socket
// pairs, a client in the middle of its request, a request's memory file.
TEST_F(Security, ChildrenInheritOnlyTheirStandardDescriptors)
{
    // One worker busy with a client that has not sent its request yet.
    RawClient held;
    ASSERT_TRUE(held.connect_to(daemon_.command_socket()));
    ASSERT_EQ(held.next_type(), DV_DIRECTIVE_ACCEPT);

    size_t daemon_fds = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/" + std::to_string(daemon_.pid()) + "/fd"))
        ++daemon_fds;
    EXPECT_GE(daemon_fds, 10u);
    std::printf("the daemon holds %zu descriptors\n", daemon_fds);

    // ls lists its own directory descriptor (3) as well.
    const std::string listing = exec_reply(0, "result", "0\n1\n2\n3\n");
    EXPECT_EQ(daemon_.call("exec_cli", exec_request({"/bin/ls", "/proc/self/fd"})), listing);
    // With an extra descriptor that becomes the daemon's standard output.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(daemon_.call("exec_cli", exec_request({"/bin/ls", "/proc/self/fd"}), nullptr, ends[1]), listing);
    close(ends[0]);
    close(ends[1]);
    // The same for a caller that is not root.
    EXPECT_EQ(call_unprivileged("exec_cli", exec_request({"/bin/ls", "/proc/self/fd"})), listing);
}

// Queues planted at the daemon's keys before it starts.
class PlantedQueues : public testing::Test {
protected:
    void SetUp() override
    {
        if (!can_switch_user())
            GTEST_SKIP() << "planting a queue of another user needs root; this test runs as uid " << geteuid();
        for (int key : {65521, 65522}) {
            if (msgget(key, 0) != -1)
                GTEST_SKIP() << "a queue at key " << key << " exists already (another daemon running?)";
        }
    }

    void TearDown() override
    {
        // Whatever the test left: the daemon removes its own on the way out.
        for (int key : {65521, 65522}) {
            int id = msgget(key, 0);
            struct msqid_ds ds;
            if (id != -1 && msgctl(id, IPC_STAT, &ds) == 0 && (ds.msg_perm.uid == kSpareUid || ds.msg_perm.cuid == kSpareUid))
                msgctl(id, IPC_RMID, nullptr);
        }
    }

    // A queue the spare user makes at key, open to everyone, then maybe
    // hands to uid owner: its id, or -1.
    static int plant(int key, uid_t owner)
    {
        auto id = run_as(kSpareUid, kSpareGid, [&] {
            int q = msgget(key, IPC_CREAT | IPC_EXCL | 0666);
            struct msqid_ds ds;
            if (q != -1 && owner != kSpareUid && msgctl(q, IPC_STAT, &ds) == 0) {
                ds.msg_perm.uid = owner;
                if (msgctl(q, IPC_SET, &ds) != 0)
                    return std::string("-2");
            }
            return std::to_string(q);
        });
        return id ? std::stoi(*id) : -1;
    }

    static struct msqid_ds stat_key(int key)
    {
        struct msqid_ds ds;
        memset(&ds, 0, sizeof(ds));
        int id = msgget(key, 0);
        if (id == -1 || msgctl(id, IPC_STAT, &ds) != 0)
            ds.msg_perm.uid = ds.msg_perm.cuid = static_cast<uid_t>(-1);
        return ds;
    }
};

TEST_F(PlantedQueues, AreReplacedByQueuesOfTheDaemonsOwn)
{
    // One plainly the spare user's; one whose owner was set to root so it
    // looks like ours, but whose maker keeps every right over it.
    const int plain = plant(65521, kSpareUid);
    ASSERT_GE(plain, 0);
    const int disguised = plant(65522, 0);
    if (disguised == -2)
        std::printf("this kernel does not let the spare user hand its queue to root\n");
    ASSERT_NE(disguised, -1);
    const bool have_disguised = disguised >= 0;

    SimRoot root;
    DaemonProcess daemon(root);
    // The keys are machine-wide: a daemon of another test run may have
    // opened and removed our queues in the meantime.
    if (msgget(65521, 0) != plain || (have_disguised && msgget(65522, 0) != disguised))
        GTEST_SKIP() << "the planted queues were taken away by another daemon";
    ASSERT_TRUE(daemon.start()) << daemon.stderr_text();
    for (int key : {65521, 65522}) {
        struct msqid_ds ds = stat_key(key);
        EXPECT_EQ(ds.msg_perm.uid, 0u) << key;
        EXPECT_EQ(ds.msg_perm.cuid, 0u) << key;
        EXPECT_EQ(ds.msg_perm.mode & 0777, 0644u) << key;
    }
    EXPECT_NE(msgget(65521, 0), plain);
    const std::string log = daemon.debug_log();
    EXPECT_EQ(count_lines_with(log, "] queue key:65521 belonged to uid 65534 (made by uid 65534): removed", ""), 1u)
        << log;
    if (have_disguised) {
        EXPECT_NE(msgget(65522, 0), disguised);
        EXPECT_EQ(count_lines_with(log, "] queue key:65522 belonged to uid 0 (made by uid 65534): removed", ""), 1u)
            << log;
    }

    // The spare user can no longer put anything on them.
    auto sent = run_as(kSpareUid, kSpareGid, [] {
        struct {
            long type;
            char text[144];
        } msg = {1, {}};
        int id = msgget(65521, 0);
        return std::to_string(id == -1 ? -1 : msgsnd(id, &msg, sizeof(msg.text), IPC_NOWAIT));
    });
    EXPECT_EQ(sent.value_or("?"), "-1");
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(msgget(65521, 0), -1);
    EXPECT_EQ(msgget(65522, 0), -1);
}

}  // namespace
