// Soak: a long mix of requests against the daemon program on a simulated
// root (good ones, text that is not JSON, mistyped arguments, unknown
// commands, and callers that hang up at every step of the handshake),
// from several callers at once. Every request with an answer must get
// exactly its answer, and afterwards the daemon holds as many descriptors
// as before and has grown by at most 1 MiB.
//
// ctest runs a short mix; bench/soak runs the long one and the one under
// valgrind through these variables:
//   VEXPROD_SOAK_REQUESTS  requests after the warm-up (default 2000)
//   VEXPROD_SOAK_VALGRIND  when set, the daemon runs under valgrind's leak
//                          check and must leave with status 0 (no definite
//                          leak, no memory error); growth is not judged
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dv.h"
#include "support/daemon_process.h"
#include "support/env.h"
#include "support/files.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

namespace {

using namespace std::chrono_literals;

constexpr int kCallers = 8;
constexpr long kMaxGrowthKiB = 1024;
constexpr int kValgrindFailure = 99;

const char kPaserFail[] = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";

enum class Via { Command, Mail, Raw };

// One kind of request of the mix. For Command and Mail, reply is what must
// come back ("" for an unknown command: the connection closes unanswered).
// For Raw, hang_up says how far the caller goes before it hangs up.
struct Kind {
    const char* name;
    Via via;
    const char* command;
    const char* request;
    const char* reply;
    int weight;
    int hang_up = 0;
};

const Kind kKinds[] = {
    {"good test", Via::Command, "test", "{}", "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n",
     24},
    {"good mail test", Via::Mail, "test", "{}",
     "{\"handler\":\"nox_test_sendmail_srv_handler\",\"service\":\"VexProServer_send_mail-vexprod\"}\n", 8},
    {"good is_zel_model", Via::Command, "is_zel_model", "{}", "{\"is_ZEL_model\":0,\"result\":0}\n", 8},
    {"good display name (a program)", Via::Command, "get_platform_display_name", "{}",
     "{\"platform_display_name\":\"VX-NAS 8\",\"result\":0}\n", 3},
    {"good product name (a program)", Via::Command, "get_vpd_productnamed", "{}",
     "{\"result\":0,\"vpd_productnamed\":\"VX-NVR8-PRO\"}\n", 3},
    {"good group members (a library)", Via::Command, "get_group_members", "{\"group_name\":\"everyone\"}",
     "{\"result\":0,\"user_count\":3,\"user_list\":[true,true,true]}\n", 3},
    {"malformed JSON", Via::Command, "get_vpd_ext_area", "{\"offest\":0,\"length\":", kPaserFail, 8},
    {"no request text", Via::Command, "get_vpd_ext_area", "",
     "{\"error_code\":-1,\"error_msg\":\"input error\"}\n", 3},
    {"wrong type", Via::Command, "get_vpd_ext_area", "{\"offest\":\"0\",\"length\":8}", kPaserFail, 6},
    {"int beyond 32 bits", Via::Command, "get_group_members", "{\"group_name\":4294967296}", kPaserFail, 3},
    {"unknown command", Via::Command, "no_such_command", "{}", "", 4},
    {"command in the wrong case", Via::Command, "Test", "{}", "", 2},
    {"hang-up after connecting", Via::Raw, nullptr, nullptr, nullptr, 2, 0},
    {"hang-up after the accept", Via::Raw, nullptr, nullptr, nullptr, 2, 1},
    {"hang-up inside a directive", Via::Raw, nullptr, nullptr, nullptr, 2, 2},
    {"hang-up before the memory file", Via::Raw, nullptr, nullptr, nullptr, 2, 3},
    {"hang-up before the extra descriptor", Via::Raw, nullptr, nullptr, nullptr, 2, 4},
    {"hang-up before the reply", Via::Raw, nullptr, nullptr, nullptr, 2, 5},
};
constexpr size_t kKindCount = std::size(kKinds);

// A field of /proc/<pid>/status ("VmRSS", "Threads"), as a number.
long status_field(pid_t pid, const char* field)
{
    const std::string status = read_text_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(std::string("\n") + field + ":");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + strlen(field) + 2);
}

// The daemon as the soak runs it: directly, or under valgrind. A
// DaemonProcess that is never started lends it its program link, socket
// names and calls.
class SoakDaemon {
public:
    SoakDaemon(SimRoot& root, bool valgrind) : root_(root), names_(root), valgrind_(valgrind) {}
    ~SoakDaemon()
    {
        if (pid_ > 0)
            stop();
    }

