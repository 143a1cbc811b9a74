// An environment variable set (value) or unset (null) for a scope.
#pragma once

#include <optional>
#include <string>

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};
