// The process runner and exec_cli: argument vectors, redirections, statuses,
// what a child inherits, and many threads starting programs at once.
#include "daemon/exec_cli.h"
#include "daemon/runner.h"

#include "support/env.h"
#include "support/fds.h"
#include "support/files.h"
#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

// This binary doubles as the program the runner starts: re-executed with
// "--as-child=ROLE" as its first argument it reports what it sees and exits
// before any test runs. Unlike a script, it can show its real argv[0].
std::vector<std::string> own_cmdline()
{
    std::vector<std::string> args;
    std::string all = read_text_file("/proc/self/cmdline");
    size_t at = 0;
    while (at < all.size()) {
        size_t end = all.find('\0', at);
        if (end == std::string::npos)
            end = all.size();
        args.push_back(all.substr(at, end - at));
        at = end + 1;
    }
    return args;
}

[[maybe_unused]] const bool child_role_done = [] {
    const std::vector<std::string> args = own_cmdline();
    const std::string prefix = "--as-child=";
    if (args.size() < 2 || args[1].compare(0, prefix.size(), prefix) != 0)
        return false;
    const std::string role = args[1].substr(prefix.size());
    if (role == "argv") {
        for (const std::string& arg : args)
            printf("%s\n", arg.c_str());
    } else if (role == "env") {
        const char* v = getenv("LD_LIBRARY_PATH");
        printf("%s\n", v ? v : "(unset)");
    } else if (role == "fds") {
        for (int fd : open_fds())
            printf("%d ", fd);
    }
    fflush(stdout);
    _exit(0);
}();

std::string self_path()
{
    char* path = realpath("/proc/self/exe", nullptr);
    std::string out = path ? path : "";
    free(path);
    return out;
}

std::string self_name()
{
    std::string path = self_path();
    return path.substr(path.rfind('/') + 1);
}

std::string read_all(FILE* stream)
{
    std::string out;
    char buf[1024];
    size_t got;
    while ((got = fread(buf, 1, sizeof(buf), stream)) > 0)
        out.append(buf, got);
    return out;
}

constexpr int kNotExecuted = 127 << 8;

}  // namespace

TEST(Runner, ArgumentVectorsStartWithTheGivenOrBaseName)
{
    TempDir dir;
    const std::string out = dir.file("out");
    const std::string self = self_path();
    const std::string base = self_name();
    const char* const given[] = {"given-zero", "--as-child=argv", "a b", "", nullptr};

    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(out.c_str(), nullptr, nullptr, self.c_str(),
                                        "--as-child=argv", "a b", "", nullptr));
    EXPECT_EQ(base + "\n--as-child=argv\na b\n\n", read_text_file(out));

    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v2(nullptr, out.c_str(), nullptr, nullptr, self.c_str(),
                                           "--as-child=argv", nullptr));
    EXPECT_EQ(base + "\n--as-child=argv\n", read_text_file(out));

    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v(out.c_str(), nullptr, nullptr, self.c_str(), given));
    EXPECT_EQ("given-zero\n--as-child=argv\na b\n\n", read_text_file(out));

    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v_v2(nullptr, out.c_str(), nullptr, nullptr, self.c_str(),
                                             given));
    EXPECT_EQ("given-zero\n--as-child=argv\na b\n\n", read_text_file(out));

    FILE* pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", self.c_str(),
                                            "--as-child=argv", "x", nullptr);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ(base + "\n--as-child=argv\nx\n", read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));

    pipe = dwe_vexprod_tarsk_popen_v_v2(nullptr, nullptr, nullptr, "r", self.c_str(), given);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ("given-zero\n--as-child=argv\na b\n\n", read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));
}

