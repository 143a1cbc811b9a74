// Running a program from a test: its output, error output and exit status.
#pragma once

#include <string>
#include <vector>

struct ProcessResult {
    int status = -1;  // exit code, or 128 + signal number, or -1 when it could not run or timed out
    std::string out;
    std::string err;
};

// Runs argv[0] (a path) with argv, feeding stdin_text on standard input.
// extra_env entries ("NAME=value") are added to the test's environment.
// A run longer than timeout_ms is killed and reported with status -1.
ProcessResult run_process(const std::vector<std::string>& argv, const std::string& stdin_text = "",
                          const std::vector<std::string>& extra_env = {}, int timeout_ms = 30000);
