// sdbus-bench: the peer bench/run measures the daemon against: what a
// developer would write instead with sd-bus, an echo service on a message bus
// and a load client, reporting in the same lines as dv-bench so that the rows
// land in the same table. The client measures the same way dv-bench does
// (monotonic clock around the whole call, nearest-rank percentiles).
#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tools/bench_report.h"

namespace {

const char USAGE[] =
    "usage: sdbus-bench [--threads N] [--calls M | --seconds T] [--payload BYTES] [--timeout S]"
    " (--per-call | --persistent) ADDRESS\n"
    "       sdbus-bench serve ADDRESS\n"
    "       sdbus-bench log-sink PATH";

const char HELP[] =
    "Calls the echo service on the bus at ADDRESS (a D-Bus address such as\n"
    "unix:path=/tmp/x/bus) from N client threads, each call one Echo(s) -> s\n"
    "round trip with a JSON object as the string:\n"
    "  --per-call     a new bus connection per call (authentication, Hello, the call,\n"
    "                 close): the pattern of a connection-per-call protocol\n"
    "  --persistent   one connection per client thread, opened before the clock starts\n"
    "Options as for dv-bench: --threads 1..256 (default 1), --calls per thread\n"
    "(default 1000) or --seconds up to 600, --payload BYTES (at least 8; default the\n"
    "text {}), --timeout S per call (default 5).\n"
    "Output: the three lines of dv-bench (mode=..., latency_us ..., failures ...);\n"
    "failure keys are connectERRNO, callERRNO and badreply.\n"
    "\n"
    "serve ADDRESS     runs the echo service on that bus until the bus goes away;\n"
    "                  prints \"ready\" once its name is owned\n"
    "log-sink PATH     binds a datagram socket at PATH and copies what arrives to\n"
    "                  standard output until the parent process ends: a stand-in\n"
    "                  for the system log socket a bus launcher insists on\n";

const char SERVICE_NAME[] = "bench.peer.Echo";
const char OBJECT_PATH[] = "/bench/peer/Echo";
const char INTERFACE[] = "bench.peer.Echo";

constexpr unsigned long MAX_THREADS = 256;
constexpr double MAX_RUN_SECONDS = 600;
constexpr unsigned long MAX_PAYLOAD = 1UL << 20;
constexpr int EXIT_SETUP = 1;
constexpr int EXIT_USAGE = 7;

int usage_error(const std::string& what)
{
    fprintf(stderr, "sdbus-bench: %s\n%s\n", what.c_str(), USAGE);
    return EXIT_USAGE;
}

int64_t now_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::string failure_key(const char* what, int negative_errno)
{
    const char* name = strerrorname_np(-negative_errno);
    return std::string(what) + (name ? name : std::to_string(-negative_errno));
}

// ---- the service -------------------------------------------------------

int on_echo(sd_bus_message* m, void*, sd_bus_error*)
{
    const char* text = nullptr;
    int r = sd_bus_message_read(m, "s", &text);
    if (r < 0)
        return r;
    return sd_bus_reply_method_return(m, "s", text);
}

const sd_bus_vtable ECHO_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "s", "s", on_echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// One connection, one thread: the way an sd-bus service is usually written.
int serve(const char* address)
{
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0)
        r = sd_bus_set_address(bus, address);
    if (r >= 0)
        r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0)
        r = sd_bus_start(bus);
    if (r >= 0)
        r = sd_bus_add_object_vtable(bus, nullptr, OBJECT_PATH, INTERFACE, ECHO_VTABLE, nullptr);
    if (r >= 0)
        r = sd_bus_request_name(bus, SERVICE_NAME, 0);
    if (r < 0) {
        fprintf(stderr, "sdbus-bench: cannot serve on %s: %s\n", address, strerror(-r));
        sd_bus_flush_close_unref(bus);
        return EXIT_SETUP;
    }
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        r = sd_bus_process(bus, nullptr);
        if (r > 0)
            continue;
        if (r == 0)
            r = sd_bus_wait(bus, UINT64_MAX);
        if (r < 0 && r != -EINTR)
            break;
    }
    sd_bus_flush_close_unref(bus);
    return r == -ECONNRESET || r == -ENOTCONN ? 0 : EXIT_SETUP;
}

