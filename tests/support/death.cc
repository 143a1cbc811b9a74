#include "support/death.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

std::string literal_regex(const std::string& text)
{
    std::string out;
    for (char c : text) {
        if (strchr("\\^$.|?*+()[]{}", c))
            out += '\\';
        out += c;
    }
    return out;
}

std::string format_text(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char* buf = nullptr;
    int n = vasprintf(&buf, fmt, ap);
    va_end(ap);
    std::string out = n >= 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    free(buf);
    return out;
}
