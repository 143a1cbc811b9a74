// dv-call and dv-bench as a person runs them: the request from an argument, a
// file or standard input, the options that read a service's description or
// look at its reply, every bench mode in its parseable form with failures
// counted by kind, and every refusal's status and line.
#include "daemon/dispatch.h"
#include "handlers/registry.h"

#include "support/suite.h"

namespace {

// The last request the mirror saw, to prove what dv-bench sends.
std::mutex g_seen_lock;
std::string g_seen;

// Replies with the request itself, so a row chooses its reply.
void mirror_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    const std::string request = request_text(io);
    {
        std::lock_guard<std::mutex> guard(g_seen_lock);
        g_seen = request;
    }
    reply_text(io, request);
}

// Answers nothing, as a dispatcher does for a name it does not know.
void closing_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    dv_io_free(io);
}

// After "^" the start of the text (an echo ends in the caller's pid), after
// "~" one of its lines, after "/" a regular expression for all of it.
void expect_text(const std::string& got, const std::string& want)
{
    if (want.rfind("^", 0) == 0)
        EXPECT_EQ(got.rfind(want.substr(1), 0), 0u) << got;
    else if (want.rfind("~", 0) == 0)
        EXPECT_NE(got.find(want.substr(1) + "\n"), std::string::npos) << got;
    else if (want.rfind("/", 0) == 0)
        EXPECT_THAT(got, testing::MatchesRegex(want.substr(1)));
    else
        EXPECT_EQ(got, want);
}

