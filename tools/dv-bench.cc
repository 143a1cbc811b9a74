// dv-bench: load generator for dv_ services and the floors they are measured
// against. N client threads make calls for a count or a time; the report is
// calls per second, latency percentiles and failures by kind.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_report.h"

#include "dv-bench.h"
#include "dv.h"

namespace {

const char USAGE[] =
    "usage: dv-bench [--threads N] [--calls M | --seconds T] [--payload BYTES | --json TEXT] [--timeout S]"
    " [--fail-on-error] (--floor | --self W | --spawn PATH | SERVICE COMMAND)";

const char HELP[] =
    "Makes calls from N client threads and reports their rate, latency and failures.\n"
    "\n"
    "Modes:\n"
    "  SERVICE COMMAND  dv_ calls of COMMAND to a running service (a name hashed under\n"
    "                   $DV_SOCKET_DIR, default /var/run/dv, or @/path/to/socket)\n"
    "  --self W         dv_ calls to an in-process echo service with W thread workers:\n"
    "                   the framework alone\n"
    "  --floor          per call connect, send the request, read as many bytes back and\n"
    "                   close, against an in-process AF_UNIX server with one accepting\n"
    "                   thread per client thread: the floor of a connection per call\n"
    "  --spawn PATH     per call posix_spawn PATH (no arguments, standard streams on\n"
    "                   /dev/null) and wait for it: the floor of running a program\n"
    "\n"
    "Options:\n"
    "  --threads N      client threads, 1..256 (default 1)\n"
    "  --calls M        calls per thread (default 1000); the run still stops after 600 s\n"
    "  --seconds T      call for T seconds instead, up to 600 (fractions allowed)\n"
    "  --payload BYTES  request size: a JSON object padded to BYTES (at least 8)\n"
    "  --json TEXT      the request text itself (default {})\n"
    "  --timeout S      seconds one call may take, 1..3600 (default 5; dv_ calls wait\n"
    "                   at least 5)\n"
    "  --fail-on-error  exit 8 when any call failed, not only when every call did\n"
    "  --version        print the version\n"
    "\n"
    "Output, one line each:\n"
    "  mode=... threads=N calls=C seconds=S calls_per_s=R   (successful calls; \"none\" if none)\n"
    "  latency_us p50=.. p90=.. p99=.. max=..   (successful calls; \"latency_us none\" if none)\n"
    "  failures none | failures KEY=COUNT ...\n"
    "Failure keys: statusN (dv_ client status N; the floor uses 1 timeout, 2 connect,\n"
    "5 connection lost), noreply (status 0 without a reply), exitN and signalN (the\n"
    "spawned program's end), spawnfail, timeout. Runs longer than 3 s print a progress\n"
    "line a second on standard error. SIGINT or SIGTERM ends the run early and reports it.\n"
    "\n"
    "Exit status: 0 run completed (some failures included), 1 the run could not be set up,\n"
    "7 bad usage, 8 every call failed (with --fail-on-error: any call), 128+signal when\n"
    "interrupted.\n";

// Bounds that keep a run from outliving its welcome on a shared machine.
constexpr unsigned MAX_THREADS = 256;
constexpr unsigned MAX_WORKERS = 256;
constexpr double MAX_RUN_SECONDS = 600;
constexpr unsigned long MAX_PAYLOAD = 16UL << 20;
constexpr unsigned MAX_TIMEOUT = 3600;
constexpr double PROGRESS_AFTER_SECONDS = 3;
constexpr int EXIT_SETUP = 1;
constexpr int EXIT_USAGE = 7;
constexpr int EXIT_CALLS_FAILED = 8;

std::atomic<int> g_signal{0};

void on_stop_signal(int signum)
{
    g_signal.store(signum);
}

int usage_error(const std::string& what)
{
    fprintf(stderr, "dv-bench: %s; %s\n", what.c_str(), USAGE);
    return EXIT_USAGE;
}

bool parse_count(const char* text, unsigned long low, unsigned long high, unsigned long* out)
{
    if (!text || !*text || text[0] == '-')
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(text, &end, 10);
    if (errno || *end || value < low || value > high)
        return false;
    *out = value;
    return true;
}

bool parse_seconds(const char* text, double* out)
{
    if (!text || !*text)
        return false;
    char* end = nullptr;
    errno = 0;
    double value = strtod(text, &end);
    if (errno || *end || !(value > 0) || value > MAX_RUN_SECONDS)
        return false;
    *out = value;
    return true;
}

// {"p":"xxx..."} of exactly `size` bytes.
std::string padded_payload(size_t size)
{
    return "{\"p\":\"" + std::string(size - 8, 'x') + "\"}";
}

double now_s()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

int64_t now_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Options {
    unsigned long threads = 1;
    unsigned long calls = 1000;
    double seconds = 0;  // 0: count calls instead
    std::string payload = "{}";
    unsigned long timeout = 5;
    bool fail_on_error = false;
    std::unique_ptr<BenchMode> mode;
};

// Fills *opt; returns -1 to go on, else the exit status to leave with.
int parse_options(int argc, char** argv, Options* opt)
{
    bool have_calls = false, have_payload = false, have_json = false;
    std::string mode_flag;
    unsigned long workers = 0;
    std::string spawn_path;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--") {
            positional.insert(positional.end(), argv + i + 1, argv + argc);
            break;
        }
        if (arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            printf("%s\n\n%s", USAGE, HELP);
            return 0;
        }
        if (arg == "--version") {
            printf("dv-bench %s\n", DV_VERSION_STRING);
            return 0;
        }
        if (arg == "--fail-on-error") {
            opt->fail_on_error = true;
            continue;
        }
        std::string name = arg, value;
        bool inline_value = false;
        size_t eq = arg.find('=');
        if (eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            inline_value = true;
        }
        if (name == "--floor") {
            if (inline_value)
                return usage_error("--floor takes no value");
            if (!mode_flag.empty())
                return usage_error("only one of --floor, --self, --spawn");
            mode_flag = name;
            continue;
        }
        static const char* const valued[] = {"--threads", "--calls", "--seconds", "--payload",
                                             "--json",    "--timeout", "--self",  "--spawn"};
        if (std::find_if(std::begin(valued), std::end(valued), [&](const char* v) { return name == v; }) ==
            std::end(valued))
            return usage_error("unknown option " + arg);
        if (!inline_value) {
            if (i + 1 >= argc)
                return usage_error(name + " needs a value");
            value = argv[++i];
        }
        const char* v = value.c_str();
        if (name == "--threads") {
            if (!parse_count(v, 1, MAX_THREADS, &opt->threads))
                return usage_error("--threads needs a number from 1 to " + std::to_string(MAX_THREADS));
        } else if (name == "--calls") {
            if (!parse_count(v, 1, 1000000000UL, &opt->calls))
                return usage_error("--calls needs a positive number");
            have_calls = true;
        } else if (name == "--seconds") {
            if (!parse_seconds(v, &opt->seconds))
                return usage_error("--seconds needs a number above 0 and at most 600");
        } else if (name == "--payload") {
            unsigned long size;
            if (!parse_count(v, 8, MAX_PAYLOAD, &size))
                return usage_error("--payload needs a size from 8 to " + std::to_string(MAX_PAYLOAD) + " bytes");
            opt->payload = padded_payload(size);
            have_payload = true;
        } else if (name == "--json") {
            if (value.size() > MAX_PAYLOAD)
                return usage_error("--json text is larger than " + std::to_string(MAX_PAYLOAD) + " bytes");
            opt->payload = value;
            have_json = true;
        } else if (name == "--timeout") {
            if (!parse_count(v, 1, MAX_TIMEOUT, &opt->timeout))
                return usage_error("--timeout needs a number of seconds from 1 to " + std::to_string(MAX_TIMEOUT));
        } else {
            if (!mode_flag.empty())
                return usage_error("only one of --floor, --self, --spawn");
            mode_flag = name;
            if (name == "--self" && !parse_count(v, 1, MAX_WORKERS, &workers))
                return usage_error("--self needs a worker count from 1 to " + std::to_string(MAX_WORKERS));
            if (name == "--spawn") {
                struct stat st;
                if (stat(v, &st) != 0 || !S_ISREG(st.st_mode) || access(v, X_OK) != 0)
                    return usage_error("--spawn needs an executable program, not '" + value + "'");
                spawn_path = value;
            }
        }
    }
    if (have_calls && opt->seconds > 0)
        return usage_error("--calls and --seconds exclude each other");
    if (have_payload && have_json)
        return usage_error("--payload and --json exclude each other");

    unsigned timeout = static_cast<unsigned>(opt->timeout);
    if (mode_flag.empty()) {
        if (positional.size() != 2)
            return usage_error(positional.size() < 2 ? "missing SERVICE or COMMAND" : "too many arguments");
        // The client would refuse every call with status 7; say so once instead.
        if (positional[0].empty() || positional[0].size() > MAXIMUM_NAME_SIZE)
            return usage_error("SERVICE must be 1 to " + std::to_string(MAXIMUM_NAME_SIZE) + " characters");
        if (positional[1].empty() || positional[1].size() > 256)
            return usage_error("COMMAND must be 1 to 256 characters");
        opt->mode = make_service_mode(positional[0], positional[1], opt->payload, timeout);
        return -1;
    }
    if (!positional.empty())
        return usage_error("SERVICE COMMAND and " + mode_flag + " exclude each other");
    if (mode_flag == "--floor")
        opt->mode = make_floor_mode(opt->payload, static_cast<unsigned>(opt->threads), timeout);
    else if (mode_flag == "--self")
        opt->mode = make_self_mode(opt->payload, static_cast<unsigned>(workers), timeout);
    else
        opt->mode = make_spawn_mode(spawn_path, timeout);
    return -1;
}

