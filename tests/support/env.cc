// ScopedEnv: setenv/unsetenv with the previous value restored.
#include "support/env.h"

#include <cstdlib>

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name)
{
    if (const char* old = getenv(name))
        old_ = old;
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

ScopedEnv::~ScopedEnv()
{
    if (old_)
        setenv(name_.c_str(), old_->c_str(), 1);
    else
        unsetenv(name_.c_str());
}
