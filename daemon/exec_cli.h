// Runs a command line given as JSON ({"command": [path, arg, ...]}) and hands
// back what it printed on standard output. The request is read once, into
// an ExecCommand, which the handler's program check and the run share.
#pragma once

#include <string>
#include <vector>

// The exec_cli limits: how much of the program's output is returned and how
// long each argument may be.
inline constexpr size_t EXEC_CLI_OUTPUT_MAX = 5120;
inline constexpr size_t EXEC_CLI_ARG_MAX = 255;

struct ExecCommand {
    std::vector<std::string> argv;  // "command" as given, each cut to EXEC_CLI_ARG_MAX; argv[0] the program
};

// 0 with command filled; -1 with "Read command fail." in *output for a
// request that is not JSON or has no non-empty "command" array of strings,
// -2 with "malloc fail." when memory runs out.
int exec_cli_parse(const std::string& request, ExecCommand& command, std::string* output);

// 0 once the program has run, whatever its exit status (its output, at most
// EXEC_CLI_OUTPUT_MAX bytes up to the first NUL, is stored in *output when it
// printed anything; its standard error is discarded); -1 with "mkstemp
// fail." when no capture can be made.
int exec_cli(const ExecCommand& command, std::string* output);
