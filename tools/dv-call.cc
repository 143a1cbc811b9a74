// dv-call: call any dv_ service from a shell and print its reply, or ask a
// service which commands it has.
//
//   dv-call [options] SERVICE COMMAND [JSON|-]
//   dv-call [--json] --list SERVICE
//   dv-call [--json] --describe SERVICE COMMAND
//
// The exit status is the client status (0 success, 1..7 failures), so
// scripts can tell a missing service from a busy one; 8 with --check when
// the reply itself reports a failure.
#include <json/json.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "dv-call-describe.h"
#include "dv.h"

namespace {

constexpr int EXIT_REPLY_FAILED = 8;

const char USAGE[] = "usage: dv-call [options] SERVICE COMMAND [JSON|-], or --list SERVICE, or --describe SERVICE COMMAND";

const char HELP[] =
    "Calls COMMAND of the dv_ service SERVICE with one JSON text and prints the reply.\n"
    "\n"
    "  SERVICE        a service name (hashed to a socket under $DV_SOCKET_DIR, default /var/run/dv)\n"
    "                 or @/path/to/socket\n"
    "  COMMAND        the command name\n"
    "  JSON           the request text; read from standard input when absent or -\n"
    "  --file FILE    read the request from FILE (- for standard input)\n"
    "  --list         list the service's commands with their request keys and types\n"
    "  --describe     show one command: its keys, replies and failures\n"
    "  --json         with --list or --describe: the service's description as it sent it\n"
    "  --pretty       print the reply indented\n"
    "  --check        exit 8 when the reply's \"result\" or \"error_code\" is negative\n"
    "  --timeout S    seconds to wait for the reply (values below 5 wait 5)\n"
    "  --wait S       wait up to S seconds for the service to come up (or stop being paused or busy)\n"
    "  --stdout       hand this program's standard output to the service with the request,\n"
    "                 so output the command writes there appears here\n"
    "  --version      print the version\n"
    "\n"
    "A service describes itself only if it registered a description; one that did not\n"
    "closes the connection for --list and --describe (exit 5).\n"
    "\n"
    "Exit status: 0 reply printed, 1 timed out, 2 no such service, 3 service paused,\n"
    "4 request rejected, 5 connection closed without a reply (an unknown command, among\n"
    "others), 6 service busy, 7 bad arguments, 8 the reply reports a failure (--check).\n";

struct Options {
    unsigned timeout = 5;
    unsigned wait = 0;
    bool pass_stdout = false;
    bool pretty = false;
    bool check = false;
    bool json = false;
    bool list = false;
    bool describe = false;
    const char* file = nullptr;
};

int usage_error(const std::string& what)
{
    fprintf(stderr, "dv-call: %s; %s\n", what.c_str(), USAGE);
    return DV_STATUS_ARGUMENTS;
}

bool parse_seconds(const char* text, unsigned* out)
{
    if (!text || !*text)
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(text, &end, 10);
    if (errno || *end || text[0] == '-' || value > 86400UL * 365)
        return false;
    *out = static_cast<unsigned>(value);
    return true;
}

bool read_all(FILE* f, std::string* out)
{
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        out->append(buf, n);
    return !ferror(f);
}

// The request from a file, or from standard input for "-".
bool read_request(const char* file, std::string* out)
{
    if (strcmp(file, "-") == 0) {
        if (isatty(STDIN_FILENO))
            fprintf(stderr, "dv-call: reading the request from the terminal; end it with Ctrl-D\n");
        return read_all(stdin, out);
    }
    FILE* f = fopen(file, "re");
    if (!f)
        return false;
    bool ok = read_all(f, out);
    fclose(f);
    return ok;
}

std::string status_words(int status, const char* service)
{
    switch (status) {
    case DV_STATUS_TIMEOUT:
        return "timed out waiting for the reply";
    case DV_STATUS_CONNECT: {
        char path[256] = "";
        dv_sockfile(service, path, sizeof(path));
        std::string words = std::string("no such service (nothing listens at ") + path;
        if (service[0] != '@')
            words += std::string("; names are looked up in $DV_SOCKET_DIR, now ") + dv_socket_dir();
        return words + ")";
    }
    case DV_STATUS_PAUSED:
        return "service paused";
    case DV_STATUS_REJECTED:
        return "request rejected";
    case DV_STATUS_SOCKET:
        return std::string("connection closed without a reply; the service closes the connection for commands "
                           "it does not know: see dv-call --list ") +
               service;
    case DV_STATUS_BUSY:
        return "service busy";
    case DV_STATUS_ARGUMENTS:
        return "bad arguments (service name over 64 or command over 256 characters)";
    default:
        return "unknown status";
    }
}

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// One call; with a wait, calls again while the service is not there yet,
// paused or busy, until the wait is over. *reply holds the reply text.
int call(const Options& o, const char* service, const char* command, const std::string& request,
         std::string* reply)
{
    const long long give_up = now_ms() + o.wait * 1000LL;
    for (;;) {
        dv_io* io = dv_io_create();
        if (!request.empty() &&
            dv_io_write(io, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
            dv_io_free(io);
            fprintf(stderr, "dv-call: cannot store the request\n");
            return DV_STATUS_ARGUMENTS;
        }
        fflush(stdout);
        int status = dv_call(service, command, io, o.timeout, o.pass_stdout ? STDOUT_FILENO : -1);
        if (status == DV_STATUS_OK && io->shared_size > 0)
            reply->assign(static_cast<const char*>(io->shared_data), io->shared_size);
        else if (status == DV_STATUS_OK && io->sockfd >= 0)
            fprintf(stderr, "dv-call: request sent, but no reply came before the time limit\n");
        dv_io_free(io);
        const bool retry =
            status == DV_STATUS_CONNECT || status == DV_STATUS_PAUSED || status == DV_STATUS_BUSY;
        if (!retry || now_ms() >= give_up)
            return status;
        usleep(100 * 1000);
    }
}

bool parse_json(const std::string& text, Json::Value* out)
{
    Json::CharReaderBuilder builder;
    std::string why;
    std::istringstream in(text);
    return Json::parseFromStream(builder, in, out, &why);
}

std::string pretty(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, value) + "\n";
}

// A negative "result" or "error_code": the command says it failed.
bool reports_failure(const Json::Value& reply)
{
    if (!reply.isObject())
        return false;
    for (const char* key : {"result", "error_code"}) {
        const Json::Value& v = reply[key];
        if (v.isInt64() && v.asInt64() < 0) {
            fprintf(stderr, "dv-call: the reply reports a failure (\"%s\" %lld)\n", key,
                    static_cast<long long>(v.asInt64()));
            return true;
        }
    }
    return false;
}

int print_reply(const Options& o, const std::string& reply)
{
    Json::Value parsed;
    const bool is_json = (o.pretty || o.check) && parse_json(reply, &parsed);
    if (o.pretty && is_json)
        fputs(pretty(parsed).c_str(), stdout);
    else
        fwrite(reply.data(), 1, reply.size(), stdout);
    return o.check && is_json && reports_failure(parsed) ? EXIT_REPLY_FAILED : 0;
}

// --list and --describe: the description the service registered.
int introspect(const Options& o, const char* service, const char* command)
{
    std::string text;
    int status = call(o, service, DV_DESCRIBE_COMMAND, "{}", &text);
    if (status == DV_STATUS_SOCKET) {
        fprintf(stderr, "dv-call: %s: it describes no commands (the connection closed for \"%s\")\n", service,
                DV_DESCRIBE_COMMAND);
        return status;
    }
    if (status != DV_STATUS_OK) {
        fprintf(stderr, "dv-call: %s: %s\n", service, status_words(status, service).c_str());
        return status;
    }
    Json::Value description;
    if (!parse_json(text, &description) || !description.isObject() || !description["commands"].isArray()) {
        fprintf(stderr, "dv-call: %s: its description is not one dv-call can read\n", service);
        return DV_STATUS_SOCKET;
    }
    if (!command) {
        fputs(o.json ? pretty(description).c_str() : list_commands(description).c_str(), stdout);
        return 0;
    }
    const Json::Value* found = find_command(description, command);
    if (!found) {
        fprintf(stderr, "dv-call: %s has no command %s: see dv-call --list %s\n", service, command, service);
        return DV_STATUS_SOCKET;
    }
    fputs(o.json ? pretty(*found).c_str() : describe_command(*found).c_str(), stdout);
    return 0;
}

// An option that takes a value, as "--name VALUE" or "--name=VALUE".
const char* option_value(int argc, char** argv, int* i, const char* name)
{
    const size_t n = strlen(name);
    if (strncmp(argv[*i], name, n) != 0)
        return nullptr;
    if (argv[*i][n] == '=')
        return argv[*i] + n + 1;
    if (argv[*i][n] != '\0')
        return nullptr;
    ++*i;
    return *i < argc ? argv[*i] : "";
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; i++) {
        std::string opt = argv[i];
        const char* value;
        if (opt == "--") {
            i++;
            break;
        }
        if (opt == "--help" || opt == "-h") {
            printf("%s\n\n%s", USAGE, HELP);
            return 0;
        }
        if (opt == "--version") {
            printf("dv-call %s\n", DV_VERSION_STRING);
            return 0;
        }
        if (opt == "--stdout") {
            o.pass_stdout = true;
        } else if (opt == "--pretty") {
            o.pretty = true;
        } else if (opt == "--check") {
            o.check = true;
        } else if (opt == "--json") {
            o.json = true;
        } else if (opt == "--list") {
            o.list = true;
        } else if (opt == "--describe") {
            o.describe = true;
        } else if ((value = option_value(argc, argv, &i, "--timeout"))) {
            if (!parse_seconds(value, &o.timeout))
                return usage_error("--timeout needs a number of seconds");
        } else if ((value = option_value(argc, argv, &i, "--wait"))) {
            if (!parse_seconds(value, &o.wait))
                return usage_error("--wait needs a number of seconds");
        } else if ((value = option_value(argc, argv, &i, "--file"))) {
            if (!*value)
                return usage_error("--file needs a file name");
            o.file = value;
        } else {
            return usage_error("unknown option " + opt);
        }
    }
    const int positional = argc - i;
    if (o.list && o.describe)
        return usage_error("--list and --describe do not go together");
    if (o.list || o.describe) {
        const int want = o.list ? 1 : 2;
        if (positional != want)
            return usage_error(o.list ? "--list takes SERVICE only" : "--describe takes SERVICE and COMMAND");
        return introspect(o, argv[i], o.describe ? argv[i + 1] : nullptr);
    }
    if (positional < 2)
        return usage_error("missing SERVICE or COMMAND");
    if (positional > 3)
        return usage_error("too many arguments");
    if (positional == 3 && o.file)
        return usage_error("the request comes from JSON or --file, not both");
    const char* service = argv[i];
    const char* command = argv[i + 1];

    std::string request;
    const char* from = o.file ? o.file : positional == 3 ? argv[i + 2] : "-";
    if (positional == 3 && strcmp(from, "-") != 0)
        request = from;
    else if (!read_request(from, &request))
        return usage_error(std::string("cannot read the request from ") +
                           (strcmp(from, "-") == 0 ? "standard input" : from));

    std::string reply;
    int status = call(o, service, command, request, &reply);
    if (status != DV_STATUS_OK) {
        fprintf(stderr, "dv-call: %s: %s\n", service, status_words(status, service).c_str());
        return status;
    }
    return reply.empty() ? 0 : print_reply(o, reply);
}
