// Setting an environment variable for the length of a scope.
#pragma once

#include <optional>
#include <string>

class ScopedEnv {
public:
    // value null unsets the variable; the old state comes back on destruction.
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};
