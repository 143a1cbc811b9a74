// dv-bench runs in every mode, reports in its parseable form, counts failures
// by kind, cleans up after itself and refuses bad usage. Nothing here looks at
// how fast anything is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "dv.h"
#include "support/services.h"

namespace {

ProcessResult bench(std::vector<std::string> args, const std::vector<std::string>& env = {})
{
    args.insert(args.begin(), binary_dir() + "/bin/dv-bench");
    return run_process(args, "", env, 20000);
}

// The last request the recording service saw.
std::mutex g_seen_lock;
std::string g_seen;

void recording_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    {
        std::lock_guard<std::mutex> guard(g_seen_lock);
        g_seen = request_text(io);
    }
    reply_text(io, "{}");
}

// Every mode completes its calls, the service is sent the request asked
// for, the in-process servers leave nothing in TMPDIR; failed calls are
// counted by kind, and when every call failed the run fails and gives no rate.
TEST(DvBench, EveryModeCompletesItsCallsAndCountsFailuresByKind)
{
    TestService svc(recording_exec);
    TempDir tmp;
    const std::string service = "mode=service service=" + svc.name() + " command=cmd payload=";
    const std::string absent = "@" + tmp.file("absent.sock");
    const struct {
        std::vector<std::string> mode;
        std::string header;
        std::string request;  // what the service saw last, for the service mode
        std::string failures = "none";
        std::string counts = "threads=3 calls=21";  // a regular expression
    } cases[] = {
        {{"--floor"}, "mode=floor servers=3 payload=2", ""},
        {{"--payload", "300", "--self", "2"}, "mode=self workers=2 payload=300", ""},
        {{"--spawn", "/bin/true"}, "mode=spawn path=/bin/true", ""},
        {{"--fail-on-error", svc.name(), "cmd"}, service + "2", "{}"},
        {{"--payload", "40", svc.name(), "cmd"}, service + "40", "{\"p\":\"" + std::string(32, 'x') + "\"}"},
        {{"--json", "{\"k\":[1,2]}", svc.name(), "cmd"}, service + "11", "{\"k\":[1,2]}"},
        {{"--spawn", "/bin/false"}, "mode=spawn path=/bin/false", "", "exit1=21"},
        {{absent, "cmd"}, "mode=service service=" + absent + " command=cmd payload=2", "", "status2=21"},
        {{"--seconds", "0.3", "--floor"}, "mode=floor servers=3 payload=2", "", "none", "threads=3 calls=[1-9][0-9]*"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.mode));
        std::vector<std::string> args = {"--threads", "3"};
        if (c.mode[0] != "--seconds")
            args.insert(args.end(), {"--calls", "7"});
        args.insert(args.end(), c.mode.begin(), c.mode.end());
        ProcessResult r = bench(args, {"TMPDIR=" + tmp.path()});
        const bool ok = c.failures == "none";
        ASSERT_EQ(r.status, ok ? 0 : 8) << r.err;
        EXPECT_EQ(r.err, ok ? "" : "dv-bench: every call failed\n");
        EXPECT_THAT(r.out, testing::MatchesRegex(
                               literal_regex(c.header) + " " + c.counts + " seconds=[0-9]+\\.[0-9][0-9] calls_per_s=" +
                               (ok ? "[0-9]+\nlatency_us p50=[0-9]+ p90=[0-9]+ p99=[0-9]+ max=[0-9]+\n"
                                   : "none\nlatency_us none\n") +
                               "failures " + c.failures + "\n"));
        EXPECT_TRUE(std::filesystem::is_empty(tmp.path()));
        std::lock_guard<std::mutex> guard(g_seen_lock);
        EXPECT_EQ(g_seen, c.request);
        g_seen.clear();
    }
}

TEST(DvBench, BadUsageIsOneLineAndStatusSeven)
{
    const std::vector<std::vector<std::string>> bad = {
        {}, {"svc", "cmd", "extra"}, {"--floor", "svc", "cmd"}, {"--floor", "--self", "2"}, {"--self", "0"},
        {"--threads", "0", "--floor"}, {"--threads", "257", "--floor"}, {"--calls", "5", "--seconds", "1", "--floor"},
        {"--seconds", "601", "--floor"}, {"--payload", "7", "--floor"}, {"--payload", "8", "--json", "{}", "--floor"},
        {"--timeout", "0", "--floor"}, {"--spawn", "/nonexistent/program"}, {"--spawn", "/tmp"}, {"--floor=yes"},
        {"--bogus", "--floor"}, {std::string(65, 's'), "cmd"}, {"svc", std::string(257, 'c')},
    };
    for (const auto& args : bad) {
        ProcessResult r = bench(args);
        EXPECT_EQ(r.status, DV_STATUS_ARGUMENTS) << testing::PrintToString(args);
        EXPECT_EQ(r.out, "");
        EXPECT_THAT(r.err, testing::MatchesRegex("dv-bench: [^\n]+; usage: dv-bench [^\n]+\n"));
    }
}

}  // namespace