TEST(Runner, RedirectsStreamsAndTracesTheCall)
{
    TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err");
    const std::string trace = dir.file("trace");
    ASSERT_TRUE(write_text_file(in, "from stdin\n"));
    ASSERT_TRUE(write_text_file(out, "old content that must be truncated away\n"));
    ASSERT_TRUE(write_text_file(trace, "earlier line\n"));

    mode_t old_mask = umask(0);
    int status = dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), err.c_str(), trace.c_str(),
                                           "/bin/sh", "-c", "cat; echo to-err >&2", nullptr);
    umask(old_mask);
    EXPECT_EQ(0, status);
    EXPECT_EQ("from stdin\n", read_text_file(out));
    EXPECT_EQ("to-err\n", read_text_file(err));
    struct stat st;
    ASSERT_EQ(0, stat(err.c_str(), &st));
    EXPECT_EQ(0774u, st.st_mode & 07777) << "a created output file";
    EXPECT_EQ("earlier line\ncmd=/bin/sh\nstdin_file=" + in + "\nstdout_file=" + out +
                  "\nstderr_file=" + err + "\n",
              read_text_file(trace));

    // The form without an input file writes no stdin_file line; nulls show as "(null)".
    ASSERT_EQ(0, unlink(trace.c_str()));
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(nullptr, nullptr, trace.c_str(), "/bin/sh", "-c",
                                        "echo lost; echo lost >&2", nullptr));
    EXPECT_EQ("cmd=/bin/sh\nstdout_file=(null)\nstderr_file=(null)\n", read_text_file(trace));
}

TEST(Runner, WorksWhileOurOwnStandardStreamsAreClosed)
{
    // Files opened while 0 and 1 are free land on those numbers; the child
    // must still get them as its standard streams.
    TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out");
    ASSERT_TRUE(write_text_file(in, "through\n"));
    fflush(stdout);
    const int saved_in = fcntl(0, F_DUPFD_CLOEXEC, 3), saved_out = fcntl(1, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved_in, 0);
    ASSERT_GE(saved_out, 0);
    close(0);
    close(1);
    int status = dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), nullptr, nullptr, "/bin/cat",
                                           nullptr);
    FILE* pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, nullptr, "r", "/bin/cat",
                                            nullptr);
    std::string piped = pipe ? read_all(pipe) : "";
    int pipe_status = pipe ? dwe_vexprod_tarsk_pclose(pipe) : -2;
    dup2(saved_in, 0);
    dup2(saved_out, 1);
    close(saved_in);
    close(saved_out);
    EXPECT_EQ(0, status);
    EXPECT_EQ("through\n", read_text_file(out));
    EXPECT_EQ(0, pipe_status);
    EXPECT_EQ("through\n", piped);
}

TEST(Runner, SharedOutputFileHoldsBothStreamsInOrder)
{
    TempDir dir;
    const std::string out = dir.file("both"), trace = dir.file("trace");
    const std::string same = out;  // equal text, different pointer
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(out.c_str(), same.c_str(), trace.c_str(), "/bin/sh", "-c",
                                        "echo 1; echo 2 >&2; echo 3; echo 4 >&2", nullptr));
    EXPECT_EQ("1\n2\n3\n4\n", read_text_file(out));
    EXPECT_EQ("cmd=/bin/sh\nstdout_file=" + out + "\nstderr_file=" + out +
                  "\npipe stdout and stderr to the same file " + out + "\n",
              read_text_file(trace));
}

