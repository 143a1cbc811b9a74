// The daemon program end to end: start-up on a simulated root, both services,
// the queues, orderly stop on SIGTERM, the single-instance test, options and
// the crash path.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/daemon_process.h"
#include "support/files.h"
#include "support/settle.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

namespace {

using namespace std::chrono_literals;

const char kTestReply[] = "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n";

bool queue_exists(int key)
{
    return msgget(key, 0) != -1;
}

// Starts target under the name of link (made afresh) with args and env.
pid_t spawn_named(const std::string& link, const std::string& target, std::vector<std::string> args,
                  std::vector<std::string> env)
{
    unlink(link.c_str());
    if (symlink(target.c_str(), link.c_str()) != 0)
        return -1;
    args.insert(args.begin(), link);
    std::vector<char*> argv, envp;
    for (std::string& a : args)
        argv.push_back(a.data());
    for (std::string& e : env)
        envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, link.c_str(), nullptr, nullptr, argv.data(), envp.data()) == 0 ? pid : -1;
}

TEST(Daemon, ServesBothServicesAndStopsInOrderOnSigterm)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    EXPECT_EQ(d.call("test", "{}"), kTestReply);
    EXPECT_EQ(d.call_mail("test", "{}"),
              "{\"handler\":\"nox_test_sendmail_srv_handler\",\"service\":\"VexProServer_send_mail-vexprod\"}\n");
    EXPECT_TRUE(queue_exists(65521));
    EXPECT_TRUE(queue_exists(65522));
    // Reloading, and signals that would kill it without the orderly stop.
    for (int sig : {SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE})
        kill(d.pid(), sig);
    EXPECT_EQ(d.call("test", "{}"), kTestReply);
    // A program started for a caller does not hold the stop up.
    int status = -1;
    d.call("exec_cli", R"({"command":["/bin/sleep","60"]})", &status, -1, 1);
    EXPECT_EQ(status, 1);

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(d.stop(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_FALSE(queue_exists(65521));
    EXPECT_FALSE(queue_exists(65522));
    EXPECT_FALSE(file_exists(d.command_socket()));
    EXPECT_FALSE(file_exists(d.mail_socket()));

    const std::string log = d.debug_log();
    for (const std::string& line : std::vector<std::string>{
             "] dwe-dv-vexprod start, Server:VexProServer-vexprod.\n", "] sock_name:" + d.command_socket() + ".\n",
          "] send_mail_sock_name:" + d.mail_socket() + ", DV_SEND_MAIL_SERVER_THREAD_NUM:5.\n", "] dv_start.\n",
          "] dv_send_mail_start.\n", "[free_all_obj][", "] is_terminate\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    EXPECT_EQ(d.stderr_text(), "");
}

// Each illegal option is reported and ignored; SIGINT stops it as SIGTERM does.
TEST(Daemon, IllegalOptionsAreReportedAndIgnored)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start({"-x", "-\x01"}));
    EXPECT_EQ(d.stderr_text(), "Illegal option:-x\nIllegal option:-#\n");
    EXPECT_EQ(d.stop(SIGINT), 0);
}

// "-t" stops at once, in order; without an Install_Path it refuses to start
// (-1) with its line on stderr. Neither leaves a queue behind.
TEST(Daemon, TestOptionOrAMissingInstallPathEndItAtOnce)
{
    SimRoot root;
    DaemonProcess test(root);
    ASSERT_GT(test.spawn({"-t"}), 0);
    EXPECT_EQ(test.wait(5000), 0);
    EXPECT_NE(test.debug_log().find("] is_terminate\n"), std::string::npos);
    EXPECT_FALSE(queue_exists(65521));

    std::string conf = root.read_file("/etc/config/appbox.conf");
    ASSERT_NE(conf.find("Install_Path"), std::string::npos);
    // A socket directory others may write into: refused, with the reason.
    DaemonProcess open_dir(root);
    ASSERT_EQ(chmod(open_dir.socket_dir().c_str(), 0777), 0);
    ASSERT_GT(open_dir.spawn(), 0);
    EXPECT_EQ(open_dir.wait(5000), 254);
    EXPECT_EQ(open_dir.stderr_text(), "dwe-dv-vexprod: " + open_dir.socket_dir() +
                                          " is writable by group or others; make it a directory of root's that only "
                                          "root can write, or set DV_SOCKET_DIR.\n");

    root.write_file("/etc/config/appbox.conf", conf.replace(conf.find("Install_Path"), 12, "Installed_At"));
    DaemonProcess d(root);
    ASSERT_GT(d.spawn(), 0);
    EXPECT_EQ(d.wait(5000), 255);
    std::string err = d.stderr_text();
    EXPECT_EQ(err.rfind("[main][", 0), 0u) << err;
    EXPECT_EQ(err.substr(err.find(']', 7)),
              "] get Install_Path fail.\ndwe-dv-vexprod: no Install_Path in [VexProServer] of " + root.path() +
                  "/etc/config/appbox.conf; install the app, or set VEXPROD_PLATFORM_ROOT to a platform root whose "
                  "registry has it.\n");
    EXPECT_FALSE(queue_exists(65521));
}

// A second daemon on the same root is refused, whatever it is called; a
// process named after the daemon (anyone can name one so) is no instance.
TEST(Daemon, ASecondInstanceIsRefusedButAProcessOfTheSameNameIsNot)
{
    SimRoot root;
    TempDir bin;
    pid_t namesake = spawn_named(bin.file("dwe-dv-vexprod"), "/bin/sleep", {"30"}, {});
    ASSERT_GT(namesake, 0);
    DaemonProcess first(root);
    ASSERT_TRUE(first.start()) << first.stderr_text();
    kill(namesake, SIGKILL);
    waitpid(namesake, nullptr, 0);

    DaemonProcess again(root);
    ASSERT_GT(again.spawn(), 0);
    EXPECT_EQ(again.wait(5000), 255);
    EXPECT_NE(first.debug_log().find("] warning: re-entry.\n"), std::string::npos);
    EXPECT_EQ(again.stderr_text(),
              "dwe-dv-vexprod: another instance runs (pid " + std::to_string(first.pid()) + "); stop it first.\n");
    // It stopped before creating anything: no socket in its directory.
    EXPECT_FALSE(file_exists(again.command_socket()));
    EXPECT_EQ(first.call("test", "{}"), kTestReply);
    EXPECT_EQ(first.stop(), 0);
    // The lock ends with its holder.
    ASSERT_TRUE(again.start()) << again.stderr_text();
    EXPECT_EQ(again.stop(), 0);
}

TEST(Daemon, ACrashLeavesABacktraceInTheDebugLogAndKillsTheProcess)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start());
    EXPECT_EQ(d.stop(SIGSEGV), 128 + SIGKILL);
    std::string log = d.debug_log();
    EXPECT_NE(log.find("[vexprod_debug_backtrace_dump]["), std::string::npos) << log;
    EXPECT_NE(log.find("]=========================="), std::string::npos) << log;
    // The dump ends with the program's full invocation name.
    EXPECT_NE(log.find("]" + d.program_path() + "\n"), std::string::npos) << log;
    // Nothing was stopped in order: the queues stay until someone removes them.
    for (int key : {65521, 65522})
        msgctl(msgget(key, 0), IPC_RMID, nullptr);
}

}  // namespace
