// Share locks, share privileges, the search-index exclusion and the analytics
// records end to end: the exact argument vector each program receives, the
// replies, and the input errors that run nothing.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const char kShell[] = "/opt/VexProServer/VexProServer.sh";

// The programs these handlers run, without the registry look-ups.
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
        EXPECT_EQ(calls_except_conf_get(root_), (std::vector<SimCall>{{r.program, r.argv, std::nullopt}}));
    }

    // Texts a shell would have mangled, and empty ones, arrive as single
    // arguments, unchanged.
    root_.clear_calls();
    Json::Value req;
    req["share_name"] = kAwkward;
    EXPECT_EQ(call("system_call_share_lock_add", Json::FastWriter().write(req)), kOk);
    req = Json::Value();
    req["provide_id"] = "vexpro";
    req["command"] = "send";
    req["record_type"] = "";
    req["record_text"] = kAwkward;
    EXPECT_EQ(call("system_call_cloud_analysis_send", Json::FastWriter().write(req)), kOk);
    EXPECT_EQ(call("system_zel_smb_setfolder_priv", R"({"share_name": "", "command": "", "priv_type": ""})"), kOk);
    EXPECT_EQ(calls_except_conf_get(root_),
              (std::vector<SimCall>{
                  {PATH_SHARE_LOCK, {"share_lock", "add", kAwkward, "VexProServer"}, std::nullopt},
                  {PATH_METRIX_TOOL, {"metrix_tool", "send", "-p", "vexpro", "-r", "", "-e", kAwkward}, std::nullopt},
                  {PATH_SMB_UPDATE, {"vex_smb_update.sh", "", "", ""}, std::nullopt}}));
}

TEST_F(SharesAndAnalytics, ANonZeroExitOrAMissingProgramGivesTheFailureText)
{
    for (int status : {1, 255}) {
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

TEST_F(SharesAndAnalytics, InputErrorsAndAMissingControlScriptRunNothing)
{
    const std::pair<const char*, std::string> parse_errors[] = {
        {"system_call_share_lock_remove", R"({"share_name": 5})"},
        {"system_call_share_lock_add", R"({"share": "Recordings"})"},
        // Cut short at the NUL, it would lock another share than the one checked.
        {"system_call_share_lock_add", R"({"share_name": "Rec\u0000ordings"})"},
        {"system_call_tandex_list_add", R"({"exclude_name": "vexpro"})"},
        {"system_zel_smb_setfolder_priv", R"({"share_name": "R", "command": "set"})"},
        {"system_call_cloud_analysis_register", R"({"provide_id": "vexpro"})"},
        {"system_call_cloud_analysis_send",
         R"({"provide_id": "vexpro", "command": "send", "record_type": "usage", "record_text": {"cams": 4}})"},
        {"system_call_cloud_analysis_flush", R"({"provide_id": 7, "command": "flush"})"},
    };
    for (const auto& [command, request] : parse_errors)
        EXPECT_EQ(call(command, request), kParseError) << command << " " << request;
    EXPECT_EQ(call("system_call_share_lock_add", ""), kInputError);
    EXPECT_EQ(call("system_call_cloud_analysis_unregister", ""), kInputError);
    EXPECT_TRUE(root_.calls().empty());
    EXPECT_NE(daemon_.debug_log().find("share_name Type fail, this input value type is int."), std::string::npos);

    // No "Shell" entry in the registry, an empty one, a relative one.
    const std::string conf = root_.read_file(PATH_APPBOX_CONF);
    const std::string shell_line = std::string("Shell = ") + kShell + "\n";
    const size_t at = conf.find(shell_line);
    ASSERT_NE(at, std::string::npos) << conf;
    for (const char* replacement : {"", "Shell =\n", "Shell = x.sh\n"}) {
        SCOPED_TRACE(replacement);
        root_.write_file(PATH_APPBOX_CONF, std::string(conf).replace(at, shell_line.size(), replacement));
        EXPECT_EQ(call("system_call_tandex_list_add", R"({"exclude_name": "vexpro", "exclude_path": "/share/R"})"),
                  failure("nox_system_call_tandex_list_add_handler"));
        EXPECT_TRUE(calls_except_conf_get(root_).empty());
    }
}

}  // namespace