int log_sink(const char* path)
{
    // Ends with the launcher that execs in the parent's place.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(addr.sun_path))
        return usage_error("log-sink PATH is too long");
    strcpy(addr.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        fprintf(stderr, "sdbus-bench: cannot bind %s: %s\n", path, strerror(errno));
        return EXIT_SETUP;
    }
    std::vector<char> buf(1 << 16);
    for (;;) {
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n < 0 && errno != EINTR)
            return EXIT_SETUP;
        if (n > 0) {
            fwrite(buf.data(), 1, static_cast<size_t>(n), stdout);
            fputc('\n', stdout);
            fflush(stdout);
        }
    }
}

// ---- the client --------------------------------------------------------

struct Options {
    unsigned long threads = 1;
    unsigned long calls = 1000;
    double seconds = 0;
    std::string payload = "{}";
    unsigned long timeout = 5;
    bool per_call = false;
    std::string address;
};

struct Client {
    std::vector<uint32_t> latency_us;
    std::map<std::string, uint64_t> failures;
    uint64_t done = 0;
    int64_t end = 0;
};

int open_bus(const Options& opt, sd_bus** out)
{
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0)
        r = sd_bus_set_address(bus, opt.address.c_str());
    if (r >= 0)
        r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0)
        r = sd_bus_set_method_call_timeout(bus, opt.timeout * 1000000ULL);
    if (r >= 0)
        r = sd_bus_start(bus);
    if (r < 0) {
        sd_bus_flush_close_unref(bus);
        return r;
    }
    *out = bus;
    return 0;
}

bool echo(const Options& opt, sd_bus* bus, std::string* failure)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus, SERVICE_NAME, OBJECT_PATH, INTERFACE, "Echo", &error, &reply, "s",
                               opt.payload.c_str());
    const char* text = nullptr;
    if (r >= 0)
        r = sd_bus_message_read(reply, "s", &text);
    bool ok = r >= 0 && opt.payload == text;
    if (r < 0)
        *failure = failure_key("call", r);
    else if (!ok)
        *failure = "badreply";
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return ok;
}

void client_loop(const Options& opt, std::latch* ready, std::latch* go, const int64_t* deadline, Client* me)
{
    sd_bus* bus = nullptr;
    // A persistent connection is ready, Hello answered, before the clock starts.
    const char* unique = nullptr;
    if (!opt.per_call && (open_bus(opt, &bus) < 0 || sd_bus_get_unique_name(bus, &unique) < 0))
        bus = sd_bus_flush_close_unref(bus);  // retried, and counted, by the first call
    ready->count_down();
    go->wait();
    std::string failure;
    for (uint64_t i = 0; opt.seconds > 0 || i < opt.calls; i++) {
        if (now_ns() >= *deadline)
            break;
        int64_t t0 = now_ns();
        int r = bus ? 0 : open_bus(opt, &bus);
        bool ok = r >= 0 && echo(opt, bus, &failure);
        if (r < 0)
            failure = failure_key("connect", r);
        if (opt.per_call || !ok)
            bus = sd_bus_flush_close_unref(bus);
        int64_t spent = now_ns() - t0;
        if (ok)
            me->latency_us.push_back(static_cast<uint32_t>(std::min<int64_t>((spent + 500) / 1000, UINT32_MAX)));
        else
            me->failures[failure]++;
        me->done++;
    }
    me->end = now_ns();
    sd_bus_flush_close_unref(bus);
}

