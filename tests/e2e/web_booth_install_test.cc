// Browser containers and app installation through the daemon program: the
// argument vectors, output handed back base64, the requests that get no
// reply, and the install permission left in the daemon's environment.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "dv.h"
#include "platform/paths.h"
#include "support/daemon_suite.h"
#include "support/env.h"

namespace {

const std::string kAppScript = "/opt/VexProServer/script/operate_appboxcenter_app.sh";

std::string success(const std::string& output)
{
    return "{\"cli_ret\":0,\"result\":0,\"result_out\":\"" + encode_base64(output) + "\"}\n";
}

// One daemon for the suite, started without APPBOXD in its environment.
class AppTools : public DaemonPerSuite<AppTools> {
protected:
    static void SetUpTestSuite()
    {
        ScopedEnv no_permission("APPBOXD", nullptr);
        DaemonPerSuite::SetUpTestSuite();
    }

    void expect_no_reply(const std::string& command, const std::string& request)
    {
        int status = -1;
        EXPECT_EQ(call(command, request, &status), "") << request;
        EXPECT_EQ(status, DV_STATUS_SOCKET) << request;
    }
    // APPBOXD as the daemon's own environment holds it now, read through a
    // child it starts for another command.
    std::string daemon_appboxd()
    {
        Json::Value reply;
        EXPECT_TRUE(Json::Reader().parse(call("exec_cli", R"({"command":["/usr/bin/printenv","APPBOXD"]})"), reply));
        return reply["result"].asString();
    }
};

TEST_F(AppTools, WebBoothRunsTheContainerShellForEachAction)
{
    const std::string rules = R"(,"rule_list":[{"bs_id":"wb-17","des_protocol":"http","host_name":"camera1",
                                              "des_port":8080},{"bs_id":"ignored"}]})";
    struct Case {
        std::string request;
        Argv argv;
        std::string output;  // "": the new container's id is the shell's to choose
        bool steered;        // output is what the stub is told to print
    };
    const Case cases[] = {
        {R"({"action":"add","auth_token":"tk-1")" + rules,
         {"vesh", "web-booth.container.create", "token=tk-1", "open_url=http://camera1:8080", "ttl=300",
          "resolution=1920x1080", "type=chrome"},
         "", false},
        {R"({"action":"delete","auth_token":"tk-1")" + rules,
         {"vesh", "web-booth.container.delete", "token=tk-1", "id=wb-17"},
         "{\"id\":\"wb-17\",\"status\":\"deleted\"}\n", false},
        {R"({"action":"get_status","auth_token":"tk-1")" + rules,
         {"vesh", "web-booth.container", "token=tk-1", "id=wb-17"},
         "{\"id\":\"wb-17\",\"status\":\"running\"}\n", false},
        // The browser type when given, and the output byte for byte.
        {R"({"action":"add","auth_token":"t","rule_list":[{"des_protocol":"https","host_name":"10.0.0.5",
                                                           "des_port":443,"browser_type":"firefox"}]})",
         {"vesh", "web-booth.container.create", "token=t", "open_url=https://10.0.0.5:443", "ttl=300",
          "resolution=1920x1080", "type=firefox"},
         "container wb-99 creating\n\x01\xfe\n", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request);
        root_->clear_calls();
        if (c.steered)
            root_->set_output(PATH_VESH, c.output);
        const std::string reply = call("web_booth", c.request);
        EXPECT_EQ(argvs(PATH_VESH), std::vector<Argv>{c.argv});
        if (!c.output.empty()) {
            EXPECT_EQ(reply, success(c.output));
        } else {
            Json::Value parsed;
            ASSERT_TRUE(Json::Reader().parse(reply, parsed)) << reply;
            EXPECT_EQ(reply, success(decode_base64(parsed["result_out"].asString())));
            EXPECT_EQ(decode_base64(parsed["result_out"].asString()).rfind("{\"id\":\"wb-", 0), 0u) << reply;
        }
    }
    // The token reaches the tool (above), never the log.
    EXPECT_EQ(daemon_->debug_log().find("tk-1"), std::string::npos);
    EXPECT_NE(daemon_->debug_log().find("] argv[2] = [token=***]\n"), std::string::npos);
    EXPECT_NE(daemon_->debug_log().find("] exec /usr/sbin/vesh succ, ret_out=[container wb-99 creating\\n\\x01\xfe\\n]\n"),
              std::string::npos);
}

