// The process runner and exec_cli: argument vectors, redirections, statuses,
// what a child inherits, and many threads starting programs at once.
#include "daemon/exec_cli.h"
#include "daemon/runner.h"

#include "support/env.h"
#include "support/fds.h"
#include "support/files.h"
#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

// This binary doubles as the program the runner starts: re-executed with
// "--as-child=ROLE" first it reports what it sees and exits before any test
// runs. Unlike a script, it can show its real argv[0].
[[maybe_unused]] const bool child_role_done = [] {
    const std::string all = read_text_file("/proc/self/cmdline");
    std::vector<std::string> args;
    for (size_t at = 0; at < all.size(); at = all.find('\0', at) + 1)
        args.emplace_back(all.c_str() + at);
    if (args.size() < 2 || args[1].rfind("--as-child=", 0) != 0)
        return false;
    if (args[1] == "--as-child=argv") {
        for (const std::string& arg : args)
            printf("%s\n", arg.c_str());
    } else if (args[1] == "--as-child=env") {
        const char* v = getenv("LD_LIBRARY_PATH");
        printf("%s\n", v ? v : "(unset)");
    } else {
        for (int fd : open_fds())
            printf("%d ", fd);
    }
    fflush(stdout);
    _exit(0);
}();

const std::string kSelf = std::filesystem::read_symlink("/proc/self/exe");

std::string read_all(FILE* stream)
{
    std::string out;
    char buf[1024];
    for (size_t got; (got = fread(buf, 1, sizeof(buf), stream)) > 0;)
        out.append(buf, got);
    return out;
}

}  // namespace

TEST(Runner, ArgumentVectorsStartWithTheGivenOrBaseName)
{
    TempDir dir;
    const std::string out = dir.file("out"), base = std::filesystem::path(kSelf).filename();
    const char* self = kSelf.c_str();
    const char* const given[] = {"given-zero", "--as-child=argv", "a b", "", nullptr};
    const std::string given_text = "given-zero\n--as-child=argv\na b\n\n";

    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(out.c_str(), nullptr, nullptr, self, "--as-child=argv", "a b", "", nullptr));
    EXPECT_EQ(base + "\n--as-child=argv\na b\n\n", read_text_file(out));
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v2(nullptr, out.c_str(), nullptr, nullptr, self, "--as-child=argv", nullptr));
    EXPECT_EQ(base + "\n--as-child=argv\n", read_text_file(out));
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v(out.c_str(), nullptr, nullptr, self, given));
    EXPECT_EQ(given_text, read_text_file(out));
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v_v2(nullptr, out.c_str(), nullptr, nullptr, self, given));
    EXPECT_EQ(given_text, read_text_file(out));

    FILE* pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", self, "--as-child=argv", "x", nullptr);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ(base + "\n--as-child=argv\nx\n", read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));
    pipe = dwe_vexprod_tarsk_popen_v_v2(nullptr, nullptr, nullptr, "r", self, given);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ(given_text, read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));
}

TEST(Runner, RedirectsStreamsAndTracesTheCall)
{
    TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err"), trace = dir.file("trace");
    ASSERT_TRUE(write_text_file(in, "from stdin\n"));
    ASSERT_TRUE(write_text_file(out, "old content that must be truncated away\n"));
    ASSERT_TRUE(write_text_file(trace, "earlier line\n"));

    mode_t old_mask = umask(0);
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), err.c_str(), trace.c_str(), "/bin/sh", "-c",
                                           "cat; echo to-err >&2", nullptr));
    umask(old_mask);
    EXPECT_EQ("from stdin\n", read_text_file(out));
    EXPECT_EQ("to-err\n", read_text_file(err));
    struct stat st;
    ASSERT_EQ(0, stat(err.c_str(), &st));
    EXPECT_EQ(0774u, st.st_mode & 07777) << "a created output file";
    EXPECT_EQ("earlier line\ncmd=/bin/sh\nstdin_file=" + in + "\nstdout_file=" + out + "\nstderr_file=" + err + "\n",
              read_text_file(trace));

    // The form without an input file writes no stdin_file line; nulls show as "(null)".
    ASSERT_EQ(0, unlink(trace.c_str()));
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(nullptr, nullptr, trace.c_str(), "/bin/sh", "-c", "echo lost >&2", nullptr));
    EXPECT_EQ("cmd=/bin/sh\nstdout_file=(null)\nstderr_file=(null)\n", read_text_file(trace));

    // One file named twice (equal text, another pointer) holds both streams in order.
    ASSERT_EQ(0, unlink(trace.c_str()));
    const std::string same = out;
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(out.c_str(), same.c_str(), trace.c_str(), "/bin/sh", "-c",
                                        "echo 1; echo 2 >&2; echo 3; echo 4 >&2", nullptr));
    EXPECT_EQ("1\n2\n3\n4\n", read_text_file(out));
    EXPECT_EQ("cmd=/bin/sh\nstdout_file=" + out + "\nstderr_file=" + out +
                  "\npipe stdout and stderr to the same file " + out + "\n",
              read_text_file(trace));
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
    ASSERT_TRUE(saved_in >= 0 && saved_out >= 0);
    close(0);
    close(1);
    int status = dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), nullptr, nullptr, "/bin/cat", nullptr);
    FILE* pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, nullptr, "r", "/bin/cat", nullptr);
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