// One client thread's results. Latency is kept in whole microseconds so that
// a long run's samples stay affordable; the report is in microseconds anyway.
struct Client {
    std::atomic<uint64_t> done{0};
    std::atomic<uint64_t> failed{0};
    std::vector<uint32_t> latency_us;
    std::map<std::string, uint64_t> failures;
    double end = 0;
};

struct Run {
    const Options* opt;
    std::latch go{1};
    double start = 0;
    double deadline = 0;
    std::mutex lock;
    std::condition_variable finished_cv;
    size_t finished = 0;
};

void client_loop(Run* run, Client* me)
{
    run->go.wait();
    const Options& opt = *run->opt;
    std::string failure;
    for (uint64_t i = 0; opt.seconds > 0 || i < opt.calls; i++) {
        if (g_signal.load(std::memory_order_relaxed) || now_s() >= run->deadline)
            break;
        failure.clear();
        int64_t t0 = now_ns();
        bool ok = opt.mode->call(&failure);
        int64_t spent = now_ns() - t0;
        if (ok) {
            int64_t us = (spent + 500) / 1000;
            me->latency_us.push_back(static_cast<uint32_t>(std::min<int64_t>(us, UINT32_MAX)));
        } else {
            me->failures[failure]++;
            me->failed.fetch_add(1, std::memory_order_relaxed);
        }
        me->done.fetch_add(1, std::memory_order_relaxed);
    }
    me->end = now_s();
    std::lock_guard<std::mutex> guard(run->lock);
    run->finished++;
    run->finished_cv.notify_one();
}

