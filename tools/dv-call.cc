// dv-call: call any dv_ service from a shell and print its reply.
//
//   dv-call [--timeout S] [--stdout] SERVICE COMMAND [JSON]
//
// The exit status is the client status (0 success, 1..7 failures), so
// scripts can tell a missing service from a busy one.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dv.h"

namespace {

const char USAGE[] = "usage: dv-call [--timeout S] [--stdout] SERVICE COMMAND [JSON]";

const char HELP[] =
    "Calls COMMAND of the dv_ service SERVICE with one JSON text and prints the reply.\n"
    "\n"
    "  SERVICE      a service name (hashed to a socket under $DV_SOCKET_DIR, default /var/run/dv)\n"
    "               or @/path/to/socket\n"
    "  COMMAND      the command name\n"
    "  JSON         the request text; read from standard input when absent\n"
    "  --timeout S  seconds to wait for the reply (values below 5 wait 5)\n"
    "  --stdout     hand this program's standard output to the service with the request,\n"
    "               so output the command writes there appears here\n"
    "  --version    print the version\n"
    "\n"
    "Exit status: 0 reply printed, 1 timed out, 2 no such service, 3 service paused,\n"
    "4 request rejected, 5 connection lost, 6 service busy, 7 bad arguments.\n";

const char* status_words(int status)
{
    switch (status) {
    case DV_STATUS_TIMEOUT:
        return "timed out waiting for the reply";
    case DV_STATUS_CONNECT:
        return "no such service (cannot connect to its socket)";
    case DV_STATUS_PAUSED:
        return "service paused";
    case DV_STATUS_REJECTED:
        return "request rejected";
    case DV_STATUS_SOCKET:
        return "connection closed without a reply";
    case DV_STATUS_BUSY:
        return "service busy";
    case DV_STATUS_ARGUMENTS:
        return "bad arguments (service name over 64 or command over 256 characters)";
    default:
        return "unknown status";
    }
}

int usage_error(const char* what)
{
    fprintf(stderr, "dv-call: %s; %s\n", what, USAGE);
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

}  // namespace

int main(int argc, char** argv)
{
    unsigned timeout = 5;
    bool pass_stdout = false;
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; i++) {
        std::string opt = argv[i];
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
            pass_stdout = true;
        } else if (opt == "--timeout") {
            if (!parse_seconds(i + 1 < argc ? argv[i + 1] : nullptr, &timeout))
                return usage_error("--timeout needs a number of seconds");
            i++;
        } else if (opt.rfind("--timeout=", 0) == 0) {
            if (!parse_seconds(opt.c_str() + 10, &timeout))
                return usage_error("--timeout needs a number of seconds");
        } else {
            return usage_error(("unknown option " + opt).c_str());
        }
    }
    int positional = argc - i;
    if (positional < 2)
        return usage_error("missing SERVICE or COMMAND");
    if (positional > 3)
        return usage_error("too many arguments");
    const char* service = argv[i];
    const char* command = argv[i + 1];

    std::string request;
    if (positional == 3)
        request = argv[i + 2];
    else if (!read_all(stdin, &request))
        return usage_error("cannot read the request from standard input");

    dv_io* io = dv_io_create();
    if (!request.empty() && dv_io_write(io, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        dv_io_free(io);
        fprintf(stderr, "dv-call: cannot store the request\n");
        return DV_STATUS_ARGUMENTS;
    }
    fflush(stdout);
    int status = dv_call(service, command, io, timeout, pass_stdout ? STDOUT_FILENO : -1);
    if (status == DV_STATUS_OK) {
        if (io->shared_size > 0)
            fwrite(io->shared_data, 1, io->shared_size, stdout);
        else if (io->sockfd >= 0)
            fprintf(stderr, "dv-call: request sent, but no reply came before the time limit\n");
    } else {
        fprintf(stderr, "dv-call: %s: %s\n", service, status_words(status));
    }
    dv_io_free(io);
    return status;
}
