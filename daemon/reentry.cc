#include "daemon/reentry.h"

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The kernel keeps this many characters of a command name.
constexpr size_t COMM_LEN = 15;

}  // namespace

int dv_reentried(const char* argv0)
{
    if (!argv0 || !*argv0)
        return 0;
    char copy[512];
    snprintf(copy, sizeof(copy), "%s", argv0);
    const char* slash = strrchr(copy, '/');
    const char* base = slash ? slash + 1 : copy;

    char self[32];
    snprintf(self, sizeof(self), "%d", static_cast<int>(getpid()));

    DIR* proc = opendir("/proc");
    if (!proc)
        return 0;
    long found = 0;
    while (struct dirent* entry = readdir(proc)) {
        const char* name = entry->d_name;
        if (!isdigit(static_cast<unsigned char>(name[0])) || strcmp(name, self) == 0)
            continue;
        char path[sizeof(entry->d_name) + 16];
        snprintf(path, sizeof(path), "/proc/%s/stat", name);
        FILE* f = fopen(path, "re");
        if (!f)
            continue;
        char line[256];
        bool got = fgets(line, sizeof(line), f) != nullptr;
        fclose(f);
        if (!got)
            continue;
        char* open = strchr(line, '(');
        char* close = strrchr(line, ')');
        if (!open || !close || close < open)
            continue;
        *close = '\0';
        const char* comm = open + 1;
        if (strncmp(comm, base, COMM_LEN) != 0)
            continue;
        char state = 0;
        if (sscanf(close + 1, " %c", &state) != 1 || state == 'Z')
            continue;
        found = strtol(name, nullptr, 10);
        break;
    }
    closedir(proc);
    return found > 0 ? 1 : 0;
}
