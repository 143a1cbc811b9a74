// dv-bench runs in every mode, reports in its parseable form, counts failures
// by kind, cleans up after itself and refuses bad usage. Nothing here looks at
// how fast anything is.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "dv.h"
#include "support/config.h"
#include "support/process.h"
#include "support/tempdir.h"
#include "support/test_service.h"

namespace {

std::string dv_bench_path()
{
    return binary_dir() + "/bin/dv-bench";
}

struct Report {
    std::string header;  // "mode=... payload=N" words before threads=
    unsigned long threads = 0;
    unsigned long calls = 0;
    std::string latency;   // "none" or "p50=.. p90=.. p99=.. max=.."
    std::string failures;  // "none" or "key=count ..."
};

std::vector<std::string> split(const std::string& text, char sep)
{
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at; (at = text.find(sep, from)) != std::string::npos; from = at + 1)
        parts.push_back(text.substr(from, at - from));
    parts.push_back(text.substr(from));
    return parts;
}

bool is_number(const std::string& s, bool decimal = false)
{
    if (s.empty())
        return false;
    size_t dots = 0;
    for (char c : s)
        dots += c == '.';
    return s.find_first_not_of(decimal ? "0123456789." : "0123456789") == std::string::npos && dots <= 1 &&
           s.front() != '.' && s.back() != '.';
}

// "key=value" with the expected key and a number as value.
bool numeric_field(const std::string& token, const std::string& key, bool decimal = false)
{
    return token.rfind(key + "=", 0) == 0 && is_number(token.substr(key.size() + 1), decimal);
}

// Parses the three report lines; false (with a test failure) if they do not match.
bool parse_report(const std::string& out, Report* r)
{
    std::vector<std::string> lines = split(out, '\n');
    bool ok = lines.size() == 4 && lines[3].empty();
    if (ok) {
        std::vector<std::string> head = split(lines[0], ' ');
        size_t t = 0;
        while (t < head.size() && head[t].rfind("threads=", 0) != 0)
            t++;
        ok = t >= 1 && head[0].rfind("mode=", 0) == 0 && head.size() == t + 4 && numeric_field(head[t], "threads") &&
             numeric_field(head[t + 1], "calls") && numeric_field(head[t + 2], "seconds", true) &&
             numeric_field(head[t + 3], "calls_per_s");
        if (ok) {
            for (size_t i = 0; i < t; i++)
                r->header += (i ? " " : "") + head[i];
            r->threads = std::stoul(head[t].substr(8));
            r->calls = std::stoul(head[t + 1].substr(6));
        }
    }
    if (ok) {
        std::vector<std::string> lat = split(lines[1], ' ');
        ok = lat[0] == "latency_us" &&
             ((lat.size() == 2 && lat[1] == "none") ||
              (lat.size() == 5 && numeric_field(lat[1], "p50") && numeric_field(lat[2], "p90") &&
               numeric_field(lat[3], "p99") && numeric_field(lat[4], "max")));
        r->latency = lines[1].substr(std::min(lines[1].size(), sizeof("latency_us")));
    }
    if (ok) {
        std::vector<std::string> fail = split(lines[2], ' ');
        ok = fail[0] == "failures" && fail.size() >= 2;
        for (size_t i = 1; ok && i < fail.size(); i++) {
            size_t eq = fail[i].find('=');
            ok = (fail.size() == 2 && fail[i] == "none") ||
                 (eq != std::string::npos && eq > 0 && is_number(fail[i].substr(eq + 1)));
        }
        r->failures = lines[2].substr(std::min(lines[2].size(), sizeof("failures")));
    }
    if (!ok)
        ADD_FAILURE() << "unparseable report:\n" << out;
    return ok;
}

std::vector<std::string> bench_argv(std::vector<std::string> args)
{
    args.insert(args.begin(), dv_bench_path());
    return args;
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

size_t entries_in(const std::string& dir)
{
    size_t n = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            n += std::string(e->d_name) != "." && std::string(e->d_name) != "..";
        closedir(d);
    }
    return n;
}

