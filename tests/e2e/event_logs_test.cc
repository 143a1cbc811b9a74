// The event-log writers through the daemon program: log_tool's and
// conn_log_tool's argument vectors, both reply shapes on failure, the
// argument checks, and the lines each writes to the debug log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const std::string kSys = "nox_system_call_log_tool_handler";
const std::string kConn = "nox_system_conn_log_tool_handler";
const char kConnRequest[] =
    R"({"log_type":1,"service_type":5,"action_type":-2,"log_mseg":"login from \"cam 3\"",)"
    R"("user_name":"alice","IP":"192.168.1.20","computer_name":"NVR-PC"})";

class EventLogs : public DaemonPerSuite<EventLogs> {};

// Every value is one argument in its place: an empty text must not shift the
// options after it, and the 32-bit extremes pass unchanged.
TEST_F(EventLogs, EachWriterRunsItsToolWithTheExactArgumentsAndLogsThem)
{
    struct Case {
        const char* command;
        std::string request;
        std::string program;
        Argv argv;
    };
    const Case cases[] = {
        {"system_call_log_tool", R"({"log_type":-3,"log_mseg":"disk 2: S.M.A.R.T. warning"})", PATH_LOG_TOOL,
         {"log_tool", "-t", "-3", "-a", "disk 2: S.M.A.R.T. warning"}},
        {"system_call_log_tool", R"({"log_type":0,"log_mseg":""})", PATH_LOG_TOOL, {"log_tool", "-t", "0", "-a", ""}},
        {"system_conn_log_tool", kConnRequest, PATH_CONN_LOG_TOOL,
         {"conn_log_tool", "-t", "1", "-i", "5", "-n", "-2", "-a", "login from \"cam 3\"", "-u", "alice", "-p",
          "192.168.1.20", "-m", "NVR-PC"}},
        {"system_conn_log_tool",
         R"({"log_type":2147483647,"service_type":0,"action_type":-2147483648,"log_mseg":"",)"
         R"("user_name":"","IP":"","computer_name":""})",
         PATH_CONN_LOG_TOOL,
         {"conn_log_tool", "-t", "2147483647", "-i", "0", "-n", "-2147483648", "-a", "", "-u", "", "-p", "", "-m",
          ""}},
    };
    std::vector<std::string> sys_lines;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request);
        root_->clear_calls();
        EXPECT_EQ(call(c.command, c.request), kOk);
        EXPECT_EQ(argvs(c.program), std::vector<Argv>{c.argv});
        EXPECT_EQ(root_->calls().size(), 1u);
        for (size_t i = 0; c.program == PATH_LOG_TOOL && i < c.argv.size(); i++)
            sys_lines.push_back("[" + kSys + "][#] argv:" + std::to_string(i) + " , index:" + c.argv[i] + " .");
    }
    // The system log names each argument; the connection log the entry once.
    EXPECT_EQ(log_of(kSys), sys_lines);
    const std::vector<std::string> conn_lines = log_of(kConn);
    ASSERT_EQ(conn_lines.size(), 2u);
    EXPECT_EQ(conn_lines[0], "[" + kConn +
                                 "][#] LogType:1 , ServiceType:5, ActionType:-2, LogMsg:login from \"cam 3\", "
                                 "UserName:alice, IP:192.168.1.20, ComputerName:NVR-PC .");
}

TEST_F(EventLogs, AFailingToolGivesEachHandlersOwnFailureShape)
{
    root_->set_exit(PATH_LOG_TOOL, 1);
    root_->set_exit(PATH_CONN_LOG_TOOL, 4);
    EXPECT_EQ(call("system_call_log_tool", R"({"log_type":1,"log_mseg":"m"})"),
              "{\"error_code\":-1,\"error_msg\":\"nox_system_call_log_tool_handler fail\"}\n");
    // The connection log's failure names the system log's handler, as it always has.
    EXPECT_EQ(call("system_conn_log_tool", kConnRequest), failure(kSys));
    std::vector<std::string> conn_log = log_of(kConn);
    ASSERT_EQ(conn_log.size(), 2u);
    EXPECT_EQ(conn_log[1], "[" + kConn + "][#] fail .");
    // The system log's failure adds nothing to its argument lines.
    EXPECT_EQ(log_of(kSys).size(), 5u);
}

TEST_F(EventLogs, BadArgumentsAreRefusedBeforeAnythingRuns)
{
    std::string conn_as_text = kConnRequest;
    conn_as_text.replace(conn_as_text.find("\"log_type\":1"), 12, "\"log_type\":\"1\"");
    std::string conn_without_ip = kConnRequest;
    conn_without_ip.replace(conn_without_ip.find("\"IP\""), 4, "\"ip\"");
    const std::pair<const char*, std::string> parse_errors[] = {
        {"system_call_log_tool", R"({"log_type":"1","log_mseg":"m"})"},
        {"system_call_log_tool", R"({"log_type":4294967296,"log_mseg":"m"})"},
        {"system_call_log_tool", R"({"log_type":1,"log_mseg":7})"},
        {"system_call_log_tool", R"({"log_type":1})"},
        {"system_call_log_tool", "log_type=1"},
        {"system_conn_log_tool", conn_as_text},
        {"system_conn_log_tool", conn_without_ip},
    };
    for (const auto& [command, request] : parse_errors)
        EXPECT_EQ(call(command, request), kParseError) << command << " " << request;
    EXPECT_EQ(call("system_call_log_tool", ""), kInputError);
    EXPECT_EQ(call("system_conn_log_tool", ""), kInputError);
    EXPECT_EQ(root_->calls(), std::vector<SimCall>{});
    // Nothing was run, so nothing was announced as run either.
    EXPECT_EQ(log_of(kSys), (std::vector<std::string>{"[" + kSys + "][#] dv_io input fail."}));
    EXPECT_EQ(log_of(kConn), (std::vector<std::string>{"[" + kConn + "][#] dv_io input fail."}));
}

}  // namespace
