// The blocked-program expression, compiled when the library is loaded and
// freed when it is unloaded, and the match against it.
#include <regex.h>

#include "internal.h"

namespace {

regex_t re;
bool re_ready = false;

}  // namespace

extern "C" {

__attribute__((constructor)) DV_API int dv_init(void)
{
    if (re_ready)
        return 0;
    if (regcomp(&re, BLOCKED_PROGRAM_LIST, REG_EXTENDED) != 0)
        dv_abort("[ABORT] @%s() cannot compile blocked program list: `%s'\n", "dv_init",
                 "regcomp(&re, BLOCKED_PROGRAM_LIST, REG_EXTENDED) == 0");
    re_ready = true;
    return 0;
}

DV_API int dv_blocked_program(const char* path)
{
    if (!path || !re_ready)
        return 0;
    return regexec(&re, path, 0, nullptr, 0) == 0 ? 1 : 0;
}

__attribute__((destructor)) DV_API void dv_fini(void)
{
    if (re_ready) {
        regfree(&re);
        re_ready = false;
    }
}

}  // extern "C"
