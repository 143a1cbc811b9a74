// The process runner: what a child inherits (no descriptor of ours, no
// library path, default SIGPIPE, our closed standard streams refilled), the
// raw wait status, and many threads starting programs at once.
#include "daemon/runner.h"

#include "support/suite.h"

namespace {

// Re-executed with "--as-child" this binary prints its library path and
// open descriptors and exits before any test runs.
[[maybe_unused]] const bool child_role_done = [] {
    const std::string cmdline = read_text_file("/proc/self/cmdline");
    if (cmdline.find(std::string("\0--as-child", 11)) == std::string::npos)
        return false;
    const char* v = getenv("LD_LIBRARY_PATH");
    printf("%s:", v ? v : "(unset)");
    for (int fd : open_fds())
        printf(" %d", fd);
    fflush(stdout);
    _exit(0);
}();

// fread waits for all it was asked or the end; every output here is shorter.
std::string read_all(FILE* stream)
{
    char buf[4096];
    return std::string(buf, fread(buf, 1, sizeof(buf), stream));
}

TEST(Runner, ChildrenGetOnlyTheirStandardStreamsNoLibraryPathAndDefaultSigpipe)
{
    ScopedEnv library_path("LD_LIBRARY_PATH", "/opt/should/not/leak");
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out");
    ASSERT_TRUE(write_text_file(in, "through\n"));
    std::string expected = "(unset): 0 1 2";
    for (int fd : inheritable_fds())  // what this test process inherited is not ours to judge
        if (fd > 2)
            expected += " " + std::to_string(fd);
    // Other pipes of ours, in both directions, stay open meanwhile.
    FILE* held_r = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/true", nullptr);
    FILE* held_w = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "w", "/bin/true", nullptr);
    ASSERT_TRUE(held_r && held_w);
    EXPECT_EQ(dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), out.c_str(), nullptr, self.c_str(), "--as-child",
                                        nullptr), 0);
    EXPECT_EQ(read_text_file(out), expected);
    FILE* pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, nullptr, "r", self.c_str(), "--as-child", nullptr);
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(read_all(pipe), expected);
    EXPECT_EQ(dwe_vexprod_tarsk_pclose(pipe), 0);
    EXPECT_EQ(dwe_vexprod_tarsk_pclose(held_w), 0);
    EXPECT_EQ(dwe_vexprod_tarsk_pclose(held_r), 0);

    // Files opened while our 0 and 1 are closed land on those numbers; the
    // child must still get them as its standard streams.
    fflush(stdout);
    const int saved_in = fcntl(0, F_DUPFD_CLOEXEC, 3), saved_out = fcntl(1, F_DUPFD_CLOEXEC, 3);
    close(0);
    close(1);
    const int status = dwe_vexprod_tarsk_exec_v2(in.c_str(), out.c_str(), nullptr, nullptr, "/bin/cat", nullptr);
    pipe = dwe_vexprod_tarsk_popen_v2(in.c_str(), nullptr, nullptr, "r", "/bin/cat", nullptr);
    const std::string piped = pipe ? read_all(pipe) : "";
    const int pipe_status = pipe ? dwe_vexprod_tarsk_pclose(pipe) : -2;
    dup2(saved_in, 0);
    dup2(saved_out, 1);
    close(saved_in);
    close(saved_out);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_text_file(out), "through\n");
    EXPECT_EQ(pipe_status, 0);
    EXPECT_EQ(piped, "through\n");

    // The daemon ignores SIGPIPE; a child whose reader stopped early must not.
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &old);
    pipe = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/sh", "-c",
                                      "while :; do echo y || exit 9; done", nullptr);
    ASSERT_NE(pipe, nullptr);
    char line[16];
    EXPECT_NE(fgets(line, sizeof(line), pipe), nullptr);
    const int killed = dwe_vexprod_tarsk_pclose(pipe);
    sigaction(SIGPIPE, &old, nullptr);
    EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGPIPE) << "status " << killed;
}

// Two pipes a round, closed oldest first, and a plain run every other round:
// every status and output arrives, no descriptor stays.
TEST(Runner, ManyThreadsAtOnceGetTheirRawStatusesAndLoseNothing)
{
    const int fds_before = count_open_fds();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < 8; ++id)
        threads.emplace_back([&, id] {
            for (int run = 0; run < 200; ++run) {
                const std::string token = std::to_string(id) + "-" + std::to_string(run);
                const std::string code = std::to_string((id + run) % 7);
                const int want = (id + run) % 3 ? ((id + run) % 7) << 8 : SIGTERM;
                const char* script = (id + run) % 3 ? "echo $0; exit $1" : "echo $0; kill -TERM $$";
                FILE* first = dwe_vexprod_tarsk_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/sh", "-c", script,
                                                         token.c_str(), code.c_str(), nullptr);
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
                    ok = dwe_vexprod_tarsk_exec("/dev/null", nullptr, nullptr, "/bin/sh", "-c", script, token.c_str(),
                                                code.c_str(), nullptr) == want && ok;
                failures += !ok;
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(count_open_fds(), fds_before);
}

}  // namespace
