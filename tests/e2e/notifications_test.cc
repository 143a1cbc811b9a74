// Notifications and small queries end to end: the wrapper run with the
// value's words and no shell, the notify script's reversed arguments, the cloud-usage
// attribute as getfattr prints it, and the model-line answer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const char kWrapper[] = "/opt/VexProServer/script/nc_wrapper.sh";
const char kNotify[] = "/opt/VexProServer/vexpro_notify.sh";

class Notifications : public DaemonPerTest {
protected:
    void lose_install_path()
    {
        std::string conf = root_.read_file(PATH_APPBOX_CONF);
        conf.replace(conf.find("Install_Path"), 12, "Installed_At");
        root_.write_file(PATH_APPBOX_CONF, conf);
    }
};

TEST_F(Notifications, NcNotifyHandsTheValuesWordsToTheWrapperWithoutAShell)
{
    EXPECT_EQ(call("system_call_nc_notify", "{\"nc_notify\": \" motion\\tcam 3  \"}"), kOk);
    EXPECT_EQ(argvs(kWrapper), (std::vector<Argv>{{"nc_wrapper.sh", "motion", "cam", "3"}}));

    // The wrapper's status decides (with no words the stub wants one).
    const std::string fail = failure("nox_system_call_nc_notify_handler");
    EXPECT_EQ(call("system_call_nc_notify", R"({"nc_notify": ""})"), fail);
    root_.set_exit(kWrapper, 1);
    EXPECT_EQ(call("system_call_nc_notify", R"({"nc_notify": "motion"})"), fail);
    EXPECT_EQ(argvs(kWrapper).size(), 3u);

    // Whatever a shell would have acted on is refused, and nothing runs.
    root_.clear_calls();
    for (const char* value : {"x; id", "a|b", "a&", "a<b", "a>b", "(a)", "$HOME", "`id`", "a\\\\b", "\\\"a\\\"", "'a'",
                              "a*", "a?", "[a]", "#a", "~", "a=b", "a\\nb", "a\\u0001"}) {
        EXPECT_EQ(call("system_call_nc_notify", std::string("{\"nc_notify\": \"") + value + "\"}"), fail) << value;
        EXPECT_NE(log_of("nox_system_call_nc_notify_handler").back().find("holds what a shell would interpret"),
                  std::string::npos);
    }
    EXPECT_TRUE(root_.calls().empty());

    EXPECT_EQ(call("system_call_nc_notify", ""), kInputError);
    EXPECT_EQ(call("system_call_nc_notify", R"({"nc_notify": 1})"), kParseError);
    lose_install_path();
    EXPECT_EQ(call("system_call_nc_notify", R"({"nc_notify": "motion"})"), fail);
    EXPECT_EQ(argvs(kWrapper).size(), 0u);
}

TEST_F(Notifications, NotifyReturnRunsTheScriptOnlyForCmd3WithAcyBeforeType)
{
    EXPECT_EQ(call("notify_return", R"({"acy": -5, "type": 2147483647, "cmd": 3})"), kOk);
    EXPECT_EQ(argvs(kNotify), (std::vector<Argv>{{"vexpro_notify.sh", "NOTIFY_CMD", "-5", "2147483647"}}));

    root_.clear_calls();
    const std::string fail = failure("nox_return_handler");
    for (const char* other : {R"({"cmd": 2, "type": 1, "acy": 0})", R"({"cmd": -3, "type": 1, "acy": 0})"})
        EXPECT_EQ(call("notify_return", other), fail) << other;
    EXPECT_EQ(call("notify_return", ""), kInputError);
    for (const char* bad : {R"({"cmd": "3", "type": 1, "acy": 0})", R"({"cmd": 3, "type": 1})",
                            R"({"cmd": 3, "type": 4294967296, "acy": 0})"})
        EXPECT_EQ(call("notify_return", bad), kParseError) << bad;
    EXPECT_TRUE(root_.calls().empty());

    root_.set_exit(kNotify, 1);
    EXPECT_EQ(call("notify_return", R"({"cmd": 3, "type": 1, "acy": 0})"), fail);
    root_.remove(sim::STEER_DIR);
    lose_install_path();
    EXPECT_EQ(call("notify_return", R"({"cmd": 3, "type": 1, "acy": 0})"), fail);
    EXPECT_EQ(argvs(kNotify).size(), 1u);
}

TEST_F(Notifications, CloudUsageIsWhatGetfattrPrintedAndTheModelLineIsAlwaysNormal)
{
    const Argv getfattr = {"getfattr", "--only-values", "--absolute-names", "-n", "trusted.tl.cloud_usage"};
    EXPECT_EQ(call("system_get_tierlink_cloud_usage", R"({"full_path": "/share/CloudGW"})"),
              "{\"result\":0,\"size_info\":\"1073741824\"}\n");
    Argv expected = getfattr;
    expected.push_back("/share/CloudGW");
    EXPECT_EQ(argvs(PATH_GETFATTR), std::vector<Argv>{expected});
    // Whatever the tool printed, even nothing; not trimmed, not converted.
    EXPECT_EQ(call("system_get_tierlink_cloud_usage", R"({"full_path": "/share/none"})"),
              "{\"result\":0,\"size_info\":\"\"}\n");
    root_.set_output(PATH_GETFATTR, " 12 GB\n");
    EXPECT_EQ(call("system_get_tierlink_cloud_usage", R"({"full_path": "/share/CloudGW"})"),
              "{\"result\":0,\"size_info\":\" 12 GB\\n\"}\n");
    root_.clear_calls();
    EXPECT_EQ(call("system_get_tierlink_cloud_usage", ""), kInputError);
    EXPECT_EQ(call("system_get_tierlink_cloud_usage", R"({"full_path": ["/share"]})"), kParseError);
    EXPECT_TRUE(root_.calls().empty());

    // The request is not even read.
    for (const char* any : {"{}", "not json"})
        EXPECT_EQ(call("is_zel_model", any), "{\"is_ZEL_model\":0,\"result\":0}\n") << any;
    EXPECT_EQ(log_of("nox_system_is_ZEL_model_handler").back(), "[nox_system_is_ZEL_model_handler][#] normal.");
}

}  // namespace
