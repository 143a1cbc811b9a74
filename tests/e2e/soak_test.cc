// Soak: a long mix of requests from 8 callers against the daemon program on a
// simulated root (good ones, text that is not JSON, mistyped arguments,
// unknown commands, callers that hang up at every step). Every request with
// an answer gets exactly its answer; afterwards the daemon holds as many
// descriptors and threads as before and has grown by at most 1 MiB.
// bench/soak runs it long, or under valgrind, through:
//   VEXPROD_SOAK_REQUESTS  requests after the warm-up (default 2000)
//   VEXPROD_SOAK_VALGRIND  when set, the daemon runs under valgrind's leak
//                          check and must end with status 0; growth is not judged
#include "support/suite.h"

namespace {

constexpr int kValgrindFailure = 99;

// A request and its exact answer ("" for an unknown command: the connection
// closes unanswered), or a raw caller that hangs up at step hang_up.
struct Kind {
    const char *name, *command, *request, *reply;
    int weight;
    bool mail = false;
    int hang_up = -1;
};

const Kind kKinds[] = {
    {"good test", "test", "{}", "{\"handler\":\"test_handler\",\"service\":\"VexProServer-vexprod\"}\n", 24},
    {"good mail test", "test", "{}",
     "{\"handler\":\"nox_test_sendmail_srv_handler\",\"service\":\"VexProServer_send_mail-vexprod\"}\n", 8, true},
    {"good display name (a program)", "get_platform_display_name", "{}",
     "{\"platform_display_name\":\"VX-NAS 8\",\"result\":0}\n", 3},
    {"good group members (a library)", "get_group_members", "{\"group_name\":\"everyone\"}",
     "{\"result\":0,\"user_count\":3,\"user_list\":[true,true,true]}\n", 3},
    {"malformed JSON", "get_vpd_ext_area", "{\"offest\":0,\"length\":", "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n", 8},
    {"no request text", "get_vpd_ext_area", "", "{\"error_code\":-1,\"error_msg\":\"input error\"}\n", 3},
    {"wrong type", "get_vpd_ext_area", "{\"offest\":\"0\",\"length\":8}", "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n", 6},
    {"unknown command", "Test", "{}", "", 4},
    {"hang-up after connecting", nullptr, nullptr, nullptr, 2, false, 0},
    {"hang-up after the accept", nullptr, nullptr, nullptr, 2, false, 1},
    {"hang-up inside a directive", nullptr, nullptr, nullptr, 2, false, 2},
    {"hang-up before the memory file", nullptr, nullptr, nullptr, 2, false, 3},
    {"hang-up before the extra descriptor", nullptr, nullptr, nullptr, 2, false, 4},
    {"hang-up before the reply", nullptr, nullptr, nullptr, 2, false, 5},
};

// Goes as far as step, then hangs up; false when the daemon did not take it.
bool hang_up_at(const std::string& sockfile, int step)
{
    RawClient c;
    if (!c.connect_to(sockfile) || step == 0)
        return step == 0 && c.fd() >= 0;
    if (c.next_type(10000) != DV_DIRECTIVE_ACCEPT)
        return false;
    if (step <= 2)
        return step == 1 || c.send_bytes(std::string(100, '\x08').data(), 100);
    const int memfd = make_request_memfd("{}");
    const bool sent = c.send_directive(DV_DIRECTIVE_REQUEST, step == 4 ? DV_DIRECTIVE_FLAG_EXTRA_FD : 0,
                                       "get_vpd_productnamed") && (step == 3 || c.send_fd(memfd));
    close(memfd);
    return sent;
}

// count requests from 8 callers, each drawing its kinds from a sequence of
// its own; the number of each kind sent, and the first few violations.
std::vector<std::string> run_mix(const DaemonProcess& d, unsigned long count, std::vector<std::atomic<long>>& sent)
{
    int total_weight = 0;
    for (const Kind& k : kKinds)
        total_weight += k.weight;
    std::atomic<unsigned long> next{0};
    std::mutex lock;
    std::vector<std::string> violations;
    {
        std::vector<std::jthread> callers;
        for (int i = 0; i < 8; i++)
            callers.emplace_back([&, i] {
                for (uint64_t state = 0x9E3779B97F4A7C15ULL * (i + 1); next++ < count;) {
                    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
                    size_t k = 0;
                    for (int pick = static_cast<int>((state >> 33) % total_weight); pick >= kKinds[k].weight;)
                        pick -= kKinds[k++].weight;
                    const Kind& kind = kKinds[k];
                    sent[k]++;
                    int status = -1;
                    const std::string reply =
                        kind.hang_up >= 0 ? "" : call_socket(kind.mail ? d.mail_socket() : d.command_socket(),
                                                             kind.command, kind.request, &status);
                    const bool ok = kind.hang_up >= 0 ? hang_up_at(d.command_socket(), kind.hang_up)
                                    : *kind.reply ? status == DV_STATUS_OK && reply == kind.reply
                                                  : status == DV_STATUS_SOCKET && reply.empty();
                    std::lock_guard<std::mutex> g(lock);
                    if (!ok && violations.size() < 5)
                        violations.push_back(std::string(kind.name) + ": status " + std::to_string(status) +
                                             ", reply \"" + reply + "\"");
                }
            });
    }
    return violations;
}

long status_field(pid_t pid, const char* field)
{
    const std::string status = read_text_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(std::string("\n") + field + ":");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + strlen(field) + 2);
}

