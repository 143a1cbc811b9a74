// The simple queries and app controls end to end, through the real client,
// on a simulated platform: exact reply texts, the platform programs' argument
// vectors, and the request envelope's input errors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/handler_service.h"

namespace {

using Argv = std::vector<std::string>;

const char kShell[] = "/opt/VexProServer/VexProServer.sh";

Argv conf_get_argv(const std::string& section, const std::string& key, const std::string& file)
{
    return {"conf_get", section, key, "-c", "-d", "CONF_GET_FAILD", "-f", file};
}

std::vector<Argv> argvs(const SimRoot& root, const std::string& who)
{
    std::vector<Argv> out;
    for (const SimCall& call : root.calls(who))
        out.push_back(call.argv);
    return out;
}

class SimpleQueries : public testing::Test {
protected:
    std::string call(const std::string& command, const std::string& request = "")
    {
        int status = -1;
        std::string reply = service_.call(command, request, &status);
        EXPECT_EQ(status, DV_STATUS_OK) << command;
        return reply;
    }
    SimRoot& root() { return service_.root(); }
    const DebugLogCapture& log() const { return service_.log(); }

    HandlerService service_;
};

TEST_F(SimpleQueries, SuccessRepliesAndTheProgramsTheyRun)
{
    struct Case {
        const char* command;
        const char* reply;
        const char* program;  // the one platform program run, or null
        Argv argv;
    };
    const Case cases[] = {
        {"test", R"({"handler":"test_handler","service":"VexProServer-vexprod"})", nullptr, {}},
        {"get_tvdeck_status", R"({"error_code":0,"tvDeck_Status":1})", PATH_CONF_GET,
         conf_get_argv("CP_APP", "tvDeck", "/etc/ixos.ui.cp.conf")},
        {"get_platform_display_name", R"({"platform_display_name":"VX-NAS 8","result":0})", PATH_CONF_GET,
         conf_get_argv("MISC", "DISPLAY_NAME", "/etc/platform.conf")},
        {"get_vpd_productnamed", R"({"result":0,"vpd_productnamed":"VX-NVR8-PRO"})", PATH_HWD_APP,
         {"hwd_app", "--vpd_get_field", "enc_sys_id=root,obj_index=0:7"}},
        {"get_vpd_eepkey", R"({"result":0,"vpd_eepkey":"7F3A19C255D08E41"})", PATH_HWD_APP,
         {"hwd_app", "--vpd_get_field", "enc_sys_id=root,obj_index=0:8"}},
        {"get_vpd_channel", R"({"result":0,"vpd_channel":"16"})", PATH_HWD_APP,
         {"hwd_app", "--vpd_get_field", "enc_sys_id=root,obj_index=0:9"}},
        {"is_generic_model", R"({"is_generic":0,"result":-1})", nullptr, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        root().clear_calls();
        // The handlers that take no arguments never look at the request.
        EXPECT_EQ(call(c.command, "not even json"), std::string(c.reply) + "\n");
        if (c.program) {
            EXPECT_EQ(argvs(root(), c.program), std::vector<Argv>{c.argv});
            EXPECT_EQ(root().calls().size(), 1u);
        } else {
            EXPECT_TRUE(root().calls().empty());
        }
    }
}

TEST_F(SimpleQueries, TheMailServiceAnswersItsOwnTest)
{
    HandlerService mail(sendmail_service_handler);
    EXPECT_EQ(mail.call("test", ""),
              R"({"handler":"nox_test_sendmail_srv_handler","service":"VexProServer_send_mail-vexprod"})" "\n");
}

TEST_F(SimpleQueries, VpdFieldKeepsOnlyTheValueOfOneKeyValuePair)
{
    struct Case {
        const char* output;
        const char* reply;
    };
    const char* fail = R"({"error_msg":"nox_get_vpd_eepkey_handler fail","result":-1})";
    const Case cases[] = {
        {"EEPKEY = 0011AABB\n", R"({"result":0,"vpd_eepkey":"0011AABB"})"},
        {"KEY =   spaced value  \n\n", R"({"result":0,"vpd_eepkey":"spaced value"})"},
        {"KEY=tight", R"({"result":0,"vpd_eepkey":"tight"})"},
        {"no sign at all\n", fail},
        {"A = B = C\n", fail},
        {"", fail},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.output);
        root().set_output(PATH_HWD_APP, c.output);
        EXPECT_EQ(call("get_vpd_eepkey"), std::string(c.reply) + "\n");
    }

    // A field the tool does not know: an error on stderr, nothing on stdout.
    root().reset();
    root().write_file("/var/lib/sim/vpd.conf", "[field]\n0:7 = X\n");
    EXPECT_EQ(call("get_vpd_channel"), R"({"error_msg":"nox_get_vpd_channel_handler fail","result":-1})" "\n");
    // No tool at all.
    root().remove(PATH_HWD_APP);
    EXPECT_EQ(call("get_vpd_productnamed"),
              R"({"error_msg":"nox_get_vpd_productnamed_handler fail","result":-1})" "\n");
}

TEST_F(SimpleQueries, VpdExtendedAreaRunsTheToolWithTheRequestedSlice)
{
    EXPECT_EQ(call("get_vpd_ext_area", R"({"offest": 0, "length": 16})"),
              R"({"result":0,"vpd_ext_area":"VXEXT01LICENSE:"})" "\n");
    EXPECT_EQ(argvs(root(), PATH_HWD_APP), (std::vector<Argv>{{"hwd_app", "--vpd_get_ext_area", "offset=0,length=16"}}));
    EXPECT_EQ(log().messages_with("--vpd_get_ext_area").size(), 1u);
    EXPECT_EQ(log().messages_with("/sbin/hwd_app --vpd_get_ext_area  offset=0,length=16").size(), 1u);
    const auto logged = log().messages_with("str_output=");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].substr(0, 36), "[system_call_hwdapp_vpdget_ext_area]");
    EXPECT_NE(logged[0].find("] str_output=VXEXT01 LICENSE:\n"), std::string::npos);

    // Every blank and newline goes, wherever it stands.
    root().set_output(PATH_HWD_APP, " AB CD\nEF \n");
    EXPECT_EQ(call("get_vpd_ext_area", R"({"offest": 8, "length": 4, "extra": true})"),
              R"({"result":0,"vpd_ext_area":"ABCDEF"})" "\n");
}

