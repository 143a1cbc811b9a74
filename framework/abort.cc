// The library's one way to stop on a broken invariant: the abort line on
// standard error, then abort().
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "internal.h"

void dv_abort(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fflush(stderr);
    abort();
}