TEST(Soak, MixedRequestsAreAllAnsweredExactlyAndLeaveNothingBehind)
{
    const char* wanted = getenv("VEXPROD_SOAK_REQUESTS");
    const unsigned long requests = wanted && *wanted ? strtoul(wanted, nullptr, 10) : 2000;
    const bool valgrind = getenv("VEXPROD_SOAK_VALGRIND") && *getenv("VEXPROD_SOAK_VALGRIND");
    SimRoot root;
    DaemonProcess d(root);
    TempDir scratch;
    if (valgrind) {  // the daemon's link becomes a script that starts it under valgrind
        ASSERT_EQ(unlink(d.program_path().c_str()), 0);
        ASSERT_TRUE(write_text_file(d.program_path(),
                                    "#!/bin/sh\nexec valgrind --leak-check=full --show-leak-kinds=definite,indirect "
                                    "--errors-for-leak-kinds=definite --error-exitcode=" +
                                        std::to_string(kValgrindFailure) + " --log-file=" + scratch.file("vg.log") +
                                        " " + daemon_binary() + " \"$@\"\n", 0755));
    }
    ASSERT_TRUE(d.start()) << d.stderr_text();
    // Every cache and allocator arena of the daemon at its working size before the baseline.
    std::vector<std::atomic<long>> warm_up(std::size(kKinds)), sent(std::size(kKinds));
    ASSERT_EQ(run_mix(d, std::clamp(requests / 10, 500UL, 5000UL), warm_up), std::vector<std::string>{});
    const int fds = settled_fd_count(d.pid());
    const long rss = status_field(d.pid(), "VmRSS"), threads = status_field(d.pid(), "Threads");
    const auto start = std::chrono::steady_clock::now();
    const std::vector<std::string> violations = run_mix(d, requests, sent);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("soak: %lu requests in %.1f s (%.0f/s)%s\n", requests, seconds, requests / seconds,
           valgrind ? " under valgrind" : "");
    for (size_t k = 0; k < std::size(kKinds); k++)
        printf("soak:   %-40s %8ld\n", kKinds[k].name, sent[k].load());
    printf("soak: descriptors %d -> %d, threads %ld -> %ld, resident %ld KiB -> %ld KiB\n", fds,
           settled_fd_count(d.pid()), threads, status_field(d.pid(), "Threads"), rss, status_field(d.pid(), "VmRSS"));
    EXPECT_EQ(violations, std::vector<std::string>{});
    EXPECT_EQ(settled_fd_count(d.pid()), fds);
    EXPECT_EQ(status_field(d.pid(), "Threads"), threads);
#if !defined(__SANITIZE_ADDRESS__)  // freed memory waits in ASan's quarantine
    EXPECT_TRUE(valgrind || status_field(d.pid(), "VmRSS") - rss <= 1024);
#endif
    const int status = d.stop(SIGTERM, valgrind ? 300000 : 10000);
    if (valgrind) {
        const std::string log = read_text_file(scratch.file("vg.log"));
        const size_t summary = log.find("LEAK SUMMARY");
        printf("soak: valgrind exit status %d\n%s", status,
               log.c_str() + (status == 0 && summary != std::string::npos ? log.rfind('\n', summary) + 1 : 0));
    }
    EXPECT_EQ(status, 0) << "valgrind status " << kValgrindFailure << ": a definite leak or a memory error";
    EXPECT_TRUE(valgrind || d.stderr_text().empty()) << d.stderr_text();
}

}  // namespace