TEST_F(SimpleQueries, InputErrorsRunNothing)
{
    const std::string input_error = R"({"error_code":-1,"error_msg":"input error"})" "\n";
    const std::string parse_error = R"({"error_code":-1,"error_msg":"paser fail"})" "\n";
    struct Case {
        std::string request;
        std::string reply;
        const char* logged;  // a log line that must appear, or null
    };
    const Case cases[] = {
        {"", input_error, "[nox_get_vpd_ext_area_handler]["},
        {std::string(1 << 20, ' ') + "{}", input_error, "dv_io input fail."},
        {"{\"offest\": 0,", parse_error, nullptr},
        {"[0, 16]", parse_error, nullptr},
        {std::string("\0{\"offest\": 0, \"length\": 16}", 29), parse_error, nullptr},
        // The key callers send is "offest"; the correct spelling is unknown.
        {R"({"offset": 0, "length": 16})", parse_error, nullptr},
        {R"({"offest": "0", "length": 16})", parse_error, "offest Type fail, this input value type is string."},
        {R"({"offest": 0, "length": 4294967296})", parse_error, "length Type fail, this input value type is long."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request.substr(0, 40));
        root().clear_calls();
        EXPECT_EQ(call("get_vpd_ext_area", c.request), c.reply);
        EXPECT_TRUE(root().calls().empty());
        if (c.logged) {
            EXPECT_FALSE(log().messages_with(c.logged).empty()) << c.logged;
        }
    }
}

TEST_F(SimpleQueries, RequestTextEndsAtTheFileOrItsFirstNul)
{
    // Padded to fill whole pages with no terminator, then followed by a
    // NUL and rubbish: both are read exactly as far as the text goes.
    std::string exact = R"({"offest": 0, "length": 7})";
    exact.append(8192 - exact.size(), ' ');
    EXPECT_EQ(call("get_vpd_ext_area", exact), R"({"result":0,"vpd_ext_area":"VXEXT01"})" "\n");
    std::string with_nul = std::string(R"({"offest": 0, "length": 7})") + '\0' + "not json";
    EXPECT_EQ(call("get_vpd_ext_area", with_nul), R"({"result":0,"vpd_ext_area":"VXEXT01"})" "\n");
}

