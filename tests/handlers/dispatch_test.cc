// Dispatch through the real client: the command tables, unknown names,
// descriptors, and standard output pointed at the caller's descriptor.
#include "daemon/dispatch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>
#include <mutex>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "support/fds.h"
#include "support/files.h"
#include "support/handler_service.h"
#include "support/settle.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kTestReply[] = "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n";
const char kMailTestReply[] =
    "{\"handler\":\"nox_test_sendmail_srv_handler\",\"service\":\"VexProServer_send_mail-vexprod\"}\n";

std::string fd_target(int fd)
{
    char link[64], target[4096];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof(target) - 1);
    return n < 0 ? "" : std::string(target, static_cast<size_t>(n));
}

TEST(CommandTables, HoldEveryNameOnceInTheirContractOrder)
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
    std::set<std::string> seen;
    for (size_t i = 0; i < handler_size; ++i) {
        EXPECT_EQ(handler[i].name, main_names[i]) << "row " << i;
        EXPECT_TRUE(seen.insert(handler[i].name).second) << handler[i].name << " twice";
    }
    EXPECT_EQ(handler[0].handler, &nox_test_handler);

    ASSERT_EQ(sendmail_handler_size, 2u);
    EXPECT_STREQ(sendmail_handler[0].name, "test");
    EXPECT_EQ(sendmail_handler[0].handler, &nox_test_sendmail_srv_handler);
    EXPECT_STREQ(sendmail_handler[1].name, "sendmail");
}

TEST(Dispatch, EachServiceAnswersFromItsOwnTable)
{
    HandlerService main_service(service_handler);
    HandlerService mail_service(sendmail_service_handler);
    int status = -1;
    EXPECT_EQ(main_service.call("test", "", &status), kTestReply);
    EXPECT_EQ(status, DV_STATUS_OK);
    EXPECT_EQ(mail_service.call("test", "{}", &status), kMailTestReply);
    EXPECT_EQ(status, DV_STATUS_OK);
    // Each table knows only its own commands.
    EXPECT_EQ(mail_service.call("get_vpd_eepkey", "", &status), "");
    EXPECT_EQ(status, DV_STATUS_SOCKET);
    EXPECT_EQ(main_service.call("sendmail", "{}", &status), "");
    EXPECT_EQ(status, DV_STATUS_SOCKET);
}

TEST(Dispatch, UnknownNamesCloseAtOnceWithoutReplyOrLog)
{
    HandlerService service;
    // Near misses of real rows.
    const char* names[] = {"Test", "TEST", "test ", " test", "exec_cli\t", "get_vpd_eepke", "", "nope"};
    for (const char* name : names) {
        SCOPED_TRACE(std::string("name '") + name + "'");
        int status = -1;
        auto start = Clock::now();
        EXPECT_EQ(service.call(name, "{}", &status, -1, 10), "");
        auto took = Clock::now() - start;
        EXPECT_EQ(status, DV_STATUS_SOCKET);
        // Closed by the service, not given up on by the client.
        EXPECT_LT(took, std::chrono::seconds(2));
    }
    EXPECT_TRUE(service.log().messages().empty());
}

TEST(Dispatch, AThousandUnknownRequestsLeakNoDescriptor)
{
    HandlerService service;
    EXPECT_EQ(service.call("test", ""), kTestReply);  // every lazy resource made once
    int pipefd[2];
    ASSERT_EQ(pipe2(pipefd, O_CLOEXEC), 0);
    const int before = settled_fd_count();

    auto start = Clock::now();
    for (int i = 0; i < 1000; ++i) {
        int status = -1;
        // Every tenth request brings an extra descriptor, which the service
        // must close as well.
        service.call(i % 2 ? "Test" : "test ", "{}", &status, i % 10 == 0 ? pipefd[1] : -1);
        ASSERT_EQ(status, DV_STATUS_SOCKET) << "request " << i;
    }
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    RecordProperty("unknown_1000_ms", static_cast<int>(took.count()));

    EXPECT_EQ(settled_fd_count(), before);
    // With our own write end gone, the pipe reads end of file only if no
    // copy of it is left open in the service.
    close(pipefd[1]);
    char c;
    EXPECT_EQ(read(pipefd[0], &c, 1), 0);
    close(pipefd[0]);
}

// A test-only table: its handlers write to standard output, look at what
// descriptor 1 is while they run, and may leave the client without a reply.
// Written by the handler thread, read by the test after the reply: the
// lock makes that order visible to thread checkers too.
std::mutex g_seen_lock;
std::string g_stdout_during;
int g_fd_seen = -2;

struct Seen {
    int fd;
    std::string stdout_target;
};

Seen seen()
{
    std::lock_guard<std::mutex> g(g_seen_lock);
    return {g_fd_seen, g_stdout_during};
}

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

const T_COMMAND_ENTRY kTestTable[] = {
    {"print", print_handler},
    {"silent", silent_handler},
    {"print", silent_handler},  // never reached: the first match wins
    {"unwritten", nullptr},     // a known name without a handler
};

void test_table_exec(const char* name, dv_io* io, int fd)
{
    dispatch_command(kTestTable, std::size(kTestTable), name, io, fd);
}

TEST(Dispatch, ARowWithoutAHandlerClosesAtOnceWithoutReply)
{
    HandlerService service(test_table_exec, 1);
    int status = -1;
    auto start = Clock::now();
    EXPECT_EQ(service.call("unwritten", "{}", &status, -1, 10), "");
    EXPECT_EQ(status, DV_STATUS_SOCKET);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_TRUE(service.log().messages().empty());
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
    EXPECT_EQ(seen().stdout_target, pipe_name);
    EXPECT_GE(seen().fd, 0);
    EXPECT_TRUE(eventually([] { return fd_target(STDOUT_FILENO) == "/dev/null"; }));

    close(pipefd[1]);
    std::string got;
    char buf[256];
    for (ssize_t n; (n = read(pipefd[0], buf, sizeof(buf))) > 0;)
        got.append(buf, static_cast<size_t>(n));
    close(pipefd[0]);
    EXPECT_EQ(got, "written to descriptor 1\nprinted by print_handler");

    // Without a descriptor the handler runs all the same, on /dev/null.
    {
        std::lock_guard<std::mutex> g(g_seen_lock);
        g_fd_seen = -2;
    }
    EXPECT_EQ(service.call("print", "", &status), "{\"result\":0}\n");
    EXPECT_EQ(seen().fd, -1);
    EXPECT_EQ(seen().stdout_target, "/dev/null");
}

TEST(Dispatch, AHandlerThatDoesNotReplyStillReleasesTheClient)
{
    HandlerService service(test_table_exec, 1);
    const int before = settled_fd_count();
    int status = -1;
    auto start = Clock::now();
    EXPECT_EQ(service.call("silent", "{}", &status, -1, 10), "");
    EXPECT_EQ(status, DV_STATUS_SOCKET);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(settled_fd_count(), before);
}

}  // namespace