TEST_F(AppTools, WebBoothRefusalsAndFailures)
{
    // The list is looked at before the action.
    const std::string empty = "{\"error_code\":-1,\"error_msg\":\"jRuleList is empty\"}\n";
    EXPECT_EQ(call("web_booth", R"({"action":"add","auth_token":"t"})"), empty);
    EXPECT_EQ(call("web_booth", R"({"action":"start","auth_token":"t","rule_list":[]})"), empty);

    EXPECT_EQ(call("web_booth", "{\"action\":"), kInputError);
    EXPECT_EQ(call("web_booth", R"({"action":"add","auth_token":"t","rule_list":[{"des_port":"8080"}]})"), kInputError);
    EXPECT_EQ(call("web_booth", R"({"action":"add","auth_token":"t","rule_list":"camera1"})"), kInputError);
    EXPECT_TRUE(root_->calls().empty());

    // An unknown action, and a shell that fails (no token), get no reply.
    expect_no_reply("web_booth", R"({"action":"start","auth_token":"t","rule_list":[{"bs_id":"b"}]})");
    EXPECT_TRUE(root_->calls().empty());
    expect_no_reply("web_booth", R"({"action":"delete","rule_list":[{"bs_id":"b"}]})");
    EXPECT_EQ(argvs(PATH_VESH), (std::vector<Argv>{{"vesh", "web-booth.container.delete", "token=", "id=b"}}));
    std::string log = daemon_->debug_log();
    EXPECT_NE(log.find("] unknown action = start\n"), std::string::npos);
    EXPECT_NE(log.find("] exec /usr/sbin/vesh failed, ret=[256]\n"), std::string::npos);
}

// A daemon of its own, so that no earlier install has set the permission.
class InstallPermission : public AppTools {};

TEST_F(InstallPermission, InstallRunsTheAppCentreScriptWithThePermissionSet)
{
    EXPECT_EQ(daemon_appboxd(), "");  // nothing has asked for an install yet
    root_->write_file("/share/Public/nvr-addon_1.2.pkg", "package\n");
    root_->clear_calls();
    // The volume never reaches the script.
    EXPECT_EQ(call("install_app", R"({"sys_install_folder":"/opt/VexProServer",
                                     "app_file_path":"/share/Public/nvr-addon_1.2.pkg","install_volume":"DATAVOL9"})"),
              success("Installing nvr-addon_1.2.pkg ...\nInstalled nvr-addon_1.2.pkg.\n"));
    EXPECT_EQ(argvs(kAppScript),
              (std::vector<Argv>{{"operate_appboxcenter_app.sh", "install", "/share/Public/nvr-addon_1.2.pkg"}}));
    EXPECT_EQ(root_->calls().size(), 1u);
    // The permission stays with the daemon for every later request.
    EXPECT_EQ(daemon_appboxd(), "ALLOW\n");
    EXPECT_EQ(daemon_appboxd(), "ALLOW\n");
}

TEST_F(AppTools, InstallTakesTheScriptFromTheFolderAndFailsWithoutAReply)
{
    // Without a folder, the script at the top (the stub is told to play it).
    root_->add_program("/script/operate_appboxcenter_app.sh");
    root_->set_output("/script/operate_appboxcenter_app.sh", "Installed a.pkg.\n");
    EXPECT_EQ(call("install_app", R"({"app_file_path":"/share/Public/a.pkg"})"), success("Installed a.pkg.\n"));
    EXPECT_EQ(argvs("/script/operate_appboxcenter_app.sh"),
              (std::vector<Argv>{{"operate_appboxcenter_app.sh", "install", "/share/Public/a.pkg"}}));
    EXPECT_EQ(argvs(kAppScript), std::vector<Argv>{});

    // The script refuses a package that is not there, or the folder holds no
    // script: no reply at all.
    root_->clear_calls();
    expect_no_reply("install_app", R"({"sys_install_folder":"/opt/VexProServer","app_file_path":"/share/none.pkg"})");
    EXPECT_EQ(argvs(kAppScript), (std::vector<Argv>{{"operate_appboxcenter_app.sh", "install", "/share/none.pkg"}}));
    expect_no_reply("install_app", R"({"sys_install_folder":"/opt/Nothing","app_file_path":"/share/none.pkg"})");
    EXPECT_NE(daemon_->debug_log().find("] exec " + kAppScript + " failed, ret_out=[]\n"), std::string::npos);

    root_->clear_calls();
    const std::string bad[] = {
        "not json",
        R"({"sys_install_folder":["/opt/VexProServer"],"app_file_path":"/share/a.pkg"})",
        R"({"sys_install_folder":"opt/VexProServer","app_file_path":"/share/a.pkg"})",
        "{\"sys_install_folder\":\"/" + std::string(1100, 'd') + "\",\"app_file_path\":\"/a.pkg\"}",
    };
    for (const std::string& request : bad)
        EXPECT_EQ(call("install_app", request), kInputError) << request;
    EXPECT_TRUE(root_->calls().empty());
}

}  // namespace
