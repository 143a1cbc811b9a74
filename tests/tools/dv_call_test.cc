// dv-call as a person uses it: the request from an argument, a file or
// standard input, --stdout, --wait, the options that read a service's
// description or look at its reply, and every failure's status and line.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "daemon/dispatch.h"
#include "dv.h"
#include "handlers/registry.h"
#include "support/services.h"

namespace {

std::string dv_call_path()
{
    return binary_dir() + "/bin/dv-call";
}

// Replies with the request itself, so a row chooses its reply.
void mirror_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    reply_text(io, request_text(io));
}

// Answers nothing, as a dispatcher does for a name it does not know.
void closing_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    dv_io_free(io);
}

TEST(DvCall, EachWayOfCallingHasItsOutputAndStatus)
{
    TestService echo(echo_exec), described(mirror_exec), silent(closing_exec);
    dv_set_description(described.handle(), describe_commands(DV_SERVICE_NAME, {handler, handler_size}).c_str());
    TempDir dir;
    const std::string file = dir.file("request.json"), absent = dir.file("absent.sock");
    ASSERT_TRUE(write_text_file(file, "{\"from\":\"file\"}"));
    const std::string E = echo.name(), S = described.name(), N = silent.name();
    auto usage = [](const std::string& what) {
        return "dv-call: " + what + "; usage: dv-call [options] SERVICE COMMAND [JSON|-], or --list SERVICE, or "
               "--describe SERVICE COMMAND\n";
    };
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string out;  // the whole output; after "^" its start (an echo ends in dv-call's pid); after "~" a line
        std::string err;
        std::string in = "", env = "";
    };
    const Row rows[] = {
        {{E, "cmd", "{\"a\":1}"}, 0, "^cmd|{\"a\":1}|", ""},
        {{"--timeout", "7", E, "stdin"}, 0, "^stdin|{\"from\":\"stdin\"}|", "", "{\"from\":\"stdin\"}"},
        {{"--stdout", E, "out", "{}"}, 0, "^extra:out\nout|{}|", ""},
        {{S, "x", "-"}, 0, "{\"from\":\"stdin\"}", "", "{\"from\":\"stdin\"}"},
        {{"--file", file, S, "x"}, 0, "{\"from\":\"file\"}", ""},
        {{"@" + absent, "cmd", "{}"}, DV_STATUS_CONNECT, "",
         "dv-call: @" + absent + ": no such service (nothing listens at " + absent + ")\n"},
        {{"NoSuchService", "cmd", "{}"}, DV_STATUS_CONNECT, "",
         "dv-call: NoSuchService: no such service (nothing listens at " + dir.path() + "/EE328A70.sock" +
             "; names are looked up in $DV_SOCKET_DIR, now " + dir.path() + ")\n",
         "", "DV_SOCKET_DIR=" + dir.path()},
        {{E, std::string(257, 'c'), "{}"}, DV_STATUS_ARGUMENTS, "",
         "dv-call: " + E + ": bad arguments (service name over 64 or command over 256 characters)\n"},
        {{"--list", S}, 0, "~get_vpd_ext_area {\"offest\": int, \"length\": int}", ""},
        {{"--list", S}, 0, "~web_booth {\"action\"?: string, \"auth_token\"?: string, \"rule_list\"?: "
                           "[{\"bs_id\"?: string, \"des_protocol\"?: string, \"host_name\"?: string, \"des_port\"?: int, "
                           "\"browser_type\"?: string}]}", ""},
        {{"--list", S}, 0, "~exec_cli TEXT (the request text itself, not JSON)", ""},
        {{"--describe", S, "get_group_members"}, 0,
         "get_group_members: How many members a group has.\n"
         "request: a JSON object; a missing or mistyped key is \"paser fail\"\n"
         "  \"group_name\"  string\n"
         "reply: \"result\" 0, \"user_count\", \"user_list\"\n"
         "failures: \"nox_get_group_members_handler fail\" with \"result\" -1\n"
         "note: \"user_list\" holds `true` for each member, never names.\n", ""},
        {{"--json", "--describe", S, "test"}, 0, "~  \"name\" : \"test\",", ""},
        {{"--describe", S, "nope"}, 5, "", "dv-call: " + S + " has no command nope: see dv-call --list " + S + "\n"},
        {{"--list", N}, 5, "", "dv-call: " + N + ": it describes no commands (the connection closed for \"dv.describe\")\n"},
        {{N, "nope", "{}"}, 5, "", "dv-call: " + N + ": connection closed without a reply; the service closes the "
                                   "connection for commands it does not know: see dv-call --list " + N + "\n"},
        {{"--check", S, "x", "{\"result\":-1}"}, 8, "{\"result\":-1}", "dv-call: the reply reports a failure (\"result\" -1)\n"},
        {{"--check", S, "x", "{\"error_code\":-2}"}, 8, "{\"error_code\":-2}", "dv-call: the reply reports a failure (\"error_code\" -2)\n"},
        {{"--check", S, "x", "{\"error_code\":0,\"result\":\"-1\"}"}, 0, "{\"error_code\":0,\"result\":\"-1\"}", ""},
        {{"--pretty", S, "x", "{\"b\":1,\"a\":\"x\"}"}, 0, "{\n  \"a\" : \"x\",\n  \"b\" : 1\n}\n", ""},
        {{"--version"}, 0, std::string("dv-call ") + DV_VERSION_STRING + "\n", ""},
        {{}, 7, "", usage("missing SERVICE or COMMAND")},
        {{"--timeout"}, 7, "", usage("--timeout needs a number of seconds")},
        {{"--timeout", "-1", "svc", "cmd"}, 7, "", usage("--timeout needs a number of seconds")},
        {{"--wait", "x", "svc", "cmd"}, 7, "", usage("--wait needs a number of seconds")},
        {{"--bogus", "svc", "cmd"}, 7, "", usage("unknown option --bogus")},
        {{"svc", "cmd", "{}", "extra"}, 7, "", usage("too many arguments")},
        {{"--list"}, 7, "", usage("--list takes SERVICE only")},
        {{"--describe", "svc"}, 7, "", usage("--describe takes SERVICE and COMMAND")},
        {{"--list", "--describe", "svc", "cmd"}, 7, "", usage("--list and --describe do not go together")},
        {{"--file", "f", "svc", "cmd", "{}"}, 7, "", usage("the request comes from JSON or --file, not both")},
        {{"--file", "/nonexistent/request", "svc", "cmd"}, 7, "", usage("cannot read the request from /nonexistent/request")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        std::vector<std::string> argv = {dv_call_path()};
        argv.insert(argv.end(), row.args.begin(), row.args.end());
        ProcessResult r = run_process(argv, row.in, row.env.empty() ? std::vector<std::string>{} : std::vector{row.env});
        EXPECT_EQ(r.status, row.status);
        if (row.out.rfind("~", 0) == 0)
            EXPECT_NE(r.out.find(row.out.substr(1) + "\n"), std::string::npos) << r.out;
        else if (row.out.rfind("^", 0) == 0)
            EXPECT_EQ(r.out.rfind(row.out.substr(1), 0), 0u) << r.out;
        else
            EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
    }
    // Every command of the table, one line each.
    ProcessResult r = run_process({dv_call_path(), "--list", S});
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 42);

    // --wait: a service that comes up while dv-call waits answers it.
    const std::string late = "@" + dir.file("late.sock");
    dv_handle* h = nullptr;
    std::thread starter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        h = dv_create(late.c_str(), DV_PTHREAD_MODE | DV_STANDALONE, 1, echo_exec);
        dv_start(h);
    });
    r = run_process({dv_call_path(), "--wait", "10", late, "cmd", "{}"});
    starter.join();
    dv_free(h);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("cmd|{}|", 0), 0u) << r.out;
}

}  // namespace
