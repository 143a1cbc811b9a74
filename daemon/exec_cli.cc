// exec_cli: the request's "command" array becomes a path and argument vector,
// the program's output is captured in a private temporary file and returned.
#include "daemon/exec_cli.h"

#include "daemon/json.h"
#include "daemon/runner.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace {

// A fresh file only we can open, in $TMPDIR or /tmp; its name goes to the
// runner, which truncates and fills it, and we read it back through fd.
int make_capture_file(std::string& name)
{
    const char* dir = getenv("TMPDIR");
    if (!dir || !*dir)
        dir = "/tmp";
    name = std::string(dir) + "/vexprod-exec_cli.XXXXXX";
    return mkostemp(name.data(), O_CLOEXEC);
}

}  // namespace

int exec_cli(std::string request, std::string* output)
{
    std::string discarded;
    if (!output)
        output = &discarded;

    Json::Value root;
    bool usable = json_parse(request, root) && root.isObject();
    const Json::Value none;
    const Json::Value& command = usable ? root["command"] : none;
    usable = usable && command.isArray() && !command.empty();
    for (Json::ArrayIndex i = 0; usable && i < command.size(); ++i)
        usable = command[i].isString();
    if (!usable) {
        *output = "Read command fail.";
        return -1;
    }

    std::vector<std::string> args;
    std::vector<const char*> argv;
    try {
        args.reserve(command.size());
        for (const Json::Value& arg : command)
            args.push_back(arg.asString().substr(0, EXEC_CLI_ARG_MAX));
        for (const std::string& arg : args)
            argv.push_back(arg.c_str());
        argv.push_back(nullptr);
    } catch (const std::bad_alloc&) {
        *output = "malloc fail.";
        return -2;
    }

    std::string capture;
    int fd = make_capture_file(capture);
    if (fd < 0) {
        *output = "mkstemp fail.";
        return -1;
    }

    dwe_vexprod_tarsk_exec_v(capture.c_str(), nullptr, nullptr, argv[0], argv.data());

    char buf[EXEC_CLI_OUTPUT_MAX];
    ssize_t got = pread(fd, buf, sizeof(buf), 0);
    if (got > 0)
        output->assign(buf, strnlen(buf, static_cast<size_t>(got)));
    close(fd);
    unlink(capture.c_str());
    return 0;
}