// Prints the report; returns the number of failed calls and sets *calls.
uint64_t report(const Options& opt, const Run& run, const std::vector<std::unique_ptr<Client>>& clients,
                uint64_t* total)
{
    std::vector<uint32_t> all;
    std::map<std::string, uint64_t> failures;
    uint64_t calls = 0;
    double end = run.start;
    for (const auto& c : clients) {
        all.insert(all.end(), c->latency_us.begin(), c->latency_us.end());
        for (const auto& [key, count] : c->failures)
            failures[key] += count;
        calls += c->done.load();
        end = std::max(end, c->end);
    }
    double seconds = end - run.start;
    // A failed call (a refused connection, say) is often far quicker than a
    // real one: the rate counts the calls that were answered.
    char rate[32] = "none";
    if (!all.empty())
        snprintf(rate, sizeof(rate), "%.0f", seconds > 0 ? static_cast<double>(all.size()) / seconds : 0.0);
    printf("%s threads=%lu calls=%llu seconds=%.2f calls_per_s=%s\n", opt.mode->describe().c_str(), opt.threads,
           static_cast<unsigned long long>(calls), seconds, rate);
    print_latency_and_failures(all, failures);
    fflush(stdout);
    if (calls > 0 && all.empty())
        fprintf(stderr, "dv-bench: every call failed\n");
    *total = calls;
    return calls - all.size();
}