    bool start()
    {
        ScopedEnv sockets("DV_SOCKET_DIR", names_.socket_dir().c_str());
        ScopedEnv platform("VEXPROD_PLATFORM_ROOT", root_.path().c_str());
        std::vector<std::string> args;
        if (valgrind_)
            args = {"valgrind", "--leak-check=full", "--show-leak-kinds=definite,indirect",
                    "--errors-for-leak-kinds=definite", "--error-exitcode=" + std::to_string(kValgrindFailure),
                    "--log-file=" + valgrind_log()};
        args.push_back(names_.program_path());
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, scratch_.file("stderr").c_str(), O_WRONLY | O_CREAT, 0644);
        int rc = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            pid_ = -1;
            return false;
        }
        for (auto deadline = std::chrono::steady_clock::now() + (valgrind_ ? 120s : 10s);
             std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(20ms)) {
            int a = -1, b = -1;
            names_.call("test", "{}", &a, -1, 5);
            names_.call_mail("test", "{}", &b);
            if (a == 0 && b == 0)
                return true;
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return false;
            }
        }
        return false;  // the destructor stops it
    }

    // SIGTERM and the exit status (128 + signal when killed, -1 on timeout).
    int stop()
    {
        kill(pid_, SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + (valgrind_ ? 300s : 10s);
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) != pid_) {
            if (std::chrono::steady_clock::now() >= deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                pid_ = -1;
                return -1;
            }
            std::this_thread::sleep_for(10ms);
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    pid_t pid() const { return pid_; }
    const std::string& command_socket() const { return names_.command_socket(); }
    const std::string& mail_socket() const { return names_.mail_socket(); }
    std::string stderr_text() const { return read_text_file(scratch_.file("stderr")); }
    std::string valgrind_log() const { return scratch_.file("valgrind.log"); }

private:
    SimRoot& root_;
    DaemonProcess names_;
    TempDir scratch_;
    bool valgrind_;
    pid_t pid_ = -1;
};

struct Tally {
    std::atomic<unsigned long> sent[kKindCount] = {};
    std::atomic<unsigned long> exact{0};    // answered, exactly as expected
    std::atomic<unsigned long> closed{0};   // unknown commands, closed unanswered as they should be
    std::atomic<unsigned long> lost{0};     // expected an answer (or the close), got something else
    std::atomic<unsigned long> refused{0};  // a hang-up caller was not even connected or accepted
    std::mutex mutex;
    std::vector<std::string> examples;  // the first few violations

    void violation(const std::string& what)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (examples.size() < 5)
            examples.push_back(what);
    }
};

// A caller that goes as far as step and then hangs up.
bool hang_up_at(const std::string& sockfile, int step)
{
    RawClient c;
    if (!c.connect_to(sockfile))
        return false;
    if (step == 0)
        return true;
    if (c.next_type(10000) != DV_DIRECTIVE_ACCEPT)
        return false;
    if (step <= 2)
        return step == 1 || c.send_bytes(std::string(100, '\x08').data(), 100);
    if (!c.send_directive(DV_DIRECTIVE_REQUEST, step == 4 ? DV_DIRECTIVE_FLAG_EXTRA_FD : 0, "get_vpd_productnamed"))
        return false;
    if (step == 3)
        return true;
    int memfd = make_request_memfd("{}");
    bool sent = c.send_fd(memfd);
    close(memfd);
    return sent;  // steps 4 and 5: gone before the extra descriptor or the reply
}

void one_request(const SoakDaemon& daemon, const Kind& kind, Tally& tally)
{
    if (kind.via == Via::Raw) {
        if (!hang_up_at(daemon.command_socket(), kind.hang_up)) {
            tally.refused++;
            tally.violation(std::string(kind.name) + ": the daemon did not take the caller");
        }
        return;
    }
    int status = -1;
    const std::string reply = call_socket(kind.via == Via::Mail ? daemon.mail_socket() : daemon.command_socket(),
                                          kind.command, kind.request, &status);
    const bool unknown = kind.reply[0] == '\0';
    if (unknown ? status == DV_STATUS_SOCKET && reply.empty() : status == DV_STATUS_OK && reply == kind.reply) {
        (unknown ? tally.closed : tally.exact)++;
    } else {
        tally.lost++;
        tally.violation(std::string(kind.name) + ": status " + std::to_string(status) + ", reply \"" + reply + "\"");
    }
}

