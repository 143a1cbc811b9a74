// Share locks, share privileges, the search-index exclusion and the analytics
// records, end to end through the daemon on a simulated platform: the exact
// argument vector each program receives, the replies, and the input errors
// that run nothing.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const char kShell[] = "/opt/VexProServer/VexProServer.sh";

// Only the programs these handlers run; the registry look-up of the control
// script goes through conf_get and is not what is being checked here.
std::vector<SimCall> calls_except_conf_get(const SimRoot& root)
{
    std::vector<SimCall> out;
    for (const SimCall& call : root.calls())
        if (call.who != PATH_CONF_GET)
            out.push_back(call);
    return out;
}

// One command, one request, and the one program run it must cause.
struct Invocation {
    const char* command;
    std::string request;
    const char* program;
    Argv argv;
    const char* handler;
};

// Texts a caller may well send and that a shell would have mangled.
const std::string kAwkward = "Rec 2024 \"front\" 'door'\n$HOME;*\t\\";

const Invocation kRuns[] = {
    {"system_call_share_lock_add", R"({"share_name": "Recordings"})", PATH_SHARE_LOCK,
     {"share_lock", "add", "Recordings", "VexProServer"}, "nox_system_call_share_lock_add_handler"},
    {"system_call_share_lock_remove", R"({"share_name": "Recordings"})", PATH_SHARE_LOCK,
     {"share_lock", "remove", "Recordings"}, "nox_system_call_share_lock_remove_handler"},
    {"system_call_tandex_list_add", R"({"exclude_name": "vexpro", "exclude_path": "/share/Recordings/.vex"})", kShell,
     {"VexProServer.sh", "fabric_tandex_list_add", "vexpro", "/share/Recordings/.vex"},
     "nox_system_call_tandex_list_add_handler"},
    // The request lists the share first; the script takes its command first.
    {"system_zel_smb_setfolder_priv", R"({"share_name": "Recordings", "command": "set", "priv_type": "ro"})",
     PATH_SMB_UPDATE, {"vex_smb_update.sh", "set", "Recordings", "ro"}, "nox_system_zel_smb_setfolder_priv_handler"},
    {"system_call_cloud_analysis_register", R"({"provide_id": "vexpro", "command": "register"})", PATH_METRIX_TOOL,
     {"metrix_tool", "register", "-p", "vexpro", "-c", "/share/DATAVOL1/.@analytic"},
     "nox_system_call_cloud_analysis_register_handler"},
    {"system_call_cloud_analysis_send",
     R"({"record_text": "{\"cams\": 4}", "record_type": "usage", "command": "send", "provide_id": "vexpro"})",
     PATH_METRIX_TOOL, {"metrix_tool", "send", "-p", "vexpro", "-r", "usage", "-e", "{\"cams\": 4}"},
     "nox_system_call_cloud_analysis_send_handler"},
    {"system_call_cloud_analysis_flush", R"({"provide_id": "vexpro", "command": "flush"})", PATH_METRIX_TOOL,
     {"metrix_tool", "flush", "-p", "vexpro"}, "nox_system_call_cloud_analysis_flush_handler"},
    // The caller's command decides what the tool does, whatever the handler.
    {"system_call_cloud_analysis_unregister", R"({"provide_id": "vexpro", "command": "flush"})", PATH_METRIX_TOOL,
     {"metrix_tool", "flush", "-p", "vexpro"}, "nox_system_call_cloud_analysis_unregister_handler"},
};

class SharesAndAnalytics : public DaemonPerTest {};

TEST_F(SharesAndAnalytics, EachCommandRunsItsProgramOnceWithTheExactArguments)
{
    for (const Invocation& r : kRuns) {
        SCOPED_TRACE(r.command);
        root_.clear_calls();
        EXPECT_EQ(call(r.command, r.request), kOk);
        const std::vector<SimCall> calls = calls_except_conf_get(root_);
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].who, r.program);
        EXPECT_EQ(calls[0].argv, r.argv);
    }
    // Nothing went astray on the daemon's own output.
    EXPECT_EQ(daemon_.stop(), 0);
    EXPECT_EQ(daemon_.stderr_text(), "");
}

