// dv-bench runs in every mode, reports in its parseable form, counts failures
// by kind, cleans up after itself and refuses bad usage. Nothing here looks at
// how fast anything is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "dv.h"
#include "support/config.h"
#include "support/process.h"
#include "support/tempdir.h"
#include "support/test_service.h"

namespace {

struct Report {
    std::string header;  // "mode=... payload=N", the words before threads=
    unsigned long threads = 0, calls = 0;
    std::string latency;   // "none" or "p50=.. p90=.. p99=.. max=.."
    std::string failures;  // "none" or "key=count ..."
};

// The three report lines; a test failure when they do not have their form.
Report parse_report(const std::string& out)
{
    const char* form = "mode=[^ \n]+( [^ \n]+)* threads=[0-9]+ calls=[0-9]+ "
                       "seconds=[0-9]+\\.[0-9][0-9] calls_per_s=([0-9]+|none)\n"
                       "latency_us (none|p50=[0-9]+ p90=[0-9]+ p99=[0-9]+ max=[0-9]+)\n"
                       "failures (none|[^ \n=]+=[0-9]+( [^ \n=]+=[0-9]+)*)\n";
    Report r;
    EXPECT_THAT(out, testing::MatchesRegex(form));
    size_t threads = out.find(" threads="), latency = out.find("\nlatency_us "), failures = out.find("\nfailures ");
    if (threads == std::string::npos || latency == std::string::npos || failures == std::string::npos)
        return r;
    r.header = out.substr(0, threads);
    sscanf(out.c_str() + threads, " threads=%lu calls=%lu", &r.threads, &r.calls);
    r.latency = out.substr(latency + 12, failures - latency - 12);
    r.failures = out.substr(failures + 10, out.size() - failures - 11);
    return r;
}

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
    size_t size = 0;
    const char* request = dv_io_read(io, &size);
    {
        std::lock_guard<std::mutex> guard(g_seen_lock);
        g_seen.assign(request ? request : "", request ? size : 0);
    }
    dv_io_realloc(io, 0);
    dv_io_printf(io, "{}");
    dv_reply(io);
    dv_io_free(io);
}

// Every mode completes its calls, the service is sent the request asked
// for, the in-process servers leave nothing in TMPDIR, and failed calls are
// counted by kind without failing the run.
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
    } cases[] = {
        {{"--floor"}, "mode=floor servers=3 payload=2", ""},
        {{"--payload", "300", "--self", "2"}, "mode=self workers=2 payload=300", ""},
        {{"--spawn", "/bin/true"}, "mode=spawn path=/bin/true", ""},
        {{"--fail-on-error", svc.name(), "cmd"}, service + "2", "{}"},
        {{"--payload", "40", svc.name(), "cmd"}, service + "40", "{\"p\":\"" + std::string(32, 'x') + "\"}"},
        {{"--json", "{\"k\":[1,2]}", svc.name(), "cmd"}, service + "11", "{\"k\":[1,2]}"},
        {{"--spawn", "/bin/false"}, "mode=spawn path=/bin/false", "", "exit1=21"},
        {{absent, "cmd"}, "mode=service service=" + absent + " command=cmd payload=2", "", "status2=21"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.mode));
        std::vector<std::string> args = {"--threads", "3", "--calls", "7"};
        args.insert(args.end(), c.mode.begin(), c.mode.end());
        ProcessResult r = bench(args, {"TMPDIR=" + tmp.path()});
        bool ok = c.failures == "none";
        // Every call failed: a non-zero exit, and no rate for calls that were not made.
        ASSERT_EQ(r.status, ok ? 0 : 8) << r.err;
        EXPECT_EQ(r.out.find("calls_per_s=none") != std::string::npos, !ok);
        EXPECT_EQ(r.err, ok ? "" : "dv-bench: every call failed\n");
        Report rep = parse_report(r.out);
        EXPECT_EQ(rep.header, c.header);
        EXPECT_EQ(rep.threads, 3u);
        EXPECT_EQ(rep.calls, 21u);
        EXPECT_EQ(rep.latency == "none", !ok);
        EXPECT_EQ(rep.failures, c.failures);
        EXPECT_TRUE(std::filesystem::is_empty(tmp.path()));
        std::lock_guard<std::mutex> guard(g_seen_lock);
        EXPECT_EQ(g_seen, c.request);
        g_seen.clear();
    }
}

TEST(DvBench, SecondsModeStopsByItself)
{
    ProcessResult r = bench({"--threads", "2", "--seconds", "0.3", "--floor"});
    ASSERT_EQ(r.status, 0) << r.err;
    Report rep = parse_report(r.out);
    EXPECT_GT(rep.calls, 0u);
    EXPECT_EQ(rep.failures, "none");
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
        SCOPED_TRACE(testing::PrintToString(args));
        ProcessResult r = bench(args);
        EXPECT_EQ(r.status, DV_STATUS_ARGUMENTS);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find("usage: dv-bench "), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);
    }
}

}  // namespace
