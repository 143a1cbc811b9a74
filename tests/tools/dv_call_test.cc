// dv-call as a person uses it: exit statuses, usage, stdin, --stdout, and
// the options that read a service's description or look at its reply.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "daemon/dispatch.h"
#include "handlers/registry.h"
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
    EXPECT_EQ(r.err, "dv-call: @" + dir.file("absent.sock") + ": no such service (nothing listens at " +
                         dir.file("absent.sock") + ")\n");
    // A name is hashed into the socket directory, which the message names.
    r = run_process({dv_call_path(), "NoSuchService", "cmd", "{}"}, "", {"DV_SOCKET_DIR=" + dir.path()});
    EXPECT_EQ(r.status, DV_STATUS_CONNECT);
    EXPECT_NE(r.err.find("names are looked up in $DV_SOCKET_DIR, now " + dir.path() + ")"), std::string::npos);

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

    r = run_process({dv_call_path(), svc.name(), std::string(257, 'c'), "{}"});
    EXPECT_EQ(r.status, DV_STATUS_ARGUMENTS);
}

TEST(DvCall, BadUsageIsOneLineAndStatusSeven)
{
    const std::vector<std::vector<std::string>> bad = {
        {}, {"only-service"}, {"--timeout"}, {"--timeout", "soon", "svc", "cmd"}, {"--timeout", "-1", "svc", "cmd"},
        {"--bogus", "svc", "cmd"}, {"svc", "cmd", "{}", "extra"}, {"--wait", "x", "svc", "cmd"}, {"--list"},
        {"--describe", "svc"}, {"--list", "--describe", "svc", "cmd"}, {"--file", "f", "svc", "cmd", "{}"},
        {"--file", "/nonexistent/request", "svc", "cmd"},
    };
    for (const auto& args : bad) {
        SCOPED_TRACE(testing::PrintToString(args));
        std::vector<std::string> argv = {dv_call_path()};
        argv.insert(argv.end(), args.begin(), args.end());
        ProcessResult r = run_process(argv);
        EXPECT_EQ(r.status, DV_STATUS_ARGUMENTS);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find("usage: dv-call [options] SERVICE COMMAND [JSON|-], or --list SERVICE, or --describe "
                             "SERVICE COMMAND"),
                  std::string::npos);
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);
    }
}

// Replies with the request itself, so a row chooses its reply.
void mirror_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    size_t size = 0;
    const char* request = dv_io_read(io, &size);
    std::string text(request ? request : "", request ? size : 0);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", text.c_str());
    dv_reply(io);
    dv_io_free(io);
}

// Answers nothing, as a dispatcher does for a name it does not know.
void closing_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    dv_io_free(io);
}

TEST(DvCall, ListsDescribesChecksAndFormats)
{
    TestService described(mirror_exec), silent(closing_exec);
    dv_set_description(described.handle(), describe_commands(DV_SERVICE_NAME, {handler, handler_size}).c_str());
    TempDir dir;
    const std::string file = dir.file("request.json");
    std::ofstream(file) << "{\"from\":\"file\"}";
    const std::string S = described.name(), N = silent.name();
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string out;  // the whole output, or a line of it after "~"
        std::string err;
        std::string in = "";
    };
    const Row rows[] = {
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
        {{"--file", file, S, "x"}, 0, "{\"from\":\"file\"}", ""},
        {{S, "x", "-"}, 0, "{\"from\":\"stdin\"}", "", "{\"from\":\"stdin\"}"},
        {{"--version"}, 0, std::string("dv-call ") + DV_VERSION_STRING + "\n", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        std::vector<std::string> argv = {dv_call_path()};
        argv.insert(argv.end(), row.args.begin(), row.args.end());
        ProcessResult r = run_process(argv, row.in);
        EXPECT_EQ(r.status, row.status);
        if (row.out.rfind("~", 0) == 0)
            EXPECT_NE(r.out.find(row.out.substr(1) + "\n"), std::string::npos) << r.out;
        else
            EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
    }
    // Every command of the table, one line each.
    ProcessResult r = run_process({dv_call_path(), "--list", S});
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 42);
}

}  // namespace
