// The cloud-account queries through the daemon program: the tools' argument
// vectors, their output handed back raw or base64, failures, the access-token
// request's argument checks, and no capture file left behind.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "platform/sim/simlib.h"
#include "support/daemon_suite.h"
#include "support/env.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

namespace {

// Values with blanks and shell syntax: each must reach the tool as one
// argument, unchanged.
const char kTokenRequest[] =
    R"({"client_id":"vexpro app; rm -rf /","client_secret":"$(id) `id` \"q\"","access_token":"nut_abc\n-o xml"})";
const Argv kTokenArgv = {"nimbo_auth_tool", "signin", "-t", "exchange_token", "-a", "nut_abc\n-o xml", "-i",
                         "vexpro app; rm -rf /", "-s", "$(id) `id` \"q\"", "-o", "json"};

struct Query {
    const char* command;
    const char* request;
    const char* program;
    Argv argv;
};

const Query kQueries[] = {
    {"system_call_cloud_get_device_list", "{}", PATH_NIMBO_DEVICE_TOOL,
     {"nimbo_device_tool", "get_device_list", "-d", "PALAVER_IOS"}},
    {"system_call_cloud_get_user_token", "{}", PATH_NIMBO_CLI, {"nimbo_cli", "-t"}},
    {"system_call_cloud_get_host_endpoint", "{}", PATH_GET_NIMBO_HOST, {"get_nimbo_host", "-n", "k5_api"}},
    {"system_call_cloud_get_host_site", "{}", PATH_GET_NIMBO_HOST, {"get_nimbo_host", "-s"}},
    {"system_call_cloud_get_access_token", kTokenRequest, PATH_NIMBO_AUTH_TOOL, kTokenArgv},
};

// One daemon for the suite; the fixture sees that no capture file outlives its request.
class CloudQueries : public DaemonPerSuite<CloudQueries> {};

TEST_F(CloudQueries, EachQueryRunsItsToolOnceWithItsArguments)
{
    // The tools' own answers: each accepts only the argument vector it expects.
    const std::string answers[] = {
        "{\"devices\":[{\"name\":\"VX-NAS\",\"model\":\"VX-8\",\"online\":true}]}\n",
        "nut_",
        "https://k5-api.cloud.nimbo.example\n",
        "eu-central\n",
        "{\"access_token\":\"nat_",
    };
    for (size_t i = 0; i < std::size(kQueries); i++) {
        const Query& q = kQueries[i];
        SCOPED_TRACE(q.command);
        root_->clear_calls();
        Json::Value reply;
        ASSERT_TRUE(Json::Reader().parse(call(q.command, q.request), reply));
        EXPECT_EQ(argvs(q.program), std::vector<Argv>{q.argv});
        EXPECT_EQ(root_->calls().size(), 1u);
        EXPECT_EQ(reply["result"], 0);
        if (i == 0) {
            EXPECT_EQ(reply["device_list"].asString(), answers[i]);
        } else {
            EXPECT_EQ(reply["cli_ret"], 0);
            EXPECT_EQ(decode_base64(reply["result_out"].asString()).rfind(answers[i], 0), 0u) << reply;
        }
    }
}

TEST_F(CloudQueries, TheDeviceListGoesBackRawTheOthersInBase64)
{
    // Quotes, backslashes, a tab, several lines and bytes beyond ASCII come
    // back exactly as the tool printed them (the raw list as JSON text can
    // carry only valid UTF-8; base64 carries anything).
    const std::string printed = "{\"a\":\"b\\\\c\"}\tline 1\nline 2\n\xc3\xa9";
    for (const Query& q : kQueries)
        root_->set_output(q.program, printed + "\xff");
    root_->set_output(kQueries[0].program, printed);
    EXPECT_EQ(call(kQueries[0].command, kQueries[0].request),
              R"({"device_list":"{\"a\":\"b\\\\c\"}\tline 1\nline 2\n\u00e9","result":0})" "\n");
    for (size_t i = 1; i < std::size(kQueries); i++)
        EXPECT_EQ(call(kQueries[i].command, kQueries[i].request),
                  R"({"cli_ret":0,"result":0,"result_out":")" + encode_base64(printed + "\xff") + "\"}\n")
            << kQueries[i].command;
}

