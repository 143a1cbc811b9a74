// Writes the command reference (docs/commands.md) made from the command
// tables: to FILE when given, else to standard output.
#include <cstdio>
#include <fstream>
#include <iterator>

#include "daemon/command_reference.h"
#include "daemon/dispatch.h"
#include "handlers/registry.h"

int main(int argc, char** argv)
{
    const ServiceTable services[] = {{DV_SERVICE_NAME, {handler, handler_size}},
                                     {DV_SEND_MAIL_SERVICE_NAME, {sendmail_handler, sendmail_handler_size}}};
    const std::string page = command_reference(services);
    if (argc < 2) {
        fwrite(page.data(), 1, page.size(), stdout);
        return 0;
    }
    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    out << page;
    out.close();
    if (!out) {
        fprintf(stderr, "command-reference: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