TEST(ClientTools, EachWayOfCallingHasItsOutputAndStatus)
{
    TestService echo(echo_exec), described(mirror_exec), silent(closing_exec);
    dv_set_description(described.handle(), describe_commands(DV_SERVICE_NAME, {handler, handler_size}).c_str());
    TempDir dir, tmp;
    const std::string file = dir.file("request.json"), absent = dir.file("absent.sock");
    ASSERT_TRUE(write_text_file(file, "{\"from\":\"file\"}"));
    const std::string E = echo.name(), S = described.name(), N = silent.name();
    auto usage = [](const std::string& what) {
        return "dv-call: " + what + "; usage: dv-call [options] SERVICE COMMAND [JSON|-], or --list SERVICE, or "
               "--describe SERVICE COMMAND\n";
    };
    // A bench run of 3 threads: its header, how many calls, the rate and
    // latencies or, when every call failed, none, then the failures.
    auto ran = [](const std::string& header, const std::string& failures = "none", const std::string& calls = "21") {
        const bool ok = failures == "none";
        return "/" + literal_regex(header) + " threads=3 calls=" + calls + " seconds=[0-9]+\\.[0-9][0-9] calls_per_s=" +
               (ok ? "[0-9]+\nlatency_us p50=[0-9]+ p90=[0-9]+ p99=[0-9]+ max=[0-9]+\n" : "none\nlatency_us none\n") +
               "failures " + failures + "\n";
    };
    const std::string failed = "dv-bench: every call failed\n";
    auto bench = [](std::vector<std::string> args) {  // 3 threads of 7 calls each
        args.insert(args.begin(), {"dv-bench", "--threads", "3", "--calls", "7"});
        return args;
    };
    const std::string service = "mode=service service=" + S + " command=cmd payload=";
    struct Row {
        std::vector<std::string> args;  // the program, then its arguments
        int status;
        std::string out, err;
        std::string in = "", env = "";
        std::optional<std::string> seen = {};  // the request the mirror saw last
    };
    std::vector<Row> rows = {
        {{"dv-call", E, "cmd", "{\"a\":1}"}, 0, "^cmd|{\"a\":1}|", ""},
        {{"dv-call", "--timeout", "7", E, "stdin"}, 0, "^stdin|{\"from\":\"stdin\"}|", "", "{\"from\":\"stdin\"}"},
        {{"dv-call", "--stdout", E, "out", "{}"}, 0, "^extra:out\nout|{}|", ""},
        {{"dv-call", S, "x", "-"}, 0, "{\"from\":\"stdin\"}", "", "{\"from\":\"stdin\"}"},
        {{"dv-call", "--file", file, S, "x"}, 0, "{\"from\":\"file\"}", ""},
        {{"dv-call", "@" + absent, "cmd", "{}"}, DV_STATUS_CONNECT, "",
         "dv-call: @" + absent + ": no such service (nothing listens at " + absent + ")\n"},
        {{"dv-call", "NoSuchService", "cmd", "{}"}, DV_STATUS_CONNECT, "",
         "dv-call: NoSuchService: no such service (nothing listens at " + dir.path() + "/EE328A70.sock" +
             "; names are looked up in $DV_SOCKET_DIR, now " + dir.path() + ")\n",
         "", "DV_SOCKET_DIR=" + dir.path()},
        {{"dv-call", E, std::string(257, 'c'), "{}"}, DV_STATUS_ARGUMENTS, "",
         "dv-call: " + E + ": bad arguments (service name over 64 or command over 256 characters)\n"},
        {{"dv-call", "--list", S}, 0, "~get_vpd_ext_area {\"offest\": int, \"length\": int}", ""},
        {{"dv-call", "--list", S}, 0,
         "~web_booth {\"action\"?: string, \"auth_token\"?: string, \"rule_list\"?: [{\"bs_id\"?: string, "
         "\"des_protocol\"?: string, \"host_name\"?: string, \"des_port\"?: int, \"browser_type\"?: string}]}",
         ""},
        {{"dv-call", "--list", S}, 0, "~exec_cli TEXT (the request text itself, not JSON)", ""},
        {{"dv-call", "--list", S}, 0, "/([^\n]+\n){42}", ""},  // every command of the table, one line each
        {{"dv-call", "--describe", S, "get_group_members"}, 0,
         "get_group_members: How many members a group has.\n"
         "request: a JSON object; a missing or mistyped key is \"paser fail\"\n"
         "  \"group_name\"  string\n"
         "reply: \"result\" 0, \"user_count\", \"user_list\"\n"
         "failures: \"nox_get_group_members_handler fail\" with \"result\" -1\n"
         "note: \"user_list\" holds `true` for each member, never names.\n",
         ""},
        {{"dv-call", "--json", "--describe", S, "test"}, 0, "~  \"name\" : \"test\",", ""},
        {{"dv-call", "--describe", S, "nope"}, 5, "",
         "dv-call: " + S + " has no command nope: see dv-call --list " + S + "\n"},
        {{"dv-call", "--list", N}, 5, "",
         "dv-call: " + N + ": it describes no commands (the connection closed for \"dv.describe\")\n"},
        {{"dv-call", N, "nope", "{}"}, 5, "",
         "dv-call: " + N + ": connection closed without a reply; the service closes the connection for commands it "
                           "does not know: see dv-call --list " + N + "\n"},
        {{"dv-call", "--check", S, "x", "{\"result\":-1}"}, 8, "{\"result\":-1}",
         "dv-call: the reply reports a failure (\"result\" -1)\n"},
        {{"dv-call", "--check", S, "x", "{\"error_code\":-2}"}, 8, "{\"error_code\":-2}",
         "dv-call: the reply reports a failure (\"error_code\" -2)\n"},
        {{"dv-call", "--check", S, "x", "{\"error_code\":0,\"result\":\"-1\"}"}, 0,
         "{\"error_code\":0,\"result\":\"-1\"}", ""},
        {{"dv-call", "--pretty", S, "x", "{\"b\":1,\"a\":\"x\"}"}, 0, "{\n  \"a\" : \"x\",\n  \"b\" : 1\n}\n", ""},
        {{"dv-call"}, 7, "", usage("missing SERVICE or COMMAND")},
        {{"dv-call", "--timeout"}, 7, "", usage("--timeout needs a number of seconds")},
        {{"dv-call", "--timeout", "-1", "svc", "cmd"}, 7, "", usage("--timeout needs a number of seconds")},
        {{"dv-call", "--wait", "x", "svc", "cmd"}, 7, "", usage("--wait needs a number of seconds")},
        {{"dv-call", "--bogus", "svc", "cmd"}, 7, "", usage("unknown option --bogus")},
        {{"dv-call", "svc", "cmd", "{}", "extra"}, 7, "", usage("too many arguments")},
        {{"dv-call", "--list"}, 7, "", usage("--list takes SERVICE only")},
        {{"dv-call", "--describe", "svc"}, 7, "", usage("--describe takes SERVICE and COMMAND")},
        {{"dv-call", "--list", "--describe", "svc", "cmd"}, 7, "", usage("--list and --describe do not go together")},
        {{"dv-call", "--file", "f", "svc", "cmd", "{}"}, 7, "",
         usage("the request comes from JSON or --file, not both")},
        {{"dv-call", "--file", "/nonexistent/request", "svc", "cmd"}, 7, "",
         usage("cannot read the request from /nonexistent/request")},

        // Every mode completes its calls and sends what was asked for; the
        // in-process servers leave nothing in TMPDIR.
        {bench({"--floor"}), 0, ran("mode=floor servers=3 payload=2"), ""},
        {bench({"--payload", "300", "--self", "2"}), 0, ran("mode=self workers=2 payload=300"), ""},
        {bench({"--spawn", "/bin/true"}), 0, ran("mode=spawn path=/bin/true"), ""},
        {bench({"--fail-on-error", S, "cmd"}), 0, ran(service + "2"), "", "", "", "{}"},
        {bench({"--payload", "40", S, "cmd"}), 0, ran(service + "40"), "", "", "",
         "{\"p\":\"" + std::string(32, 'x') + "\"}"},
        {bench({"--json", "{\"k\":[1,2]}", S, "cmd"}), 0, ran(service + "11"), "", "", "", "{\"k\":[1,2]}"},
        {{"dv-bench", "--threads", "3", "--seconds", "0.3", "--floor"}, 0,
         ran("mode=floor servers=3 payload=2", "none", "[1-9][0-9]*"), ""},
        // Failed calls counted by kind; when every call failed, no rate.
        {bench({"--spawn", "/bin/false"}), 8, ran("mode=spawn path=/bin/false", "exit1=21"), failed},
        {bench({"@" + absent, "cmd"}), 8,
         ran("mode=service service=@" + absent + " command=cmd payload=2", "status2=21"), failed},
    };
    // Each refusal of dv-bench is one line and status 7.
    for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
             {}, {"svc", "cmd", "extra"}, {"--floor", "svc", "cmd"}, {"--floor", "--self", "2"}, {"--self", "0"},
             {"--threads", "0", "--floor"}, {"--threads", "257", "--floor"}, {"--seconds", "601", "--floor"},
             {"--calls", "5", "--seconds", "1", "--floor"}, {"--payload", "7", "--floor"}, {"--bogus", "--floor"},
             {"--payload", "8", "--json", "{}", "--floor"}, {"--spawn", "/nonexistent/program"}, {"--spawn", "/tmp"},
             {"--floor=yes"}, {"--timeout", "0", "--floor"}, {std::string(65, 's'), "cmd"},
             {"svc", std::string(257, 'c')}}) {
        rows.push_back({{"dv-bench"}, DV_STATUS_ARGUMENTS, "", "/dv-bench: [^\n]+; usage: dv-bench [^\n]+\n"});
        rows.back().args.insert(rows.back().args.end(), bad.begin(), bad.end());
    }
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        std::vector<std::string> argv = row.args;
        argv[0] = binary_dir() + "/bin/" + argv[0];
        std::vector<std::string> env = {"TMPDIR=" + tmp.path()};
        if (!row.env.empty())
            env.push_back(row.env);
        ProcessResult r = run_process(argv, row.in, env);
        EXPECT_EQ(r.status, row.status);
        expect_text(r.out, row.out);
        expect_text(r.err, row.err);
        EXPECT_TRUE(std::filesystem::is_empty(tmp.path()));
        std::lock_guard<std::mutex> guard(g_seen_lock);
        EXPECT_TRUE(!row.seen || g_seen == *row.seen) << g_seen;
        g_seen.clear();
    }

    // --wait: a service that comes up while dv-call waits answers it.
    const std::string late = "@" + dir.file("late.sock");
    dv_handle* h = nullptr;
    std::thread starter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        h = dv_create(late.c_str(), DV_PTHREAD_MODE | DV_STANDALONE, 1, echo_exec);
        dv_start(h);
    });
    ProcessResult r = run_process({binary_dir() + "/bin/dv-call", "--wait", "10", late, "cmd", "{}"});
    starter.join();
    dv_free(h);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("cmd|{}|", 0), 0u) << r.out;
}

}  // namespace