TEST(DvBench, EveryModeCompletesItsCallsWithoutFailures)
{
    TestService svc(echo_exec);
    struct Case {
        std::vector<std::string> mode;
        std::string header;
    };
    const std::vector<Case> cases = {
        {{"--floor"}, "mode=floor servers=3 payload=2"},
        {{"--payload", "100", "--floor"}, "mode=floor servers=3 payload=100"},
        {{"--self", "2"}, "mode=self workers=2 payload=2"},
        {{"--payload", "300", "--self", "1"}, "mode=self workers=1 payload=300"},
        {{"--spawn", "/bin/true"}, "mode=spawn path=/bin/true"},
        {{svc.name(), "cmd"}, "mode=service service=" + svc.name() + " command=cmd payload=2"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.mode));
        std::vector<std::string> args = {"--threads", "3", "--calls", "7"};
        args.insert(args.end(), c.mode.begin(), c.mode.end());
        ProcessResult r = run_process(bench_argv(args));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        Report rep;
        if (!parse_report(r.out, &rep))
            continue;
        EXPECT_EQ(rep.header, c.header);
        EXPECT_EQ(rep.threads, 3u);
        EXPECT_EQ(rep.calls, 21u);
        EXPECT_NE(rep.latency, "none");
        EXPECT_EQ(rep.failures, "none");
    }
}

TEST(DvBench, SecondsModeStopsByItself)
{
    ProcessResult r = run_process(bench_argv({"--threads", "2", "--seconds", "0.3", "--floor"}), "", {}, 20000);
    ASSERT_EQ(r.status, 0) << r.err;
    Report rep;
    ASSERT_TRUE(parse_report(r.out, &rep));
    EXPECT_GT(rep.calls, 0u);
    EXPECT_EQ(rep.failures, "none");
}

TEST(DvBench, FailuresAreCountedByKindAndStillExitZero)
{
    TempDir dir;
    struct Case {
        std::vector<std::string> args;
        std::string failures;
    };
    const std::vector<Case> cases = {
        {{"--calls", "4", "--spawn", "/bin/false"}, "exit1=4"},
        {{"--calls", "3", "@" + dir.file("absent.sock"), "cmd"}, "status2=3"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        ProcessResult r = run_process(bench_argv(c.args));
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "dv-bench: every call failed\n");
        Report rep;
        if (!parse_report(r.out, &rep))
            continue;
        EXPECT_EQ(rep.latency, "none");
        EXPECT_EQ(rep.failures, c.failures);
    }
}

TEST(DvBench, SendsTheRequestItWasGiven)
{
    TestService svc(recording_exec);
    ProcessResult r = run_process(bench_argv({"--calls", "2", "--json", "{\"k\":[1,2]}", svc.name(), "x"}));
    ASSERT_EQ(r.status, 0) << r.err;
    {
        std::lock_guard<std::mutex> guard(g_seen_lock);
        EXPECT_EQ(g_seen, "{\"k\":[1,2]}");
    }
    r = run_process(bench_argv({"--calls", "1", "--payload", "40", svc.name(), "x"}));
    ASSERT_EQ(r.status, 0) << r.err;
    std::lock_guard<std::mutex> guard(g_seen_lock);
    EXPECT_EQ(g_seen, "{\"p\":\"" + std::string(32, 'x') + "\"}");
}

TEST(DvBench, InProcessServersLeaveNothingBehind)
{
    TempDir tmp;
    for (const char* mode : {"--floor", "--self"}) {
        std::vector<std::string> args = {"--calls", "2", mode};
        if (std::string(mode) == "--self")
            args.push_back("1");
        ProcessResult r = run_process(bench_argv(args), "", {"TMPDIR=" + tmp.path()});
        EXPECT_EQ(r.status, 0) << mode << ": " << r.err;
        EXPECT_EQ(entries_in(tmp.path()), 0u) << mode;
    }
}

TEST(DvBench, BadUsageIsOneLineAndStatusSeven)
{
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"svc"},
        {"svc", "cmd", "extra"},
        {"--floor", "svc", "cmd"},
        {"--floor", "--self", "2"},
        {"--self"},
        {"--self", "0"},
        {"--threads", "0", "--floor"},
        {"--threads", "257", "--floor"},
        {"--calls", "5", "--seconds", "1", "--floor"},
        {"--seconds", "0", "--floor"},
        {"--seconds", "601", "--floor"},
        {"--payload", "7", "--floor"},
        {"--payload", "8", "--json", "{}", "--floor"},
        {"--timeout", "0", "--floor"},
        {"--spawn", "/nonexistent/program"},
        {"--spawn", "/tmp"},
        {"--floor=yes"},
        {"--bogus", "--floor"},
        {std::string(65, 's'), "cmd"},
        {"svc", std::string(257, 'c')},
    };
    for (const auto& args : bad) {
        SCOPED_TRACE(testing::PrintToString(args));
        ProcessResult r = run_process(bench_argv(args));
        EXPECT_EQ(r.status, DV_STATUS_ARGUMENTS);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find("usage: dv-bench "), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);
    }
    ProcessResult help = run_process(bench_argv({"--help"}));
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Failure keys"), std::string::npos);
}

}  // namespace
