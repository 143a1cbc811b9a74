// exec_cli: the request's "command" array becomes a path and argument vector,
// the program's output is captured in a private memory file and returned.
#include "daemon/exec_cli.h"

#include "daemon/program.h"
#include "daemon/json.h"

#include <new>

int exec_cli_parse(const std::string& request, ExecCommand& command, std::string* output)
{
    Json::Value root;
    bool usable = json_parse(request, root) && root.isObject();
    const Json::Value none;
    const Json::Value& given = usable ? static_cast<const Json::Value&>(root)["command"] : none;
    usable = usable && given.isArray() && !given.empty();
    for (Json::ArrayIndex i = 0; usable && i < given.size(); ++i)
        usable = given[i].isString();
    if (!usable) {
        *output = "Read command fail.";
        return -1;
    }
    try {
        command.argv.clear();
        command.argv.reserve(given.size());
        for (const Json::Value& arg : given)
            command.argv.push_back(arg.asString().substr(0, EXEC_CLI_ARG_MAX));
    } catch (const std::bad_alloc&) {
        *output = "malloc fail.";
        return -2;
    }
    return 0;
}

int exec_cli(const ExecCommand& command, std::string* output)
{
    std::vector<const char*> argv;
    try {
        for (const std::string& arg : command.argv)
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