// A benchmark with a few hundred clients needs more descriptors than the
// usual soft limit; take what the hard limit allows.
void raise_descriptor_limit()
{
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    Options opt;
    int status = parse_options(argc, argv, &opt);
    if (status >= 0)
        return status;

    raise_descriptor_limit();
    // A service that hangs up mid-request must count as a failure, not end us.
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa = {};
    sa.sa_handler = on_stop_signal;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    std::string error;
    if (!opt.mode->start(&error)) {
        fprintf(stderr, "dv-bench: %s\n", error.c_str());
        opt.mode->stop();
        return EXIT_SETUP;
    }

    Run run;
    run.opt = &opt;
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::thread> threads;
    for (unsigned long i = 0; i < opt.threads; i++) {
        clients.push_back(std::make_unique<Client>());
        threads.emplace_back(client_loop, &run, clients.back().get());
    }
    run.start = now_s();
    run.deadline = run.start + (opt.seconds > 0 ? opt.seconds : MAX_RUN_SECONDS);
    run.go.count_down();

    // Progress once a second for long runs, so a person can see it is alive.
    uint64_t last_done = 0;
    for (int tick = 1;; tick++) {
        std::unique_lock<std::mutex> guard(run.lock);
        auto wake = std::chrono::steady_clock::now() +
                    std::chrono::duration<double>(run.start + tick - now_s());
        if (run.finished_cv.wait_until(guard, wake, [&] { return run.finished == clients.size(); }))
            break;
        guard.unlock();
        uint64_t done = 0, failed = 0;
        for (const auto& c : clients) {
            done += c->done.load(std::memory_order_relaxed);
            failed += c->failed.load(std::memory_order_relaxed);
        }
        if (tick >= PROGRESS_AFTER_SECONDS)
            fprintf(stderr, "progress seconds=%d calls=%llu calls_per_s=%llu failures=%llu\n", tick,
                    static_cast<unsigned long long>(done), static_cast<unsigned long long>(done - last_done),
                    static_cast<unsigned long long>(failed));
        last_done = done;
    }
    for (std::thread& t : threads)
        t.join();
    opt.mode->stop();

    uint64_t calls = 0;
    const uint64_t failed = report(opt, run, clients, &calls);
    if (int sig = g_signal.load()) {
        fprintf(stderr, "dv-bench: stopped early by signal %d\n", sig);
        return 128 + sig;
    }
    if (opt.seconds == 0) {
        if (calls < opt.calls * opt.threads)
            fprintf(stderr, "dv-bench: stopped at the %.0f s limit after %llu of %llu calls\n", MAX_RUN_SECONDS,
                    static_cast<unsigned long long>(calls),
                    static_cast<unsigned long long>(opt.calls * opt.threads));
    }
    if ((calls > 0 && failed == calls) || (opt.fail_on_error && failed > 0))
        return EXIT_CALLS_FAILED;
    return 0;
}
