// The media viewer's command line through the daemon program: the tool run
// under the app's Install_Path, installed and enabled as the registry says,
// the tool's exit status passed through, and all five keys on every reply.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const char kTool[] = "/opt/CayinMediaViewer/bin/conf_get";

std::string reply_text(int cli_ret, int is_enabled, int is_installed, int result, const std::string& output)
{
    return "{\"cli_ret\":" + std::to_string(cli_ret) + ",\"is_enabled\":" + std::to_string(is_enabled) +
           ",\"is_installed\":" + std::to_string(is_installed) + ",\"result\":" + std::to_string(result) +
           ",\"result_out\":\"" + encode_base64(output) + "\"}\n";
}

class MediaViewer : public DaemonPerSuite<MediaViewer> {
protected:
    static void SetUpTestSuite()
    {
        DaemonPerSuite::SetUpTestSuite();
        // As the root was made: the daemon only ever reads it.
        registry_ = root_->read_file(PATH_APPBOX_CONF);
    }

    void SetUp() override
    {
        DaemonPerSuite::SetUp();
        root_->write_file(PATH_APPBOX_CONF, registry_);
    }

    std::string call(const std::string& request) { return DaemonPerSuite::call("cmv_cli", request); }
    // The registry with one line of the viewer's section replaced ("" drops it).
    void set_viewer_line(const std::string& key, const std::string& line)
    {
        std::string conf = registry_;
        size_t section = conf.find("[CayinMediaViewer]");
        ASSERT_NE(section, std::string::npos);
        size_t at = conf.find("\n" + key + " ", section);
        ASSERT_NE(at, std::string::npos) << key;
        size_t end = conf.find('\n', at + 1);
        conf.replace(at + 1, end == std::string::npos ? std::string::npos : end + 1 - (at + 1),
                     line.empty() ? "" : line + "\n");
        root_->write_file(PATH_APPBOX_CONF, conf);
    }
    std::vector<Argv> tool_argvs(const std::string& tool = kTool) const { return argvs(tool); }

    static inline std::string registry_;
};

TEST_F(MediaViewer, RunsTheAppsToolWithTheCommandAsOneArgument)
{
    const std::string cmd = "playlist set --name 'lobby screen' ; reboot";
    EXPECT_EQ(call(R"({"cmd":")" + cmd + "\"}"),
              reply_text(0, 1, 1, 0, "CayinMediaViewer: " + cmd + ": OK\n"));
    EXPECT_EQ(tool_argvs(), (std::vector<Argv>{{"conf_get", cmd}}));
}

TEST_F(MediaViewer, TheToolsExitStatusAndOutputPassThroughRaw)
{
    root_->set_output(kTool, "busy\n\xff");
    root_->set_exit(kTool, 3);
    // The raw wait status: exit code 3 reads 768.
    EXPECT_EQ(call(R"({"cmd":"status"})"), reply_text(768, 1, 1, 0, "busy\n\xff"));
}

TEST_F(MediaViewer, EnabledIsTrueInAnyCase)
{
    const struct {
        const char* line;
        int enabled;
    } cases[] = {
        {"Enable = TRUE", 1}, {"Enable = true", 1}, {"Enable = True", 1}, {"Enable = FALSE", 0},
        {"Enable = 1", 0},    {"Enable = yes", 0},  {"Enable = TRUE2", 0}, {"", 0},
    };
    for (const auto& c : cases) {
        set_viewer_line("Enable", c.line);
        Json::Value reply;
        ASSERT_TRUE(Json::Reader().parse(call(R"({"cmd":"status"})"), reply));
        EXPECT_EQ(reply["is_enabled"], c.enabled) << c.line;
        // Disabled is not uninstalled: the tool still runs.
        EXPECT_EQ(reply["is_installed"], 1) << c.line;
    }
    EXPECT_EQ(tool_argvs().size(), std::size(cases));
}

TEST_F(MediaViewer, AnAbsentAppIsReportedInTheOutput)
{
    // The message shows the path as the registry makes it, the same as on
    // the appliance; the line number in it is free.
    struct Case {
        const char* install_line;
        const char* shown_path;
    };
    const Case cases[] = {
        {"", ""},
        {"Install_Path = ", ""},
        {"Install_Path = opt/CayinMediaViewer", "opt/CayinMediaViewer/bin/conf_get"},
        {"Install_Path = /opt/Elsewhere", "/opt/Elsewhere/bin/conf_get"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.install_line);
        set_viewer_line("Install_Path", c.install_line);
        Json::Value reply;
        ASSERT_TRUE(Json::Reader().parse(call(R"({"cmd":"status"})"), reply));
        EXPECT_EQ(reply["cli_ret"], -1);
        EXPECT_EQ(reply["is_installed"], 0);
        EXPECT_EQ(reply["is_enabled"], 1);
        EXPECT_EQ(reply["result"], 0);
        EXPECT_EQ(reply.size(), 5u);
        EXPECT_EQ(without_line_number(decode_base64(reply["result_out"].asString()), "nox_cmv_cli_handler"),
                  std::string("[nox_cmv_cli_handler][#] cmv_cli_path=[") + c.shown_path + "] doesnt exist. errno=[2]");
    }
    EXPECT_EQ(tool_argvs(), std::vector<Argv>{});
}

TEST_F(MediaViewer, AMovedAppIsFoundUnderItsNewInstallPath)
{
    root_->add_program("/apps/cmv/bin/conf_get");
    set_viewer_line("Install_Path", "Install_Path = /apps/cmv");
    EXPECT_EQ(call(R"({"cmd":"version"})"), reply_text(0, 1, 1, 0, "CayinMediaViewer: version: OK\n"));
    EXPECT_EQ(tool_argvs("/apps/cmv/bin/conf_get"), (std::vector<Argv>{{"conf_get", "version"}}));
    EXPECT_EQ(tool_argvs(), std::vector<Argv>{});
}

TEST_F(MediaViewer, BadRequestsStillCarryAllFiveKeys)
{
    const std::string paser_fail =
        R"({"cli_ret":-1,"error_code":-1,"error_msg":"paser fail","is_enabled":0,"is_installed":0,"result":-1,"result_out":""})"
        "\n";
    for (const char* request : {"{}", R"({"cmd":7})", R"({"cmd":null})", R"({"command":"status"})", "cmd=status",
                                R"(["status"])"})
        EXPECT_EQ(call(request), paser_fail) << request;
    EXPECT_EQ(call(""),
              R"({"cli_ret":-1,"error_code":-1,"error_msg":"input error","is_enabled":0,"is_installed":0,"result":-1,"result_out":""})"
              "\n");
    EXPECT_EQ(root_->calls(), std::vector<SimCall>{});
    const std::string log = without_line_number(daemon_->debug_log(), "nox_cmv_cli_handler");
    EXPECT_NE(log.find("] [nox_cmv_cli_handler][#] dv_io input fail. [cmv_cli]\n"), std::string::npos) << log;
}

}  // namespace
