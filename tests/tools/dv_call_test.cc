// dv-call as a person uses it: exit statuses, usage, stdin, --stdout.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "dv.h"
#include "support/config.h"
#include "support/process.h"
#include "support/tempdir.h"
#include "support/test_service.h"

namespace {

std::string dv_call_path()
{
    return binary_dir() + "/bin/dv-call";
}

TEST(DvCall, PrintsTheReplyAndExitsWithTheClientStatus)
{
    TestService svc(echo_exec);
    ProcessResult r = run_process({dv_call_path(), svc.name(), "cmd", "{\"a\":1}"});
    EXPECT_EQ(r.status, 0) << r.err;
    // The peer is the dv-call process, so only the shape before the pid is fixed.
    EXPECT_EQ(r.out.rfind("cmd|{\"a\":1}|", 0), 0u) << r.out;
    EXPECT_EQ(r.err, "");

    // The request from standard input.
    r = run_process({dv_call_path(), "--timeout", "7", svc.name(), "stdin"}, "{\"from\":\"stdin\"}");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("stdin|{\"from\":\"stdin\"}|", 0), 0u) << r.out;

    // --stdout: what the service writes to the extra descriptor arrives here.
    r = run_process({dv_call_path(), "--stdout", svc.name(), "out", "{}"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("extra:out\nout|{}|", 0), 0u) << r.out;

    TempDir dir;
    r = run_process({dv_call_path(), "@" + dir.file("absent.sock"), "cmd", "{}"});
    EXPECT_EQ(r.status, DV_STATUS_CONNECT);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "dv-call: @" + dir.file("absent.sock") + ": no such service (cannot connect to its socket)\n");

    r = run_process({dv_call_path(), svc.name(), std::string(257, 'c'), "{}"});
    EXPECT_EQ(r.status, DV_STATUS_ARGUMENTS);
}

TEST(DvCall, BadUsageIsOneLineAndStatusSeven)
{
    const std::vector<std::vector<std::string>> bad = {
        {}, {"only-service"}, {"--timeout"}, {"--timeout", "soon", "svc", "cmd"}, {"--timeout", "-1", "svc", "cmd"},
        {"--bogus", "svc", "cmd"}, {"svc", "cmd", "{}", "extra"},
    };
    for (const auto& args : bad) {
        SCOPED_TRACE(testing::PrintToString(args));
        std::vector<std::string> argv = {dv_call_path()};
        argv.insert(argv.end(), args.begin(), args.end());
        ProcessResult r = run_process(argv);
        EXPECT_EQ(r.status, DV_STATUS_ARGUMENTS);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find("usage: dv-call [--timeout S] [--stdout] SERVICE COMMAND [JSON]"), std::string::npos);
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);
    }
}

}  // namespace
