// Dispatch through the real client with a table of this test's own: standard
// output pointed at the caller's descriptor while a handler runs, and the
// client released when a row has no handler or its handler throws.
#include "daemon/dispatch.h"
#include "daemon/handler_kit.h"

#include "support/suite.h"

namespace {

std::string fd_target(int fd)
{
    std::error_code ec;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ec);
}

// What descriptor 1 was while print_handler ran and the descriptor it got:
// written by the handler thread, read by the test after the reply (the lock
// makes that order visible to thread checkers too).
std::mutex g_seen_lock;
std::string g_stdout_during;
int g_fd_seen = -2;

void print_handler(dv_io* io, int fd)
{
    {
        std::lock_guard<std::mutex> g(g_seen_lock);
        g_fd_seen = fd;
        g_stdout_during = fd_target(STDOUT_FILENO);
    }
    // Left in stdio's buffer on purpose (no newline, so even a line-buffered
    // stdout keeps it): the dispatcher must flush it to the client before it
    // lets go of the descriptor.
    printf("printed by %s", "print_handler");
    const char raw[] = "written to descriptor 1\n";
    (void)!write(STDOUT_FILENO, raw, sizeof(raw) - 1);
    Json::Value reply;
    reply["result"] = 0;
    send_reply(io, reply);
}

const T_COMMAND_ENTRY kTestTable[] = {
    {"print", print_handler},
    {"throws", [](dv_io*, int) { throw std::bad_alloc(); }},
    {"print", [](dv_io*, int) {}},  // never reached: the first match wins
    {"unwritten", nullptr},         // a known name without a handler
};

void test_table_exec(const char* name, dv_io* io, int fd)
{
    dispatch_command(kTestTable, std::size(kTestTable), name, io, fd);
}

// A row without a handler or a handler that throws releases the client at
// once with no reply and no descriptor left behind; only the exception is
// logged.
TEST(Dispatch, TheCallersDescriptorIsStandardOutputWhileTheHandlerRunsAndEveryEndReleasesTheClient)
{
    HandlerService service(test_table_exec, 1);
    const int before = settled_fd_count() + 1;  // the debug log stays open from its first line
    const int out = make_request_memfd("");
    const std::string out_name = fd_target(out);
    for (int fd : {out, -1}) {  // without one the handler runs all the same, on /dev/null
        int status = -1;
        EXPECT_EQ(service.call("print", "", &status, fd), "{\"result\":0}\n");
        EXPECT_EQ(status, DV_STATUS_OK);
        std::lock_guard<std::mutex> g(g_seen_lock);
        EXPECT_EQ(g_stdout_during, fd < 0 ? "/dev/null" : out_name);
        EXPECT_EQ(g_fd_seen >= 0, fd >= 0);
    }
    EXPECT_TRUE(eventually([] { return fd_target(STDOUT_FILENO) == "/dev/null"; }));
    EXPECT_EQ(read_fd_text(out), "written to descriptor 1\nprinted by print_handler");
    close(out);

    for (const char* name : {"unwritten", "throws"}) {
        int status = -1;
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(service.call(name, "{}", &status), "") << name;
        EXPECT_EQ(status, DV_STATUS_SOCKET) << name;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << name;
    }
    EXPECT_THAT(service.log().messages(),
                testing::ElementsAre(testing::EndsWith("] throws ended by an exception: std::bad_alloc")));
    EXPECT_EQ(settled_fd_count(), before);
}

}  // namespace
