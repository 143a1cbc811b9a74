// The event-log writers through the daemon program: log_tool's and
// conn_log_tool's argument vectors, both reply shapes on failure, the
// argument checks, and the lines each writes to the debug log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const char kConnRequest[] =
    R"({"log_type":1,"service_type":5,"action_type":-2,"log_mseg":"login from \"cam 3\"",)"
    R"("user_name":"alice","IP":"192.168.1.20","computer_name":"NVR-PC"})";

class EventLogs : public DaemonPerSuite<EventLogs> {};

TEST_F(EventLogs, SystemLogRunsLogToolAndLogsEachArgument)
{
    EXPECT_EQ(call("system_call_log_tool", R"({"log_type":-3,"log_mseg":"disk 2: S.M.A.R.T. warning"})"),
              "{\"result\":0}\n");
    EXPECT_EQ(argvs(PATH_LOG_TOOL), (std::vector<Argv>{{"log_tool", "-t", "-3", "-a", "disk 2: S.M.A.R.T. warning"}}));
    EXPECT_EQ(root_->calls().size(), 1u);
    const std::vector<std::string> expected = {
        "[nox_system_call_log_tool_handler][#] argv:0 , index:log_tool .",
        "[nox_system_call_log_tool_handler][#] argv:1 , index:-t .",
        "[nox_system_call_log_tool_handler][#] argv:2 , index:-3 .",
        "[nox_system_call_log_tool_handler][#] argv:3 , index:-a .",
        "[nox_system_call_log_tool_handler][#] argv:4 , index:disk 2: S.M.A.R.T. warning .",
    };
    EXPECT_EQ(log_of("nox_system_call_log_tool_handler"), expected);
}

TEST_F(EventLogs, ConnectionLogRunsConnLogToolAndLogsTheEntryOnce)
{
    EXPECT_EQ(call("system_conn_log_tool", kConnRequest), "{\"result\":0}\n");
    const Argv argv = {"conn_log_tool", "-t", "1",     "-i", "5",            "-n", "-2",
                       "-a",            "login from \"cam 3\"", "-u", "alice", "-p", "192.168.1.20", "-m", "NVR-PC"};
    EXPECT_EQ(argvs(PATH_CONN_LOG_TOOL), std::vector<Argv>{argv});
    EXPECT_EQ(root_->calls().size(), 1u);
    EXPECT_EQ(log_of("nox_system_conn_log_tool_handler"),
              std::vector<std::string>{"[nox_system_conn_log_tool_handler][#] LogType:1 , ServiceType:5, "
                                       "ActionType:-2, LogMsg:login from \"cam 3\", UserName:alice, "
                                       "IP:192.168.1.20, ComputerName:NVR-PC ."});
}

TEST_F(EventLogs, EmptyTextsStayArgumentsOfTheirOwn)
{
    // A machine without a name (or a message without text) must not shift
    // the options after it: the tool accepts the call only if it does not.
    EXPECT_EQ(call("system_conn_log_tool",
                   R"({"log_type":2147483647,"service_type":0,"action_type":-2147483648,"log_mseg":"",)"
                   R"("user_name":"","IP":"","computer_name":""})"),
              "{\"result\":0}\n");
    EXPECT_EQ(call("system_call_log_tool", R"({"log_type":0,"log_mseg":""})"), "{\"result\":0}\n");
    const std::vector<Argv> conn = {{"conn_log_tool", "-t", "2147483647", "-i", "0", "-n", "-2147483648", "-a", "",
                                     "-u", "", "-p", "", "-m", ""}};
    EXPECT_EQ(argvs(PATH_CONN_LOG_TOOL), conn);
    EXPECT_EQ(argvs(PATH_LOG_TOOL), (std::vector<Argv>{{"log_tool", "-t", "0", "-a", ""}}));
}

TEST_F(EventLogs, AFailingToolGivesEachHandlersOwnFailureShape)
{
    root_->set_exit(PATH_LOG_TOOL, 1);
    root_->set_exit(PATH_CONN_LOG_TOOL, 4);
    EXPECT_EQ(call("system_call_log_tool", R"({"log_type":1,"log_mseg":"m"})"),
              "{\"error_code\":-1,\"error_msg\":\"nox_system_call_log_tool_handler fail\"}\n");
    EXPECT_EQ(call("system_conn_log_tool", kConnRequest),
              "{\"error_msg\":\"nox_system_call_log_tool_handler fail\",\"result\":-1}\n");
    std::vector<std::string> conn_log = log_of("nox_system_conn_log_tool_handler");
    ASSERT_EQ(conn_log.size(), 2u);
    EXPECT_EQ(conn_log[1], "[nox_system_conn_log_tool_handler][#] fail .");
    // The system log's failure adds nothing to its argument lines.
    EXPECT_EQ(log_of("nox_system_call_log_tool_handler").size(), 5u);
}

TEST_F(EventLogs, BadArgumentsAreRefusedBeforeAnythingRuns)
{
    const char* paser_fail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
    const char* input_error = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
    struct Case {
        const char* command;
        std::string request;
        const char* reply;
    };
    std::string conn_as_text = kConnRequest;
    conn_as_text.replace(conn_as_text.find("\"log_type\":1"), 12, "\"log_type\":\"1\"");
    std::string conn_without_ip = kConnRequest;
    conn_without_ip.replace(conn_without_ip.find("\"IP\""), 4, "\"ip\"");
    const Case cases[] = {
        {"system_call_log_tool", R"({"log_type":"1","log_mseg":"m"})", paser_fail},
        {"system_call_log_tool", R"({"log_type":1.5,"log_mseg":"m"})", paser_fail},
        {"system_call_log_tool", R"({"log_type":4294967296,"log_mseg":"m"})", paser_fail},
        {"system_call_log_tool", R"({"log_type":1,"log_mseg":7})", paser_fail},
        {"system_call_log_tool", R"({"log_type":1})", paser_fail},
        {"system_call_log_tool", "log_type=1", paser_fail},
        {"system_call_log_tool", "", input_error},
        {"system_conn_log_tool", conn_as_text, paser_fail},
        {"system_conn_log_tool", conn_without_ip, paser_fail},
        {"system_conn_log_tool", R"({"log_type":1})", paser_fail},
        {"system_conn_log_tool", "", input_error},
    };
    for (const Case& c : cases)
        EXPECT_EQ(call(c.command, c.request), c.reply) << c.command << " " << c.request;
    EXPECT_EQ(root_->calls(), std::vector<SimCall>{});
    // Nothing was run, so nothing was announced as run either.
    EXPECT_EQ(log_of("nox_system_call_log_tool_handler"),
              (std::vector<std::string>{"[nox_system_call_log_tool_handler][#] dv_io input fail."}));
    EXPECT_EQ(log_of("nox_system_conn_log_tool_handler"),
              (std::vector<std::string>{"[nox_system_conn_log_tool_handler][#] dv_io input fail."}));
}

}  // namespace
