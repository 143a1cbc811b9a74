// The daemon program end to end: start-up on a simulated root, both services,
// the queues, orderly stop on SIGTERM, the single-instance test, options and
// the crash path.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
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

// The exit code of a child of ours, or -1 when it did not exit.
int exit_code(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(d.stop(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_FALSE(queue_exists(65521));
    EXPECT_FALSE(queue_exists(65522));
    EXPECT_FALSE(file_exists(d.command_socket()));

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
    root.write_file("/etc/config/appbox.conf", conf.replace(conf.find("Install_Path"), 12, "Installed_At"));
    DaemonProcess d(root);
    ASSERT_GT(d.spawn(), 0);
    EXPECT_EQ(d.wait(5000), 255);
    std::string err = d.stderr_text();
    EXPECT_EQ(err.rfind("[main][", 0), 0u) << err;
    EXPECT_EQ(err.substr(err.find(']', 7)), "] get Install_Path fail.");
    EXPECT_FALSE(queue_exists(65521));
}

TEST(Daemon, ASecondInstanceIsRefusedButAZombieIsNot)
{
    SimRoot root;
    DaemonProcess first(root);
    ASSERT_TRUE(first.start());

    // The same program name started again, with a socket directory of its own.
    TempDir bin;
    const std::vector<std::string> env = {"VEXPROD_PLATFORM_ROOT=" + root.path(), "DV_SOCKET_DIR=" + bin.path()};
    pid_t again = spawn_named(bin.file(first.program()), daemon_binary(), {}, env);
    ASSERT_GT(again, 0);
    EXPECT_EQ(exit_code(again), 255);
    EXPECT_NE(first.debug_log().find("] warning: re-entry.\n"), std::string::npos);
    // It stopped before creating anything: no socket in its directory.
    EXPECT_FALSE(file_exists(bin.file("5CE64BBA.sock")));
    EXPECT_EQ(first.call("test", "{}"), kTestReply);
    EXPECT_EQ(first.stop(), 0);

    // A zombie of the same name does not count.
    DaemonProcess second(root);
    pid_t zombie = spawn_named(bin.file(second.program()), "/bin/true", {}, {});
    ASSERT_GT(zombie, 0);
    ASSERT_TRUE(eventually([&] {
        return read_text_file("/proc/" + std::to_string(zombie) + "/stat").find(") Z ") != std::string::npos;
    }));
    ASSERT_TRUE(second.start()) << second.stderr_text();
    EXPECT_EQ(second.stop(), 0);
    waitpid(zombie, nullptr, 0);
}

TEST(Daemon, LongProgramNamesMatchOnFifteenCharacters)
{
    SimRoot root;
    TempDir bin;
    // A live process whose name shares the first 15 characters.
    pid_t other = spawn_named(bin.file("vexprodlongname-sleeper"), "/bin/sleep", {"30"}, {});
    ASSERT_GT(other, 0);
    const std::vector<std::string> env = {"VEXPROD_PLATFORM_ROOT=" + root.path(), "DV_SOCKET_DIR=" + bin.path()};
    EXPECT_EQ(exit_code(spawn_named(bin.file("vexprodlongname-daemon"), daemon_binary(), {}, env)), 255);
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
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