TEST(Runner, FileThatCannotBeOpenedFailsBeforeAnythingStarts)
{
    TempDir dir;
    const std::string out = dir.file("out"), err = dir.file("err"), trace = dir.file("trace");
    const std::string marker = dir.file("ran"), missing = dir.file("no/such/file"), script = "touch " + marker;
    // Only the output files named in the call and already opened are
    // deleted; a file the call did not name is left alone.
    struct Case {
        std::string in, out, err, trace_tail;
        bool out_deleted, err_deleted;
    } cases[] = {
        {missing, out, err, "open " + missing + " failed\n", true, true},
        {"", missing, err, "open " + missing + " failed: -1\n", false, false},
        {"", out, missing, "open " + missing + " failed: -1\n", true, false},
    };
    const int fds_before = count_open_fds();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.in + " " + c.out + " " + c.err);
        ASSERT_TRUE(write_text_file(out, "stale") && write_text_file(err, "stale"));
        unlink(trace.c_str());
        EXPECT_EQ(-1, dwe_vexprod_tarsk_exec_v2(c.in.empty() ? nullptr : c.in.c_str(), c.out.c_str(), c.err.c_str(),
                                                trace.c_str(), "/bin/sh", "-c", script.c_str(), nullptr));
        EXPECT_FALSE(file_exists(marker)) << "the program must not have run";
        EXPECT_EQ(c.out_deleted, !file_exists(out));
        EXPECT_EQ(c.err_deleted, !file_exists(err));
        const std::string traced = read_text_file(trace);
        ASSERT_GE(traced.size(), c.trace_tail.size());
        EXPECT_EQ(c.trace_tail, traced.substr(traced.size() - c.trace_tail.size()));
    }
    EXPECT_EQ(fds_before, count_open_fds());
}

TEST(Runner, ReturnsTheRawWaitStatus)
{
    TempDir dir;
    const std::string missing = dir.file("missing-program");
    const struct {
        const char *path, *script;
        int status;
    } cases[] = {
        {"/bin/sh", "exit 0", 0},
        {"/bin/sh", "exit 42", 42 << 8},
        {"/bin/sh", "kill -TERM $$", SIGTERM},
        {missing.c_str(), "", 127 << 8},  // never executed
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.path) + " " + c.script);
        EXPECT_EQ(c.status, dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, c.path, "-c", c.script, nullptr));
        FILE* pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", c.path, "-c", c.script, nullptr);
        ASSERT_NE(nullptr, pipe) << "a program that cannot run still gets a stream";
        read_all(pipe);
        EXPECT_EQ(c.status, dwe_vexprod_tarsk_pclose(pipe));
    }
}

TEST(Runner, NoProcessLeftToStartLooksLikeSuccess)
{
    // The exec forms return 0, as a failed fork always has; popen returns
    // null; nothing leaks. Root is not bound by RLIMIT_NPROC: become nobody.
    EXPECT_EXIT(
        {
            if (geteuid() == 0 && (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0))
                _exit(2);
            const struct rlimit none{};
            if (setrlimit(RLIMIT_NPROC, &none) != 0)
                _exit(3);
            const int fds = count_open_fds();
            bool ok = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, "/bin/false", nullptr) == 0;
            ok = !dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/false", nullptr) && ok;
            _exit(ok && count_open_fds() == fds ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Runner, PopenReadsWritesClosesOnlyItsOwnAndRefusesWhatItCannotOpen)
{
    TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err");
    const std::string missing = dir.file("no/such/file");
    ASSERT_TRUE(write_text_file(in, "input line\n"));
    const int fds_before = count_open_fds();

    // "r": the input file feeds the child, its output comes through the pipe.
    FILE* pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, err.c_str(), "r", "/bin/sh", "-c",
                                            "cat; echo warning >&2", nullptr);
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

    // pclose of a stream that is not ours (while one of ours is open, so the
    // list is not empty) fails and leaves it open.
    FILE* foreign = fopen(in.c_str(), "ae");
    pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/true", nullptr);
    ASSERT_TRUE(foreign && pipe);
    EXPECT_EQ(-1, dwe_vexprod_tarsk_pclose(foreign));
    EXPECT_EQ(-1, dwe_vexprod_tarsk_pclose(nullptr));
    EXPECT_GE(fputs("still open\n", foreign), 0);
    EXPECT_EQ(0, fclose(foreign));
    EXPECT_EQ("input line\nstill open\n", read_text_file(in));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));

    for (const char* mode : {"", "rw", "R"}) {
        errno = 0;
        EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, mode, "/bin/true", nullptr));
        EXPECT_EQ(EINVAL, errno) << mode;
    }
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, nullptr, "/bin/true", nullptr));
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(missing.c_str(), nullptr, nullptr, "r", "/bin/true", nullptr));
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, missing.c_str(), nullptr, "w", "/bin/true", nullptr));
    EXPECT_EQ(nullptr, dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, missing.c_str(), "r", "/bin/true", nullptr));
    EXPECT_EQ(fds_before, count_open_fds());

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
    const int status = dwe_vexprod_tarsk_pclose(pipe);
    sigaction(SIGPIPE, &old, nullptr);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << "status " << status;
}