TEST_F(SharesAndAnalytics, AwkwardAndEmptyTextsArriveAsSingleArgumentsUnchanged)
{
    Json::Value req;
    req["share_name"] = kAwkward;
    const std::string share = Json::FastWriter().write(req);
    EXPECT_EQ(call("system_call_share_lock_add", share), kOk);
    EXPECT_EQ(call("system_call_share_lock_remove", share), kOk);
    EXPECT_EQ(argvs(PATH_SHARE_LOCK),
              (std::vector<Argv>{{"share_lock", "add", kAwkward, "VexProServer"}, {"share_lock", "remove", kAwkward}}));

    req = Json::Value();
    req["provide_id"] = "vexpro";
    req["command"] = "send";
    req["record_type"] = "";
    req["record_text"] = kAwkward;
    EXPECT_EQ(call("system_call_cloud_analysis_send", Json::FastWriter().write(req)), kOk);
    EXPECT_EQ(argvs(PATH_METRIX_TOOL),
              (std::vector<Argv>{{"metrix_tool", "send", "-p", "vexpro", "-r", "", "-e", kAwkward}}));

    // Empty strings are accepted and passed on as empty arguments.
    EXPECT_EQ(call("system_zel_smb_setfolder_priv", R"({"share_name": "", "command": "", "priv_type": ""})"), kOk);
    EXPECT_EQ(argvs(PATH_SMB_UPDATE), (std::vector<Argv>{{"vex_smb_update.sh", "", "", ""}}));
    EXPECT_EQ(call("system_call_tandex_list_add", R"({"exclude_name": "a b", "exclude_path": ""})"), kOk);
    EXPECT_EQ(argvs(kShell), (std::vector<Argv>{{"VexProServer.sh", "fabric_tandex_list_add", "a b", ""}}));
}

TEST_F(SharesAndAnalytics, ANonZeroExitOrAMissingProgramGivesTheFailureText)
{
    for (int status : {1, 2, 255}) {
        for (const Invocation& r : kRuns) {
            SCOPED_TRACE(std::string(r.command) + " exit " + std::to_string(status));
            root_.set_exit(r.program, status);
            root_.clear_calls();
            EXPECT_EQ(call(r.command, r.request), failure(r.handler));
            // It ran once all the same, and was not retried.
            EXPECT_EQ(argvs(r.program), std::vector<Argv>{r.argv});
        }
    }
    root_.reset();
    for (const Invocation& r : kRuns) {
        SCOPED_TRACE(std::string(r.command) + " missing");
        root_.remove(r.program);
        EXPECT_EQ(call(r.command, r.request), failure(r.handler));
    }
}

TEST_F(SharesAndAnalytics, WithoutAControlScriptTheExclusionFailsAndRunsNothing)
{
    const std::string request = R"({"exclude_name": "vexpro", "exclude_path": "/share/Recordings"})";
    const std::string fail = failure("nox_system_call_tandex_list_add_handler");
    std::string conf = root_.read_file(PATH_APPBOX_CONF);
    const std::string shell_line = std::string("Shell = ") + kShell + "\n";
    const size_t at = conf.find(shell_line);
    ASSERT_NE(at, std::string::npos) << conf;

    // No "Shell" entry at all, then one that is empty, then a relative one.
    for (const std::string& replacement : {std::string(), std::string("Shell =\n"), std::string("Shell = x.sh\n")}) {
        SCOPED_TRACE(replacement);
        std::string changed = conf;
        changed.replace(at, shell_line.size(), replacement);
        root_.write_file(PATH_APPBOX_CONF, changed);
        root_.clear_calls();
        EXPECT_EQ(call("system_call_tandex_list_add", request), fail);
        EXPECT_TRUE(calls_except_conf_get(root_).empty());
    }
}

TEST_F(SharesAndAnalytics, InputErrorsReplyAndRunNothing)
{
    struct Case {
        const char* command;
        std::string request;
        const std::string& reply;
    };
    const Case cases[] = {
        {"system_call_share_lock_remove", R"({"share_name": 5})", kParseError},
        {"system_call_share_lock_add", R"({"share": "Recordings"})", kParseError},
        {"system_call_share_lock_add", "", kInputError},
        {"system_call_tandex_list_add", R"({"exclude_name": "vexpro"})", kParseError},
        {"system_zel_smb_setfolder_priv", R"({"share_name": "R", "command": "set"})", kParseError},
        {"system_call_cloud_analysis_register", R"({"provide_id": "vexpro"})", kParseError},
        {"system_call_cloud_analysis_send", R"({"provide_id": "vexpro", "command": "send", "record_type": "usage"})",
         kParseError},
        {"system_call_cloud_analysis_send",
         R"({"provide_id": "vexpro", "command": "send", "record_type": "usage", "record_text": {"cams": 4}})",
         kParseError},
        {"system_call_cloud_analysis_flush", R"({"provide_id": 7, "command": "flush"})", kParseError},
        {"system_call_cloud_analysis_unregister", "", kInputError},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.command) + " " + c.request);
        root_.clear_calls();
        EXPECT_EQ(call(c.command, c.request), c.reply);
        EXPECT_TRUE(root_.calls().empty());
    }
    EXPECT_NE(daemon_.debug_log().find("share_name Type fail, this input value type is int."), std::string::npos);
}

}  // namespace
