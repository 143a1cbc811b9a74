// The media viewer's command line through the daemon program: the tool run
// under the app's Install_Path, installed and enabled as the registry says,
// the tool's exit status passed through, and all five keys on every reply.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const char kTool[] = "/opt/CayinMediaViewer/bin/conf_get";

std::string reply_text(int cli_ret, int is_enabled, int is_installed, const std::string& output)
{
    return "{\"cli_ret\":" + std::to_string(cli_ret) + ",\"is_enabled\":" + std::to_string(is_enabled) +
           ",\"is_installed\":" + std::to_string(is_installed) + ",\"result\":0,\"result_out\":\"" +
           encode_base64(output) + "\"}\n";
}

class MediaViewer : public DaemonPerSuite<MediaViewer> {
protected:
    static void SetUpTestSuite()
    {
        DaemonPerSuite::SetUpTestSuite();
        registry_ = root_->read_file(PATH_APPBOX_CONF);  // the daemon only ever reads it
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
        size_t at = conf.find("\n" + key + " ", conf.find("[CayinMediaViewer]"));
        ASSERT_NE(at, std::string::npos) << key;
        conf.replace(at + 1, conf.find('\n', at + 1) - at, line.empty() ? "" : line + "\n");
        root_->write_file(PATH_APPBOX_CONF, conf);
    }

    static inline std::string registry_;
};

TEST_F(MediaViewer, RunsTheAppsToolWithTheCommandAsOneArgumentAndPassesItsStatusRaw)
{
    const std::string cmd = "playlist set --name 'lobby screen' ; reboot";
    EXPECT_EQ(call(R"({"cmd":")" + cmd + "\"}"), reply_text(0, 1, 1, "CayinMediaViewer: " + cmd + ": OK\n"));
    EXPECT_EQ(argvs(kTool), (std::vector<Argv>{{"conf_get", cmd}}));

    // The raw wait status: exit code 3 reads 768.
    root_->set_output(kTool, "busy\n\xff");
    root_->set_exit(kTool, 3);
    EXPECT_EQ(call(R"({"cmd":"status"})"), reply_text(768, 1, 1, "busy\n\xff"));
}

TEST_F(MediaViewer, EnabledIsTrueInAnyCase)
{
    const std::pair<const char*, int> cases[] = {
        {"Enable = TRUE", 1}, {"Enable = true", 1}, {"Enable = FALSE", 0}, {"Enable = TRUE2", 0}, {"", 0},
    };
    for (const auto& [line, enabled] : cases) {
        set_viewer_line("Enable", line);
        // Disabled is not uninstalled: the tool still runs.
        EXPECT_EQ(call(R"({"cmd":"status"})"), reply_text(0, enabled, 1, "CayinMediaViewer: status: OK\n")) << line;
    }
    EXPECT_EQ(argvs(kTool).size(), std::size(cases));
}

// The message shows the path as the registry makes it, as on the appliance.
TEST_F(MediaViewer, AnAbsentAppIsReportedInTheOutputAndAMovedOneFound)
{
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"Install_Path = opt/CayinMediaViewer", "opt/CayinMediaViewer/bin/conf_get"},
        {"Install_Path = /opt/Elsewhere", "/opt/Elsewhere/bin/conf_get"},
    };
    for (const auto& [line, shown] : cases) {
        SCOPED_TRACE(line);
        set_viewer_line("Install_Path", line);
        Json::Value reply;
        ASSERT_TRUE(Json::Reader().parse(call(R"({"cmd":"status"})"), reply));
        // All five keys, with the message's line number left free.
        reply["result_out"] =
            without_line_number(decode_base64(reply["result_out"].asString()), "nox_cmv_cli_handler");
        EXPECT_EQ(Json::FastWriter().write(reply),
                  R"({"cli_ret":-1,"is_enabled":1,"is_installed":0,"result":0,"result_out":"[nox_cmv_cli_handler][#] )"
                  "cmv_cli_path=[" + std::string(shown) + "] doesnt exist. errno=[2]\"}\n");
    }
    EXPECT_EQ(argvs(kTool), std::vector<Argv>{});

    root_->add_program("/apps/cmv/bin/conf_get");
    set_viewer_line("Install_Path", "Install_Path = /apps/cmv");
    EXPECT_EQ(call(R"({"cmd":"version"})"), reply_text(0, 1, 1, "CayinMediaViewer: version: OK\n"));
    EXPECT_EQ(argvs("/apps/cmv/bin/conf_get"), (std::vector<Argv>{{"conf_get", "version"}}));
    EXPECT_EQ(argvs(kTool), std::vector<Argv>{});
}

TEST_F(MediaViewer, BadRequestsStillCarryAllFiveKeys)
{
    const std::string keys = R"(","is_enabled":0,"is_installed":0,"result":-1,"result_out":""})"
                             "\n";
    for (const char* request : {"{}", R"({"cmd":7})", R"({"cmd":null})", "cmd=status"})
        EXPECT_EQ(call(request), R"({"cli_ret":-1,"error_code":-1,"error_msg":"paser fail)" + keys) << request;
    EXPECT_EQ(call(""), R"({"cli_ret":-1,"error_code":-1,"error_msg":"input error)" + keys);
    EXPECT_EQ(root_->calls(), std::vector<SimCall>{});
    EXPECT_THAT(log_of("nox_cmv_cli_handler"),
                testing::Contains("[nox_cmv_cli_handler][#] dv_io input fail. [cmv_cli]"));
}

}  // namespace
