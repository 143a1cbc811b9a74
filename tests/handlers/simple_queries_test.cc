// The simple queries and app controls end to end, through the real client,
// on a simulated platform: exact reply texts, the platform programs' argument
// vectors, and the request envelope's input errors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"
#include "support/handler_service.h"

namespace {

const char kShell[] = "/opt/VexProServer/VexProServer.sh";

Argv conf_get_argv(const std::string& section, const std::string& key, const std::string& file)
{
    return {"conf_get", section, key, "-c", "-d", "CONF_GET_FAILD", "-f", file};
}

// The journal of one program run once with argv.
std::vector<SimCall> ran(const char* who, Argv argv)
{
    return {SimCall{who, std::move(argv), std::nullopt}};
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
    const struct {
        const char* command;
        const char* reply;
        std::vector<SimCall> run;  // every platform program run
    } cases[] = {
        {"test", R"({"handler":"test_handler","service":"VexProServer-vexprod"})", {}},
        {"get_tvdeck_status", R"({"error_code":0,"tvDeck_Status":1})",
         ran(PATH_CONF_GET, conf_get_argv("CP_APP", "tvDeck", "/etc/ixos.ui.cp.conf"))},
        {"get_platform_display_name", R"({"platform_display_name":"VX-NAS 8","result":0})",
         ran(PATH_CONF_GET, conf_get_argv("MISC", "DISPLAY_NAME", "/etc/platform.conf"))},
        {"get_vpd_productnamed", R"({"result":0,"vpd_productnamed":"VX-NVR8-PRO"})",
         ran(PATH_HWD_APP, {"hwd_app", "--vpd_get_field", "enc_sys_id=root,obj_index=0:7"})},
        {"get_vpd_eepkey", R"({"result":0,"vpd_eepkey":"7F3A19C255D08E41"})",
         ran(PATH_HWD_APP, {"hwd_app", "--vpd_get_field", "enc_sys_id=root,obj_index=0:8"})},
        {"get_vpd_channel", R"({"result":0,"vpd_channel":"16"})",
         ran(PATH_HWD_APP, {"hwd_app", "--vpd_get_field", "enc_sys_id=root,obj_index=0:9"})},
        {"is_generic_model", R"({"is_generic":0,"result":-1})", {}},
    };
    for (const auto& c : cases) {
        root().clear_calls();
        // The handlers that take no arguments never look at the request.
        EXPECT_EQ(call(c.command, "not even json"), std::string(c.reply) + "\n");
        EXPECT_EQ(root().calls(), c.run) << c.command;
    }
}

TEST_F(SimpleQueries, VpdFieldKeepsOnlyTheValueOfOneKeyValuePair)
{
    const std::string fail = failure("nox_get_vpd_eepkey_handler");
    const std::pair<const char*, std::string> cases[] = {
        {"EEPKEY = 0011AABB\n", R"({"result":0,"vpd_eepkey":"0011AABB"})" "\n"},
        {"KEY =   spaced value  \n\n", R"({"result":0,"vpd_eepkey":"spaced value"})" "\n"},
        {"KEY=tight", R"({"result":0,"vpd_eepkey":"tight"})" "\n"},
        {"no sign at all\n", fail},
        {"A = B = C\n", fail},
        {"", fail},
    };
    for (const auto& [output, reply] : cases) {
        root().set_output(PATH_HWD_APP, output);
        EXPECT_EQ(call("get_vpd_eepkey"), reply) << output;
    }

    // A field the tool does not know: an error on stderr, nothing on stdout.
    root().reset();
    root().write_file("/var/lib/sim/vpd.conf", "[field]\n0:7 = X\n");
    EXPECT_EQ(call("get_vpd_channel"), failure("nox_get_vpd_channel_handler"));
    // No tool at all.
    root().remove(PATH_HWD_APP);
    EXPECT_EQ(call("get_vpd_productnamed"), failure("nox_get_vpd_productnamed_handler"));
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
    const struct {
        std::string request, reply;
        const char* logged;  // a log line that must appear, or null
    } cases[] = {
        {"", kInputError, "[nox_get_vpd_ext_area_handler]["},
        {std::string(1 << 20, ' ') + "{}", kInputError, "dv_io input fail."},
        {std::string((64 << 10) - 1, ' ') + "{}", kInputError, "dv_io input fail."},
        // Nesting past what any command needs, far below what would exhaust the reader.
        {std::string(1001, '[') + std::string(1001, ']'), kParseError, nullptr},
        {"{\"offest\": 0, \"length\": 16, \"x\": " + std::string(40, '[') + std::string(40, ']') + "}", kParseError, nullptr},
        {"{\"offest\": 0,", kParseError, nullptr},
        {"[0, 16]", kParseError, nullptr},
        {std::string("\0{\"offest\": 0, \"length\": 16}", 29), kParseError, nullptr},
        // The key callers send is "offest"; the correct spelling is unknown.
        {R"({"offset": 0, "length": 16})", kParseError, nullptr},
        {R"({"offest": "0", "length": 16})", kParseError, "offest Type fail, this input value type is string."},
        {R"({"offest": 0, "length": 4294967296})", kParseError, "length Type fail, this input value type is long."},
    };
    for (const auto& c : cases) {
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
    // Padded to the longest request taken (64 KiB, whole pages) with no
    // terminator, then followed by a NUL and rubbish: both are read exactly
    // as far as the text goes.
    std::string exact = R"({"offest": 0, "length": 7})";
    exact.append((64 << 10) - exact.size(), ' ');
    EXPECT_EQ(call("get_vpd_ext_area", exact), R"({"result":0,"vpd_ext_area":"VXEXT01"})" "\n");
    std::string with_nul = std::string(R"({"offest": 0, "length": 7})") + '\0' + "not json";
    EXPECT_EQ(call("get_vpd_ext_area", with_nul), R"({"result":0,"vpd_ext_area":"VXEXT01"})" "\n");
}

TEST_F(SimpleQueries, ConfigurationDrivenAnswers)
{
    // tvDeck is 0 without a usable value, a section or the file.
    const char zero[] = R"({"error_code":0,"tvDeck_Status":0})" "\n";
    root().write_file(PATH_UI_CP_CONF, "[CP_APP]\ntvDeck = on\n");
    EXPECT_EQ(call("get_tvdeck_status"), zero);
    root().write_file(PATH_UI_CP_CONF, "[CP_APP]\ntvDeck = 12\n");
    EXPECT_EQ(call("get_tvdeck_status"), R"({"error_code":0,"tvDeck_Status":12})" "\n");
    root().write_file(PATH_UI_CP_CONF, "[OTHER]\ntvDeck = 1\n");
    EXPECT_EQ(call("get_tvdeck_status"), zero);
    root().remove(PATH_UI_CP_CONF);
    EXPECT_EQ(call("get_tvdeck_status"), zero);

    // Generic follows the marker file (its absence is the default row above).
    root().write_file(PATH_IS_GENERIC_MARKER, "");
    EXPECT_EQ(call("is_generic_model"), R"({"is_generic":1,"result":0})" "\n");
    EXPECT_EQ(log().messages_with("] is generic.").size(), 1u);
    root().remove(PATH_IS_GENERIC_MARKER);
    call("is_generic_model");
    const auto normal = log().messages_with("] normal.");
    ASSERT_EQ(normal.size(), 1u);
    EXPECT_EQ(normal[0].rfind("[nox_is_generic_model_handler][", 0), 0u);

    root().write_file(PATH_PLATFORM_CONF, "[MISC]\nMODEL = VX8\n");
    EXPECT_EQ(call("get_platform_display_name"), failure("nox_get_platform_display_name_handler"));
}

TEST_F(SimpleQueries, ControlScriptActions)
{
    const struct {
        const char *command, *action;
        std::string failure;
    } cases[] = {
        {"system_call_vexpro_disable", "force_stop", failure("nox_system_system_call_vexpro_disable_handler")},
        {"system_call_share_folder_renew", "share_folder_renew", failure("nox_system_call_share_folder_renew_handler")},
    };
    const std::string registry = root().read_file(PATH_APPBOX_CONF);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        root().write_file(PATH_APPBOX_CONF, registry);
        root().set_exit(kShell, 0);
        root().clear_calls();
        EXPECT_EQ(call(c.command), kOk);
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
    EXPECT_EQ(call("exec_cli", ""), kInputError);
    EXPECT_EQ(log().messages_with("[nox_exec_cli_handler][").size(), 1u);
}

}  // namespace