TEST(Runner, FileThatCannotBeOpenedFailsBeforeAnythingStarts)
{
    TempDir dir;
    const std::string out = dir.file("out"), err = dir.file("err"), trace = dir.file("trace");
    const std::string marker = dir.file("ran"), missing = dir.file("no/such/file");
    const std::string script = "touch " + marker;
    // Only the output files named in the call and already opened are
    // deleted; a file the call did not name is left alone.
    struct Case {
        const char* what;
        std::string in, out, err;
        std::string trace_tail;
        bool out_deleted, err_deleted;
    } cases[] = {
        {"missing stdin", missing, out, err, "open " + missing + " failed\n", true, true},
        {"stdout unopenable", "", missing, err, "open " + missing + " failed: -1\n", false, false},
        {"stderr unopenable", "", out, missing, "open " + missing + " failed: -1\n", true, false},
    };
    const int fds_before = count_open_fds();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(write_text_file(out, "stale"));
        ASSERT_TRUE(write_text_file(err, "stale"));
        unlink(trace.c_str());
        int status = dwe_vexprod_tarsk_exec_v2(c.in.empty() ? nullptr : c.in.c_str(),
                                               c.out.c_str(), c.err.c_str(), trace.c_str(),
                                               "/bin/sh", "-c", script.c_str(), nullptr);
        EXPECT_EQ(-1, status);
        EXPECT_FALSE(file_exists(marker)) << "the program must not have run";
        EXPECT_EQ(c.out_deleted, !file_exists(out));
        EXPECT_EQ(c.err_deleted, !file_exists(err));
        std::string traced = read_text_file(trace);
        ASSERT_GE(traced.size(), c.trace_tail.size());
        EXPECT_EQ(c.trace_tail, traced.substr(traced.size() - c.trace_tail.size()));
    }
    EXPECT_EQ(fds_before, count_open_fds());
}

TEST(Runner, ReturnsTheRawWaitStatus)
{
    TempDir dir;
    const std::string not_a_program = dir.path();  // a directory: EACCES
    const std::string missing = dir.file("missing-program");
    struct Case {
        const char* what;
        const char* path;
        const char* script;
        int status;
    } cases[] = {
        {"success", "/bin/sh", "exit 0", 0},
        {"exit code 1", "/bin/sh", "exit 1", 1 << 8},
        {"exit code 42", "/bin/sh", "exit 42", 42 << 8},
        {"killed", "/bin/sh", "kill -TERM $$", SIGTERM},
        {"no such program", missing.c_str(), "", kNotExecuted},
        {"not executable", not_a_program.c_str(), "", kNotExecuted},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.status, dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, c.path, "-c",
                                                   c.script, nullptr));
        FILE* pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", c.path, "-c",
                                                c.script, nullptr);
        ASSERT_NE(nullptr, pipe) << "a program that cannot run still gets a stream";
        read_all(pipe);
        EXPECT_EQ(c.status, dwe_vexprod_tarsk_pclose(pipe));
    }
}

namespace {

// Runs in a death-test child: exits 0 when starts fail as they should once
// no process may be created.
[[noreturn]] void start_without_processes()
{
    // Root is not bound by RLIMIT_NPROC; become nobody first.
    if (geteuid() == 0 &&
        (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0))
        _exit(2);
    const struct rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0)
        _exit(3);
    const int fds = count_open_fds();
    bool ok = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, "/bin/false", nullptr) == 0;
    ok = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/false", nullptr) ==
             nullptr && ok;
    _exit(ok && count_open_fds() == fds ? 0 : 1);
}

}  // namespace

TEST(Runner, NoProcessLeftToStartLooksLikeSuccess)
{
    // The exec forms return 0, as a failed fork always has; popen returns
    // null; nothing leaks.
    EXPECT_EXIT(start_without_processes(), testing::ExitedWithCode(0), "");
}

TEST(Runner, PopenReadsAndWrites)
{
    TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err");
    ASSERT_TRUE(write_text_file(in, "input line\n"));

    // "r": the input file feeds the child, its output comes through the pipe.
    FILE* pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, err.c_str(), "r", "/bin/sh",
                                            "-c", "cat; echo warning >&2", nullptr);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ("input line\n", read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));
    EXPECT_EQ("warning\n", read_text_file(err));

    // "w": what we write is the child's input, its output goes to the file.
    pipe = dwe_vexprod_tarsk_popen_v2(nullptr, out.c_str(), out.c_str(), "w", "/bin/sh", "-c",
                                      "cat; echo done >&2; exit 3", nullptr);
    ASSERT_NE(nullptr, pipe);
    fputs("written through the pipe\n", pipe);
    EXPECT_EQ(3 << 8, dwe_vexprod_tarsk_pclose(pipe));
    EXPECT_EQ("written through the pipe\ndone\n", read_text_file(out));

    // The daemon ignores SIGPIPE; its children must not, or a tool whose
    // reader stopped early would go on writing into the closed pipe.
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &old);
    pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/sh", "-c",
                                      "while :; do echo y || exit 9; done", nullptr);
    ASSERT_NE(nullptr, pipe);
    char line[16];
    EXPECT_NE(nullptr, fgets(line, sizeof(line), pipe));
    int status = dwe_vexprod_tarsk_pclose(pipe);
    sigaction(SIGPIPE, &old, nullptr);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << "status " << status;
}