TEST(Runner, ChildGetsNoLibraryPathAndNoDescriptorsOfOurs)
{
    ScopedEnv library_path("LD_LIBRARY_PATH", "/opt/should/not/leak");
    TempDir dir;
    const std::string out = dir.file("out"), in = dir.file("in");
    ASSERT_TRUE(write_text_file(in, ""));
    EXPECT_EQ(0, dwe_vexprod_tarsk_exec(out.c_str(), nullptr, nullptr, kSelf.c_str(), "--as-child=env", nullptr));
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
    ASSERT_TRUE(held_r && held_w);

    EXPECT_EQ(0, dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), out.c_str(), nullptr, kSelf.c_str(),
                                           "--as-child=fds", nullptr));
    EXPECT_EQ(expected, read_text_file(out));
    FILE* pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, out.c_str(), "r", kSelf.c_str(), "--as-child=fds",
                                            nullptr);
    ASSERT_NE(nullptr, pipe);
    EXPECT_EQ(expected, read_all(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(pipe));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(held_w));
    EXPECT_EQ(0, dwe_vexprod_tarsk_pclose(held_r));
}

TEST(Runner, ManyThreadsAtOnceLoseNothing)
{
    const int fds_before = count_open_fds();
    std::atomic<int> failures{0};
    auto worker = [&](int id) {
        for (int run = 0; run < 200; ++run) {
            const std::string token = std::to_string(id) + "-" + std::to_string(run);
            const std::string code = std::to_string((id + run) % 7);
            const int want = ((id + run) % 7) << 8;
            // Two pipes open at once, closed oldest first, so the list is
            // unlinked from the middle too.
            FILE* first = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/sh", "-c",
                                                     "echo $0; exit $1", token.c_str(), code.c_str(), nullptr);
            FILE* second = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "w", "/bin/cat", nullptr);
            if (!first || !second) {
                ++failures;
                break;
            }
            fputs(token.c_str(), second);
            bool ok = read_all(first) == token + "\n";
            ok = dwe_vexprod_tarsk_pclose(first) == want && ok;
            ok = dwe_vexprod_tarsk_pclose(second) == 0 && ok;
            if (run % 2)
                ok = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, "/bin/sh", "-c", "exit $0", code.c_str(),
                                            nullptr) == want && ok;
            failures += !ok;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back(worker, i);
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(fds_before, count_open_fds());
}

TEST(ExecCli, ReturnsTheProgramsOutputOrRefusesAndRunsNothing)
{
    TempDir tmp, dir;
    ScopedEnv tmpdir("TMPDIR", tmp.path().c_str());
    const std::string marker = dir.file("ran");
    const int fds_before = count_open_fds();
    const struct {
        std::string request;
        int code;
        std::string output;
    } cases[] = {
        {R"({"command": ["/bin/echo", "hello", "world"]})", 0, "hello world\n"},
        // The exit status and stderr are not reported.
        {R"({"command": ["/bin/sh", "-c", "echo out; echo err >&2; exit 3"]})", 0, "out\n"},
        {R"({"command": ["/usr/bin/printf", "ab\\000cd"]})", 0, "ab"},  // cut at the first NUL
        {R"({"command": ["/bin/echo", ")" + std::string(300, 'x') + R"("]})", 0, std::string(255, 'x') + "\n"},
        {R"({"command": ["/bin/sh", "-c", "head -c 6000 /dev/zero | tr '\\000' a"]})", 0, std::string(5120, 'a')},
        // A program that prints nothing (or cannot run) leaves the output alone.
        {R"({"command": ["/no/such/program"]})", 0, "untouched"},
        {"not json", -1, "Read command fail."},
        {R"(["/bin/touch", ")" + marker + "\"]", -1, "Read command fail."},
        {"{}", -1, "Read command fail."},
        {R"({"command": []})", -1, "Read command fail."},
        {R"({"command": "/bin/touch )" + marker + "\"}", -1, "Read command fail."},
        {R"({"command": ["/bin/touch", ")" + marker + R"(", 5]})", -1, "Read command fail."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request.substr(0, 80));
        std::string output = "untouched";
        EXPECT_EQ(c.code, exec_cli(c.request, &output));
        EXPECT_EQ(c.output, output);
    }
    EXPECT_FALSE(file_exists(marker));
    EXPECT_TRUE(std::filesystem::is_empty(tmp.path())) << "capture files are removed";
    EXPECT_EQ(fds_before, count_open_fds());
}