TEST_F(SimpleQueries, LocalDisplayStatusIsZeroWithoutAUsableValue)
{
    const char zero[] = R"({"error_code":0,"tvDeck_Status":0})" "\n";
    root().write_file(PATH_UI_CP_CONF, "[CP_APP]\ntvDeck = on\n");
    EXPECT_EQ(call("get_tvdeck_status"), zero);
    root().write_file(PATH_UI_CP_CONF, "[CP_APP]\ntvDeck = 12\n");
    EXPECT_EQ(call("get_tvdeck_status"), R"({"error_code":0,"tvDeck_Status":12})" "\n");
    root().write_file(PATH_UI_CP_CONF, "[OTHER]\ntvDeck = 1\n");
    EXPECT_EQ(call("get_tvdeck_status"), zero);
    root().remove(PATH_UI_CP_CONF);
    EXPECT_EQ(call("get_tvdeck_status"), zero);
}

TEST_F(SimpleQueries, GenericModelFollowsTheMarkerFile)
{
    EXPECT_EQ(call("is_generic_model"), R"({"is_generic":0,"result":-1})" "\n");
    root().write_file(PATH_IS_GENERIC_MARKER, "");
    EXPECT_EQ(call("is_generic_model"), R"({"is_generic":1,"result":0})" "\n");
    const auto normal = log().messages_with("] normal.");
    const auto generic = log().messages_with("] is generic.");
    ASSERT_EQ(normal.size(), 1u);
    ASSERT_EQ(generic.size(), 1u);
    EXPECT_EQ(normal[0].rfind("[nox_is_generic_model_handler][", 0), 0u);
}

TEST_F(SimpleQueries, DisplayNameMissingIsAFailure)
{
    root().write_file(PATH_PLATFORM_CONF, "[MISC]\nMODEL = VX8\n");
    EXPECT_EQ(call("get_platform_display_name"),
              R"({"error_msg":"nox_get_platform_display_name_handler fail","result":-1})" "\n");
}

TEST_F(SimpleQueries, ControlScriptActions)
{
    struct Case {
        const char* command;
        const char* action;
        const char* failure;
    };
    const Case cases[] = {
        {"system_call_vexpro_disable", "force_stop",
         R"({"error_msg":"nox_system_system_call_vexpro_disable_handler fail","result":-1})" "\n"},
        {"system_call_share_folder_renew", "share_folder_renew",
         R"({"error_msg":"nox_system_call_share_folder_renew_handler fail","result":-1})" "\n"},
    };
    const std::string registry = root().read_file(PATH_APPBOX_CONF);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        root().write_file(PATH_APPBOX_CONF, registry);
        root().set_exit(kShell, 0);
        root().clear_calls();
        EXPECT_EQ(call(c.command), R"({"result":0})" "\n");
        EXPECT_EQ(argvs(root(), PATH_CONF_GET),
                  std::vector<Argv>{conf_get_argv("VexProServer", "Shell", "/etc/config/appbox.conf")});
        EXPECT_EQ(argvs(root(), kShell), (std::vector<Argv>{{"VexProServer.sh", c.action}}));

        root().set_exit(kShell, 1);
        EXPECT_EQ(call(c.command), c.failure);

        // No script registered, or a relative one: nothing is run.
        for (const char* shell : {"", "Shell = \n", "Shell = VexProServer.sh\n"}) {
            root().write_file(PATH_APPBOX_CONF, "[VexProServer]\nInstall_Path = /opt/VexProServer\n" +
                                                    std::string(shell));
            root().clear_calls();
            EXPECT_EQ(call(c.command), c.failure) << shell;
            EXPECT_TRUE(root().calls(kShell).empty());
        }
    }
}

TEST_F(SimpleQueries, ExecCliReplyShape)
{
    EXPECT_EQ(call("exec_cli", R"({"command": ["/bin/echo", "hello", "two words"]})"),
              R"({"error_code":0,"handler":"exec_cli_handler","result":"hello two words\n","service":"VexProServer-vexprod"})"
              "\n");
    // A failure puts the text under "error_msg", never under "result".
    EXPECT_EQ(call("exec_cli", R"({"command": "/bin/echo"})"),
              R"({"error_code":-1,"error_msg":"Read command fail.","handler":"exec_cli_handler","service":"VexProServer-vexprod"})"
              "\n");
    EXPECT_EQ(call("exec_cli", ""), R"({"error_code":-1,"error_msg":"input error"})" "\n");
    EXPECT_EQ(log().messages_with("[nox_exec_cli_handler][").size(), 1u);
}

}  // namespace