// Runs count requests of the mix from kCallers callers; each caller draws
// its kinds from a sequence of its own, so a run can be repeated.
void run_mix(const SoakDaemon& daemon, unsigned long count, Tally& tally)
{
    int total_weight = 0;
    for (const Kind& k : kKinds)
        total_weight += k.weight;
    std::atomic<unsigned long> next{0};
    std::vector<std::jthread> callers;
    for (int i = 0; i < kCallers; i++)
        callers.emplace_back([&, i] {
            uint64_t state = 0x9E3779B97F4A7C15ULL * (i + 1);
            while (next++ < count) {
                state = state * 6364136223846793005ULL + 1442695040888963407ULL;
                int pick = static_cast<int>((state >> 33) % total_weight);
                size_t k = 0;
                while (pick >= kKinds[k].weight)
                    pick -= kKinds[k++].weight;
                tally.sent[k]++;
                one_request(daemon, kKinds[k], tally);
            }
        });
}

TEST(Soak, MixedRequestsAreAllAnsweredExactlyAndLeaveNothingBehind)
{
    const char* wanted = getenv("VEXPROD_SOAK_REQUESTS");
    const unsigned long requests = wanted && *wanted ? strtoul(wanted, nullptr, 10) : 2000;
    const bool valgrind = getenv("VEXPROD_SOAK_VALGRIND") && *getenv("VEXPROD_SOAK_VALGRIND");
    // Enough to bring every cache and allocator arena of the daemon to its
    // working size before the baseline is taken.
    const unsigned long warm_up = std::clamp(requests / 10, 500UL, 5000UL);

    SimRoot root;
    SoakDaemon daemon(root, valgrind);
    ASSERT_TRUE(daemon.start()) << daemon.stderr_text();
    const pid_t pid = daemon.pid();

    Tally warm;
    run_mix(daemon, warm_up, warm);
    ASSERT_EQ(warm.lost.load() + warm.refused.load(), 0u) << warm.examples[0];

    const int fds_before = settled_fd_count(pid);
    const long rss_before = status_field(pid, "VmRSS");
    const long threads_before = status_field(pid, "Threads");
    Tally tally;
    auto start = std::chrono::steady_clock::now();
    run_mix(daemon, requests, tally);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const int fds_after = settled_fd_count(pid);
    const long rss_after = status_field(pid, "VmRSS");
    const long threads_after = status_field(pid, "Threads");

    printf("soak: %lu requests from %d callers in %.1f s (%.0f/s)%s\n", requests, kCallers, seconds,
           requests / seconds, valgrind ? " under valgrind" : "");
    for (size_t k = 0; k < kKindCount; k++)
        printf("soak:   %-40s %8lu\n", kKinds[k].name, tally.sent[k].load());
    printf("soak: replies exact %lu, unknown commands closed %lu, lost %lu, hang-up callers refused %lu\n",
           tally.exact.load(), tally.closed.load(), tally.lost.load(), tally.refused.load());
    printf("soak: descriptors %d -> %d, threads %ld -> %ld, resident %ld KiB -> %ld KiB (%+ld KiB)\n", fds_before,
           fds_after, threads_before, threads_after, rss_before, rss_after, rss_after - rss_before);
    for (const std::string& example : tally.examples)
        printf("soak: violation: %s\n", example.c_str());
    fflush(stdout);

    EXPECT_EQ(tally.lost.load(), 0u);
    EXPECT_EQ(tally.refused.load(), 0u);
    EXPECT_EQ(fds_after, fds_before);
    EXPECT_EQ(threads_after, threads_before);
#if defined(__SANITIZE_ADDRESS__)
    const bool judge_growth = false;  // freed memory waits in ASan's quarantine
#else
    const bool judge_growth = !valgrind;
#endif
    if (judge_growth) {
        EXPECT_LE(rss_after - rss_before, kMaxGrowthKiB);
    }

    int status = daemon.stop();
    if (valgrind) {
        // The summary when all is well; everything it said otherwise.
        const std::string log = read_text_file(daemon.valgrind_log());
        size_t summary = log.find("LEAK SUMMARY");
        summary = status == 0 && summary != std::string::npos ? log.rfind('\n', summary) + 1 : 0;
        printf("soak: valgrind exit status %d\n%s", status, log.c_str() + summary);
        EXPECT_EQ(status, 0) << "valgrind found a definite leak or a memory error (status " << kValgrindFailure << ")";
    } else {
        EXPECT_EQ(status, 0);
        EXPECT_EQ(daemon.stderr_text(), "");
    }
}

}  // namespace