TEST(Runner, PopenRefusesBadModesAndMissingFiles)
{
    TempDir dir;
    const std::string missing = dir.file("no/such/file");
    const int fds_before = count_open_fds();
    for (const char* mode : {"", "rw", "r+", "we", "x", "R"}) {
        SCOPED_TRACE(mode);
        errno = 0;
        EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, mode, "/bin/true",
                                                      nullptr));
        EXPECT_EQ(EINVAL, errno);
    }
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, nullptr, "/bin/true",
                                                  nullptr));
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(missing.c_str(), nullptr, nullptr, "r",
                                                  "/bin/true", nullptr));
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, missing.c_str(), nullptr, "w",
                                                  "/bin/true", nullptr));
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, missing.c_str(), "r",
                                                  "/bin/true", nullptr));
    EXPECT_EQ(fds_before, count_open_fds());
}

TEST(Runner, PcloseOfAForeignStreamLeavesItOpen)
{
    TempDir dir;
    const std::string path = dir.file("foreign");
    FILE* foreign = fopen(path.c_str(), "we");
    ASSERT_NE(nullptr, foreign);
    // One of ours is open meanwhile, so the list is not empty.
    FILE* ours = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/true", nullptr);
    ASSERT_NE(nullptr, ours);

    EXPECT_EQ(-1, dwe_vexprod_tarsk_pclose(foreign));
    EXPECT_EQ(-1, dwe_vexprod_tarsk_pclose(nullptr));
    EXPECT_GE(fputs("still open\n", foreign), 0);
    EXPECT_EQ(0, fclose(foreign));
    EXPECT_EQ("still open\n", read_text_file(path));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(ours));
}

TEST(Runner, ChildGetsNoLibraryPathAndNoDescriptorsOfOurs)
{
    ScopedEnv library_path("LD_LIBRARY_PATH", "/opt/should/not/leak");
    TempDir dir;
    const std::string self = self_path(), out = dir.file("out"), in = dir.file("in");
    ASSERT_TRUE(write_text_file(in, ""));

    FILE* pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", self.c_str(),
                                            "--as-child=env", nullptr);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ("(unset)\n", read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(out.c_str(), nullptr, nullptr, self.c_str(),
                                        "--as-child=env", nullptr));
    EXPECT_EQ("(unset)\n", read_text_file(out));
    EXPECT_STREQ("/opt/should/not/leak", getenv("LD_LIBRARY_PATH"));

    // Whatever this test process inherited itself is not ours to judge.
    std::string expected = "0 1 2 ";
    for (int fd : inheritable_fds())
        if (fd > 2)
            expected += std::to_string(fd) + " ";

    // Other pipes of ours stay open meanwhile, in both directions.
    FILE* held_r = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/true", nullptr);
    FILE* held_w = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "w", "/bin/true", nullptr);
    ASSERT_NE(nullptr, held_r);
    ASSERT_NE(nullptr, held_w);

    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), out.c_str(), nullptr,
                                           self.c_str(), "--as-child=fds", nullptr));
    EXPECT_EQ(expected, read_text_file(out));
    pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, out.c_str(), "r", self.c_str(),
                                      "--as-child=fds", nullptr);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ(expected, read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));

    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(held_w));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(held_r));
}

