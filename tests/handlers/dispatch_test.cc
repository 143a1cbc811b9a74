// Dispatch through the real client: the command tables, unknown names,
// descriptors, and standard output pointed at the caller's descriptor.
#include "daemon/dispatch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "support/handler_service.h"
#include "support/settle.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kTestReply[] = "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n";

std::string fd_target(int fd)
{
    std::error_code ec;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ec);
}

TEST(CommandTables, HoldEveryNameInTheirContractOrder)
{
    // Callers depend on these names; the order decides nothing today, but
    // it is kept so that a table diff shows only what really changed.
    const std::vector<std::string> main_names = {
        "test", "exec_cli", "get_tvdeck_status", "system_call_log_tool", "system_conn_log_tool", "get_sess_id",
        "system_call_share_lock_add", "system_call_share_lock_remove", "system_call_vexpro_disable",
        "get_vpd_productnamed", "get_vpd_eepkey", "get_vpd_channel", "get_vpd_ext_area", "is_generic_model",
        "get_platform_display_name", "system_call_cloud_analysis_register", "system_call_cloud_analysis_send",
        "system_call_cloud_analysis_flush", "system_call_cloud_analysis_unregister", "system_zel_smb_setfolder_priv",
        "system_call_share_folder_renew", "system_call_tandex_list_add", "vex_auth_add_session",
        "vex_auth_get_session", "get_sms_config", "get_all_users", "get_all_groups", "get_group_members",
        "system_call_nc_notify", "system_get_tierlink_cloud_usage", "is_zel_model", "update_ip_ban_list",
        "notify_return", "system_call_cloud_get_device_list", "system_call_cloud_get_user_token",
        "system_call_cloud_get_host_endpoint", "system_call_cloud_get_host_site",
        "system_call_cloud_get_access_token", "reverse_proxy", "web_booth", "install_app", "cmv_cli"};
    ASSERT_EQ(handler_size, main_names.size());
    for (size_t i = 0; i < handler_size; ++i)
        EXPECT_EQ(handler[i].name, main_names[i]) << "row " << i;
    ASSERT_EQ(sendmail_handler_size, 2u);
    EXPECT_STREQ(sendmail_handler[0].name, "test");
    EXPECT_STREQ(sendmail_handler[1].name, "sendmail");
}

TEST(Dispatch, EachServiceAnswersFromItsOwnTable)
{
    // One at a time: each sets up the process's one debug log.
    int status = -1;
    {
        HandlerService main_service(service_handler);
        EXPECT_EQ(main_service.call("test", "", &status), kTestReply);
        EXPECT_EQ(status, DV_STATUS_OK);
        // Each table knows only its own commands.
        EXPECT_EQ(main_service.call("sendmail", "{}", &status), "");
        EXPECT_EQ(status, DV_STATUS_SOCKET);
    }
    HandlerService mail_service(sendmail_service_handler);
    EXPECT_EQ(mail_service.call("test", "{}", &status),
              "{\"handler\":\"nox_test_sendmail_srv_handler\",\"service\":\"VexProServer_send_mail-vexprod\"}\n");
    EXPECT_EQ(status, DV_STATUS_OK);
    EXPECT_EQ(mail_service.call("get_vpd_eepkey", "", &status), "");
    EXPECT_EQ(status, DV_STATUS_SOCKET);
}

// Near misses of real rows close the connection at once (not after the
// client's timeout), with no reply and no log line but their audit line.
TEST(Dispatch, UnknownNamesCloseAtOnceWithoutReplyOrLog)
{
    HandlerService service;
    for (const char* name : {"Test", "test ", "exec_cli\t", "get_vpd_eepke", ""}) {
        int status = -1;
        auto start = Clock::now();
        EXPECT_EQ(service.call(name, "{}", &status, -1, 10), "") << "'" << name << "'";
        EXPECT_EQ(status, DV_STATUS_SOCKET) << "'" << name << "'";
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << "'" << name << "'";
    }
    EXPECT_TRUE(eventually([&] { return service.log().messages_with(": no reply, ").size() == 5; }));
    EXPECT_EQ(service.log().messages().size(), 5u);
}

