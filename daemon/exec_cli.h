// Runs a command line given as JSON ({"command": [path, arg, ...]}) and hands
// back what it printed on standard output.
#pragma once

#include <string>

// The exec_cli limits: how much of the program's output is returned and how
// long each argument may be.
inline constexpr size_t EXEC_CLI_OUTPUT_MAX = 5120;
inline constexpr size_t EXEC_CLI_ARG_MAX = 255;

// 0 once the program has run, whatever its exit status (its output, at most
// EXEC_CLI_OUTPUT_MAX bytes up to the first NUL, is stored in *output when it
// printed anything; its standard error is discarded). -1 with "Read command
// fail." for a request that is not JSON or has no non-empty "command" array of
// strings, -1 with "mkstemp fail." when no temporary file can be made, -2 with
// "malloc fail." when memory runs out.
int exec_cli(std::string request, std::string* output);
