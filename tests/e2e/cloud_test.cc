// The cloud-account queries through the daemon program: the tools' argument
// vectors, their output handed back raw or base64, failures, the access-token
// request's argument checks, and no capture file left behind.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"
#include "support/env.h"

namespace {

struct Query {
    const char* command;
    const char* request;
    const char* program;
    Argv argv;
    const char* answer;  // how the unsteered tool's answer begins
};

// Values with blanks and shell syntax: each must reach the tool as one
// argument, unchanged.
const Query kQueries[] = {
    {"system_call_cloud_get_device_list", "{}", PATH_NIMBO_DEVICE_TOOL,
     {"nimbo_device_tool", "get_device_list", "-d", "PALAVER_IOS"},
     "{\"devices\":[{\"name\":\"VX-NAS\",\"model\":\"VX-8\",\"online\":true}]}\n"},
    {"system_call_cloud_get_user_token", "{}", PATH_NIMBO_CLI, {"nimbo_cli", "-t"}, "nut_"},
    {"system_call_cloud_get_host_endpoint", "{}", PATH_GET_NIMBO_HOST, {"get_nimbo_host", "-n", "k5_api"},
     "https://k5-api.cloud.nimbo.example\n"},
    {"system_call_cloud_get_host_site", "{}", PATH_GET_NIMBO_HOST, {"get_nimbo_host", "-s"}, "eu-central\n"},
    {"system_call_cloud_get_access_token",
     R"({"client_id":"vexpro app; rm -rf /","client_secret":"$(id) `id` \"q\"","access_token":"nut_abc\n-o xml"})",
     PATH_NIMBO_AUTH_TOOL,
     {"nimbo_auth_tool", "signin", "-t", "exchange_token", "-a", "nut_abc\n-o xml", "-i", "vexpro app; rm -rf /", "-s",
      "$(id) `id` \"q\"", "-o", "json"},
     "{\"access_token\":\"nat_"},
};

std::string fail(const Query& q)
{
    return failure(std::string("nox_") + q.command + "_handler");
}

// One daemon for the suite; the fixture sees that no capture file outlives its request.
class CloudQueries : public DaemonPerSuite<CloudQueries> {};

// The tools' unsteered answers show they accepted exactly these vectors.
TEST_F(CloudQueries, EachQueryRunsItsToolOnceWithItsArguments)
{
    for (const Query& q : kQueries) {
        SCOPED_TRACE(q.command);
        root_->clear_calls();
        Json::Value reply;
        ASSERT_TRUE(Json::Reader().parse(call(q.command, q.request), reply));
        EXPECT_EQ(root_->calls(), (std::vector<SimCall>{{q.program, q.argv, std::nullopt}}));
        const std::string out = reply.isMember("device_list") ? reply["device_list"].asString()
                                                               : decode_base64(reply["result_out"].asString());
        EXPECT_EQ(out.rfind(q.answer, 0), 0u) << reply;
    }
}

// The device list goes back raw (as JSON text, so only valid UTF-8), the
// others in base64, byte for byte; an empty output is still a success.
TEST_F(CloudQueries, OutputComesBackExactlyRawOrInBase64)
{
    const std::string printed = "{\"a\":\"b\\\\c\"}\tline 1\nline 2\n\xc3\xa9";
    for (const std::string& extra : {std::string("\xff"), std::string()}) {
        const std::string out = extra.empty() ? "" : printed + extra;
        for (const Query& q : kQueries)
            root_->set_output(q.program, out);
        root_->set_output(kQueries[0].program, extra.empty() ? "" : printed);
        EXPECT_EQ(call(kQueries[0].command, kQueries[0].request),
                  extra.empty() ? "{\"device_list\":\"\",\"result\":0}\n"
                                : R"({"device_list":"{\"a\":\"b\\\\c\"}\tline 1\nline 2\n\u00e9","result":0})"
                                  "\n");
        for (size_t i = 1; i < std::size(kQueries); i++)
            EXPECT_EQ(call(kQueries[i].command, kQueries[i].request),
                      R"({"cli_ret":0,"result":0,"result_out":")" + encode_base64(out) + "\"}\n")
                << kQueries[i].command;
    }
}

TEST_F(CloudQueries, FailingToolsAndBadRequestsGiveTheHandlersReplies)
{
    for (const Query& q : kQueries) {
        root_->set_output(q.program, "half an answer\n");
        root_->set_exit(q.program, 1);
    }
    for (const Query& q : kQueries)
        EXPECT_EQ(call(q.command, q.request), fail(q));
    // The real tool refuses an empty client secret with status 1.
    root_->remove(sim::STEER_DIR);
    EXPECT_EQ(call("system_call_cloud_get_access_token", R"({"client_id":"c","client_secret":"","access_token":"t"})"),
              fail(kQueries[4]));

    root_->clear_calls();
    for (const char* bad : {R"({"client_id":"vexpro-app","access_token":"nut_abc"})",
                            R"({"client_id":"vexpro-app","client_secret":null,"access_token":"nut_abc"})",
                            R"({"client_id":7,"client_secret":"s3cr3t","access_token":"nut_abc"})",
                            "client_id=vexpro-app", R"(["vexpro-app","s3cr3t","nut_abc"])"})
        EXPECT_EQ(call("system_call_cloud_get_access_token", bad), kParseError) << bad;
    EXPECT_EQ(call("system_call_cloud_get_access_token", ""), kInputError);
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
    EXPECT_EQ(d.call(kQueries[3].command, "{}"), fail(kQueries[3]));
    EXPECT_EQ(d.call(kQueries[0].command, "{}"), fail(kQueries[0]));
    EXPECT_EQ(root.calls(PATH_GET_NIMBO_HOST), std::vector<SimCall>{});
    EXPECT_NE(d.debug_log().find("] no temporary file for /usr/sbin/get_nimbo_host.\n"), std::string::npos)
        << d.debug_log();
}

}  // namespace