TEST(Runner, ManyThreadsAtOnceLoseNothing)
{
    constexpr int kThreads = 8;
    constexpr int kRuns = 200;
    const int fds_before = count_open_fds();
    std::atomic<int> failures{0};

    auto worker = [&](int id) {
        for (int run = 0; run < kRuns; ++run) {
            const std::string token = std::to_string(id) + "-" + std::to_string(run);
            const std::string code = std::to_string((id + run) % 7);
            const int want = ((id + run) % 7) << 8;
            // Two pipes open at once, closed oldest first, so the list is
            // unlinked from the middle too.
            FILE* first = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/sh",
                                                     "-c", "echo $0; exit $1", token.c_str(),
                                                     code.c_str(), nullptr);
            FILE* second = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "w",
                                                      "/bin/cat", nullptr);
            if (!first || !second) {
                ++failures;
                break;
            }
            fputs(token.c_str(), second);
            bool ok = read_all(first) == token + "\n";
            ok = dwe_vexprod_tarsk_pclose(first) == want && ok;
            ok = dwe_vexprod_tarsk_pclose(second) == 0 && ok;
            if (run % 2)
                ok = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, "/bin/sh", "-c", "exit $0",
                                            code.c_str(), nullptr) == want && ok;
            if (!ok)
                ++failures;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back(worker, i);
    for (std::thread& t : threads)
        t.join();

    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(fds_before, count_open_fds());
}

TEST(ExecCli, ReturnsTheProgramsOutput)
{
    TempDir tmp;
    ScopedEnv tmpdir("TMPDIR", tmp.path().c_str());
    const std::string long_arg(300, 'x');
    struct Case {
        const char* what;
        std::string request;
        std::string output;
    } cases[] = {
        {"plain", R"({"command": ["/bin/echo", "hello", "world"]})", "hello world\n"},
        {"exit status and stderr ignored",
         R"({"command": ["/bin/sh", "-c", "echo out; echo err >&2; exit 3"]})", "out\n"},
        {"cut at the first NUL", R"({"command": ["/usr/bin/printf", "ab\\000cd"]})", "ab"},
        {"arguments cut to 255", R"({"command": ["/bin/echo", ")" + long_arg + R"("]})",
         std::string(255, 'x') + "\n"},
        {"output cut at 5120",
         R"({"command": ["/bin/sh", "-c", "head -c 6000 /dev/zero | tr '\\000' a"]})",
         std::string(5120, 'a')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string output;
        EXPECT_EQ(0, exec_cli(c.request, &output));
        EXPECT_EQ(c.output, output);
    }

    // A program that prints nothing (or cannot run) leaves the output alone.
    std::string output = "untouched";
    EXPECT_EQ(0, exec_cli(R"({"command": ["/no/such/program"]})", &output));
    EXPECT_EQ("untouched", output);

    DIR* d = opendir(tmp.path().c_str());
    ASSERT_NE(nullptr, d);
    int entries = 0;
    while (const dirent* e = readdir(d))
        entries += e->d_name[0] != '.';
    closedir(d);
    EXPECT_EQ(0, entries) << "capture files are removed";
}

TEST(ExecCli, RefusesRequestsWithoutACommandAndRunsNothing)
{
    TempDir dir;
    const std::string marker = dir.file("ran");
    const int fds_before = count_open_fds();
    for (const std::string& request : {
             std::string("not json"),
             std::string("[\"/bin/touch\", \"" + marker + "\"]"),
             std::string("{}"),
             std::string(R"({"command": []})"),
             std::string(R"({"command": "/bin/touch )" + marker + "\"}"),
             std::string(R"({"command": ["/bin/touch", ")" + marker + R"(", 5]})"),
             std::string(R"({"command": [null]})"),
         }) {
        SCOPED_TRACE(request);
        std::string output;
        EXPECT_EQ(-1, exec_cli(request, &output));
        EXPECT_EQ("Read command fail.", output);
    }
    EXPECT_FALSE(file_exists(marker));
    EXPECT_EQ(fds_before, count_open_fds());
}
