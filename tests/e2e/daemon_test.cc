// The daemon program end to end: start-up on a simulated root, both services,
// the queues, orderly stop on SIGTERM, the single-instance test, options and
// the crash path.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/daemon_process.h"
#include "support/files.h"
#include "support/settle.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

namespace {

using namespace std::chrono_literals;

bool queue_exists(int key)
{
    return msgget(key, 0) != -1;
}

// A process running `program` (a link to sleep) under the given name.
pid_t spawn_named(const std::string& link, const char* target, const std::vector<std::string>& args)
{
    unlink(link.c_str());
    if (symlink(target, link.c_str()) != 0)
        return -1;
    std::vector<char*> argv = {const_cast<char*>(link.c_str())};
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    posix_spawn(&pid, link.c_str(), nullptr, nullptr, argv.data(), environ);
    return pid;
}

TEST(Daemon, ServesBothServicesAndStopsInOrderOnSigterm)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start()) << d.stderr_text();
    EXPECT_EQ(d.call("test", "{}"), "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n");
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

    std::string log = d.debug_log();
    const std::vector<std::string> lines = {
        "[main][", "] dwe-dv-vexprod start, Server:VexProServer-vexprod.\n", "] sock_name:" + d.command_socket() + ".\n",
        "] send_mail_sock_name:" + d.mail_socket() + ", DV_SEND_MAIL_SERVER_THREAD_NUM:5.\n", "[pthread_dv_start][",
        "] dv_start.\n", "[pthread_dv_send_mail_start][", "] dv_send_mail_start.\n", "[free_all_obj][",
        "] is_terminate\n"};
    for (const std::string& line : lines)
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    EXPECT_EQ(d.stderr_text(), "");
}

TEST(Daemon, SigintStopsItToo)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start());
    EXPECT_EQ(d.stop(SIGINT), 0);
}

TEST(Daemon, TestOptionStartsAndStopsAtOnce)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_GT(d.spawn({"-t"}), 0);
    EXPECT_EQ(d.wait(5000), 0);
    EXPECT_NE(d.debug_log().find("] is_terminate\n"), std::string::npos);
    EXPECT_FALSE(queue_exists(65521));
}

TEST(Daemon, IllegalOptionsAreReportedAndIgnored)
{
    SimRoot root;
    DaemonProcess d(root);
    ASSERT_TRUE(d.start({"-x", "-\x01"}));
    EXPECT_EQ(d.stderr_text(), "Illegal option:-x\nIllegal option:-#\n");
    EXPECT_EQ(d.stop(), 0);
}

TEST(Daemon, WithoutAnInstallPathItRefusesToStart)
{
    SimRoot root;
    std::string conf = root.read_file("/etc/config/appbox.conf");
    size_t at = conf.find("Install_Path");
    ASSERT_NE(at, std::string::npos);
    conf.replace(at, 12, "Installed_At");
    root.write_file("/etc/config/appbox.conf", conf);
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

    // The same program name started again (a second link of the same name).
    TempDir bin;
    std::string again = bin.file(first.program());
    ASSERT_EQ(symlink(daemon_binary().c_str(), again.c_str()), 0);
    pid_t pid = -1;
    char* argv[] = {const_cast<char*>(again.c_str()), nullptr};
    std::vector<std::string> env = {"VEXPROD_PLATFORM_ROOT=" + root.path(), "DV_SOCKET_DIR=" + bin.path()};
    char* envp[] = {env[0].data(), env[1].data(), nullptr};
    ASSERT_EQ(posix_spawn(&pid, again.c_str(), nullptr, nullptr, argv, envp), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
    std::string log = first.debug_log();
    EXPECT_NE(log.find("] warning: re-entry.\n"), std::string::npos);
    // It stopped before creating anything: no socket in its directory.
    EXPECT_FALSE(file_exists(bin.file("5CE64BBA.sock")));
    // The first instance is unharmed.
    EXPECT_EQ(first.call("test", "{}"), "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n");
    EXPECT_EQ(first.stop(), 0);

    // A zombie of the same name does not count.
    pid_t zombie = spawn_named(bin.file(first.program()), "/bin/true", {});
    ASSERT_GT(zombie, 0);
    ASSERT_TRUE(eventually([&] {
        std::string stat = read_text_file("/proc/" + std::to_string(zombie) + "/stat");
        return stat.find(") Z ") != std::string::npos;
    }));
    DaemonProcess second(root);
    // Run under the zombie's very name.
    ASSERT_TRUE(second.start()) << second.stderr_text();
    EXPECT_EQ(second.stop(), 0);
    waitpid(zombie, nullptr, 0);
}

TEST(Daemon, LongProgramNamesMatchOnFifteenCharacters)
{
    SimRoot root;
    TempDir bin;
    // A live process whose name shares the first 15 characters.
    pid_t other = spawn_named(bin.file("vexprodlongname-sleeper"), "/bin/sleep", {"30"});
    ASSERT_GT(other, 0);
    std::string link = bin.file("vexprodlongname-daemon");
    ASSERT_EQ(symlink(daemon_binary().c_str(), link.c_str()), 0);
    std::vector<std::string> env = {"VEXPROD_PLATFORM_ROOT=" + root.path(), "DV_SOCKET_DIR=" + bin.path()};
    char* envp[] = {env[0].data(), env[1].data(), nullptr};
    char* argv[] = {const_cast<char*>(link.c_str()), nullptr};
    pid_t pid = -1;
    ASSERT_EQ(posix_spawn(&pid, link.c_str(), nullptr, nullptr, argv, envp), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 255);
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
    if (queue_exists(65521))
        msgctl(msgget(65521, 0), IPC_RMID, nullptr);
    if (queue_exists(65522))
        msgctl(msgget(65522, 0), IPC_RMID, nullptr);
}

}  // namespace
