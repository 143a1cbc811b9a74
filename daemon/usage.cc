// The daemon's --help, -h and --version. Unlike every other unknown option,
// which is reported and ignored so that a start script's extra flags never
// keep the service down, these end the program: someone asking how to run it
// must not get a root daemon started instead.
#include "daemon/usage.h"

#include <cstdio>
#include <cstring>

#include "dv.h"

namespace {

const char USAGE[] =
    "usage: dwe-dv-vexprod [-d] [-t]\n"
    "\n"
    "Serves the VexProServer app's privileged commands (service VexProServer-vexprod)\n"
    "and its mail (VexProServer_send_mail-vexprod) as root, and forwards message\n"
    "queues 65521 and 65522 to VexProServer_notify-vexprod, until SIGINT or SIGTERM.\n"
    "\n"
    "  -d         become a daemon (directory /, standard streams on /dev/null)\n"
    "  -t         start, then stop at once in order\n"
    "  -h, --help print this and exit\n"
    "  --version  print the version and exit\n"
    "Other options are reported and ignored.\n"
    "\n"
    "Environment: DV_SOCKET_DIR (socket directory, default /var/run/dv),\n"
    "VEXPROD_PLATFORM_ROOT (use the platform's files under this directory).\n"
    "Log: <Install_Path>/.log/.dwe_dv_vexprod.log, Install_Path from the\n"
    "VexProServer section of /etc/config/appbox.conf.\n"
    "Exit status: 0 orderly stop, 255 start refused, 254 a service not created.\n";

}  // namespace

int answer_usage_query(int argc, char** argv)
{
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; i++) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            fputs(USAGE, stdout);
            return 0;
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("dwe-dv-vexprod %s\n", DV_VERSION_STRING);
            return 0;
        }
    }
    return -1;
}
