// exec_cli: the request's "command" array becomes a path and argument vector,
// the program's output is captured in a private memory file and returned.
#include "daemon/exec_cli.h"

#include "daemon/capture.h"
#include "daemon/json.h"

#include <new>
#include <vector>

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

    CapturedRun run;
    // Whatever it is, it must not outlive the daemon's stop.
    if (!run_captured(argv[0], argv.data(), run, EXEC_CLI_OUTPUT_MAX, true, CaptureIn::memory)) {
        *output = "mkstemp fail.";
        return -1;
    }
    // The program's own exit status is not reported; its text is, up to the
    // first NUL byte.
    if (!run.output.empty())
        output->assign(run.output.c_str());
    return 0;
}