TEST_F(CloudQueries, AToolThatPrintsNothingIsStillASuccess)
{
    for (const Query& q : kQueries)
        root_->set_output(q.program, "");
    EXPECT_EQ(call(kQueries[0].command, kQueries[0].request), "{\"device_list\":\"\",\"result\":0}\n");
    for (size_t i = 1; i < std::size(kQueries); i++)
        EXPECT_EQ(call(kQueries[i].command, kQueries[i].request), "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n")
            << kQueries[i].command;
}

TEST_F(CloudQueries, AFailingToolGivesTheHandlersFailure)
{
    const char* failures[] = {
        "nox_system_call_cloud_get_device_list_handler fail",  "nox_system_call_cloud_get_user_token_handler fail",
        "nox_system_call_cloud_get_host_endpoint_handler fail", "nox_system_call_cloud_get_host_site_handler fail",
        "nox_system_call_cloud_get_access_token_handler fail",
    };
    for (const Query& q : kQueries) {
        root_->set_output(q.program, "half an answer\n");
        root_->set_exit(q.program, 1);
    }
    for (size_t i = 0; i < std::size(kQueries); i++)
        EXPECT_EQ(call(kQueries[i].command, kQueries[i].request),
                  std::string("{\"error_msg\":\"") + failures[i] + "\",\"result\":-1}\n");

    // The real tool refuses an empty client secret with status 1.
    root_->remove(sim::STEER_DIR);
    EXPECT_EQ(call("system_call_cloud_get_access_token", R"({"client_id":"c","client_secret":"","access_token":"t"})"),
              "{\"error_msg\":\"nox_system_call_cloud_get_access_token_handler fail\",\"result\":-1}\n");
}

TEST_F(CloudQueries, TheAccessTokenRequestIsCheckedBeforeAnythingRuns)
{
    struct Case {
        const char* request;
        const char* reply;
    };
    const char* paser_fail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
    const Case cases[] = {
        {R"({"client_id":"vexpro-app","access_token":"nut_abc"})", paser_fail},
        {R"({"client_id":"vexpro-app","client_secret":null,"access_token":"nut_abc"})", paser_fail},
        {R"({"client_id":7,"client_secret":"s3cr3t","access_token":"nut_abc"})", paser_fail},
        {R"({"client_id":"vexpro-app","client_secret":"s3cr3t"})", paser_fail},
        {"client_id=vexpro-app", paser_fail},
        {R"(["vexpro-app","s3cr3t","nut_abc"])", paser_fail},
        {"", "{\"error_code\":-1,\"error_msg\":\"input error\"}\n"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(call("system_call_cloud_get_access_token", c.request), c.reply) << c.request;
    EXPECT_EQ(root_->calls(), std::vector<SimCall>{});
}

// Without anywhere to capture the output nothing runs, and the caller hears
// of it as the tool's failure rather than as an empty answer.
TEST(CloudQueriesWithoutTemporaryFiles, FailWithoutRunningAnything)
{
    SimRoot root;
    TempDir gone;
    DaemonProcess d(root);
    ScopedEnv tmpdir("TMPDIR", gone.file("missing").c_str());
    ASSERT_TRUE(d.start()) << d.stderr_text();
    EXPECT_EQ(d.call("system_call_cloud_get_host_site", "{}"),
              "{\"error_msg\":\"nox_system_call_cloud_get_host_site_handler fail\",\"result\":-1}\n");
    EXPECT_EQ(d.call("system_call_cloud_get_device_list", "{}"),
              "{\"error_msg\":\"nox_system_call_cloud_get_device_list_handler fail\",\"result\":-1}\n");
    EXPECT_EQ(root.calls(PATH_GET_NIMBO_HOST), std::vector<SimCall>{});
    EXPECT_NE(d.debug_log().find("] no temporary file for /usr/sbin/get_nimbo_host.\n"), std::string::npos)
        << d.debug_log();
}

}  // namespace