TEST(Dispatch, AThousandUnknownRequestsLeakNoDescriptor)
{
    HandlerService service;
    EXPECT_EQ(service.call("test", ""), kTestReply);  // every lazy resource made once
    int pipefd[2];
    ASSERT_EQ(pipe2(pipefd, O_CLOEXEC), 0);
    const int before = settled_fd_count();
    for (int i = 0; i < 1000; ++i) {
        int status = -1;
        // Every tenth request brings an extra descriptor, which the service
        // must close as well.
        service.call(i % 2 ? "Test" : "test ", "{}", &status, i % 10 == 0 ? pipefd[1] : -1);
        ASSERT_EQ(status, DV_STATUS_SOCKET) << "request " << i;
    }
    EXPECT_EQ(settled_fd_count(), before);
    // With our own write end gone, the pipe reads end of file only if no
    // copy of it is left open in the service.
    close(pipefd[1]);
    char c;
    EXPECT_EQ(read(pipefd[0], &c, 1), 0);
    close(pipefd[0]);
}

// A test-only table whose handlers write to standard output, note what
// descriptor 1 is while they run, or leave the client without a reply.
// Written by the handler thread, read by the test after the reply: the lock
// makes that order visible to thread checkers too.
std::mutex g_seen_lock;
std::string g_stdout_during;
int g_fd_seen = -2;

void print_handler(dv_io* io, int fd)
{
    {
        std::lock_guard<std::mutex> g(g_seen_lock);
        g_fd_seen = fd;
        g_stdout_during = fd_target(STDOUT_FILENO);
    }
    // Left in stdio's buffer on purpose (no newline, so even a line-buffered
    // stdout keeps it): the dispatcher must flush it to the client before it
    // lets go of the descriptor.
    printf("printed by %s", "print_handler");
    const char raw[] = "written to descriptor 1\n";
    (void)!write(STDOUT_FILENO, raw, sizeof(raw) - 1);
    Json::Value reply;
    reply["result"] = 0;
    send_reply(io, reply);
}

void silent_handler(dv_io*, int) {}
void throwing_handler(dv_io*, int) { throw std::bad_alloc(); }

const T_COMMAND_ENTRY kTestTable[] = {
    {"print", print_handler},
    {"silent", silent_handler},
    {"throws", throwing_handler},
    {"print", silent_handler},  // never reached: the first match wins
    {"unwritten", nullptr},     // a known name without a handler
};

void test_table_exec(const char* name, dv_io* io, int fd)
{
    dispatch_command(kTestTable, std::size(kTestTable), name, io, fd);
}

TEST(Dispatch, TheCallersDescriptorIsStandardOutputWhileTheHandlerRuns)
{
    HandlerService service(test_table_exec, 1);
    int pipefd[2];
    ASSERT_EQ(pipe2(pipefd, O_CLOEXEC), 0);
    const std::string pipe_name = fd_target(pipefd[1]);

    int status = -1;
    EXPECT_EQ(service.call("print", "", &status, pipefd[1]), "{\"result\":0}\n");
    EXPECT_EQ(status, DV_STATUS_OK);
    {
        std::lock_guard<std::mutex> g(g_seen_lock);
        EXPECT_EQ(g_stdout_during, pipe_name);
        EXPECT_GE(g_fd_seen, 0);
        g_fd_seen = -2;
    }
    EXPECT_TRUE(eventually([] { return fd_target(STDOUT_FILENO) == "/dev/null"; }));
    close(pipefd[1]);
    std::string got;
    char buf[256];
    for (ssize_t n; (n = read(pipefd[0], buf, sizeof(buf))) > 0;)
        got.append(buf, static_cast<size_t>(n));
    close(pipefd[0]);
    EXPECT_EQ(got, "written to descriptor 1\nprinted by print_handler");

    // Without a descriptor the handler runs all the same, on /dev/null.
    EXPECT_EQ(service.call("print", "", &status), "{\"result\":0}\n");
    std::lock_guard<std::mutex> g(g_seen_lock);
    EXPECT_EQ(g_fd_seen, -1);
    EXPECT_EQ(g_stdout_during, "/dev/null");
}

// A row without a handler, a handler that never replies or one that throws:
// the client is released at once with no reply and no descriptor left
// behind; only the exception is logged.
TEST(Dispatch, NoHandlerOrNoReplyReleasesTheClient)
{
    HandlerService service(test_table_exec, 1);
    const int before = settled_fd_count() + 1;  // the debug log stays open from its first line
    for (const char* name : {"unwritten", "silent", "throws"}) {
        int status = -1;
        auto start = Clock::now();
        EXPECT_EQ(service.call(name, "{}", &status, -1, 10), "") << name;
        EXPECT_EQ(status, DV_STATUS_SOCKET) << name;
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << name;
    }
    EXPECT_EQ(service.log().messages().size(), 1u);
    EXPECT_EQ(service.log().messages_with("] throws ended by an exception: std::bad_alloc").size(), 1u);
    EXPECT_EQ(settled_fd_count(), before);
}

}  // namespace