int run_clients(const Options& opt)
{
    std::vector<Client> clients(opt.threads);
    std::latch ready(static_cast<ptrdiff_t>(opt.threads)), go(1);
    int64_t deadline = 0;
    std::vector<std::thread> threads;
    for (Client& c : clients)
        threads.emplace_back(client_loop, std::cref(opt), &ready, &go, &deadline, &c);
    ready.wait();
    int64_t start = now_ns();
    deadline = start + static_cast<int64_t>((opt.seconds > 0 ? opt.seconds : MAX_RUN_SECONDS) * 1e9);
    go.count_down();
    for (std::thread& t : threads)
        t.join();

    std::vector<uint32_t> all;
    std::map<std::string, uint64_t> failures;
    uint64_t calls = 0;
    int64_t end = start;
    for (const Client& c : clients) {
        all.insert(all.end(), c.latency_us.begin(), c.latency_us.end());
        for (const auto& [key, count] : c.failures)
            failures[key] += count;
        calls += c.done;
        end = std::max(end, c.end);
    }
    double seconds = static_cast<double>(end - start) / 1e9;
    printf("mode=sdbus-%s payload=%zu threads=%lu calls=%llu seconds=%.2f calls_per_s=%.0f\n",
           opt.per_call ? "per-call" : "persistent", opt.payload.size(), opt.threads,
           static_cast<unsigned long long>(calls), seconds, seconds > 0 ? static_cast<double>(calls) / seconds : 0.0);
    print_latency_and_failures(all, failures);
    return 0;
}

bool parse_count(const char* text, unsigned long low, unsigned long high, unsigned long* out)
{
    char* end = nullptr;
    errno = 0;
    unsigned long value = (text && *text != '-') ? strtoul(text, &end, 10) : 0;
    if (!text || end == text || *end || errno || value < low || value > high)
        return false;
    *out = value;
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "serve") == 0)
        return serve(argv[2]);
    if (argc == 3 && strcmp(argv[1], "log-sink") == 0)
        return log_sink(argv[2]);

    Options opt;
    bool have_mode = false;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        unsigned long n = 0;
        if (arg == "--help" || arg == "-h") {
            printf("%s\n\n%s", USAGE, HELP);
            return 0;
        } else if (arg == "--per-call" || arg == "--persistent") {
            if (have_mode)
                return usage_error("only one of --per-call, --persistent");
            opt.per_call = arg == "--per-call";
            have_mode = true;
        } else if (arg == "--threads") {
            if (!parse_count(value, 1, MAX_THREADS, &opt.threads))
                return usage_error("--threads needs a number from 1 to " + std::to_string(MAX_THREADS));
            i++;
        } else if (arg == "--calls") {
            if (!parse_count(value, 1, 1000000000UL, &opt.calls))
                return usage_error("--calls needs a positive number");
            i++;
        } else if (arg == "--seconds") {
            char* end = nullptr;
            opt.seconds = value ? strtod(value, &end) : 0;
            if (!value || *end || !(opt.seconds > 0) || opt.seconds > MAX_RUN_SECONDS)
                return usage_error("--seconds needs a number above 0 and at most 600");
            i++;
        } else if (arg == "--payload") {
            if (!parse_count(value, 8, MAX_PAYLOAD, &n))
                return usage_error("--payload needs a size from 8 to " + std::to_string(MAX_PAYLOAD) + " bytes");
            opt.payload = "{\"p\":\"" + std::string(n - 8, 'x') + "\"}";
            i++;
        } else if (arg == "--timeout") {
            if (!parse_count(value, 1, 3600, &opt.timeout))
                return usage_error("--timeout needs a number of seconds from 1 to 3600");
            i++;
        } else if (arg.empty() || arg[0] == '-' || !opt.address.empty()) {
            return usage_error("unexpected argument " + arg);
        } else {
            opt.address = arg;
        }
    }
    if (!have_mode || opt.address.empty())
        return usage_error("needs --per-call or --persistent and an ADDRESS");
    signal(SIGPIPE, SIG_IGN);
    return run_clients(opt);
}
