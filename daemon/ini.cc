// dv_get_ini_info: runs conf_get and takes the first line it prints.
#include "daemon/ini.h"

#include "daemon/runner.h"
#include "platform/paths.h"

#include <cstdio>
#include <cstring>

int dv_get_ini_info(const char* file, const char* section, const char* key, std::string& value)
{
    // A null section or key would end the argument vector early.
    if (!section || !key)
        return 0;
    const char* argv[] = {"conf_get", section, key, "-c", "-d", CONF_GET_DEFAULT,
                          file ? "-f" : nullptr, file, nullptr};

    const std::string tool = platform_path(PATH_CONF_GET);
    FILE* pipe = dwe_vexprod_tarsk_popen_v_v2(nullptr, nullptr, nullptr, "r", tool.c_str(), argv);
    if (!pipe)
        return 0;

    int found = 0;
    char line[128];
    if (fgets(line, sizeof(line), pipe) &&
        strncmp(line, CONF_GET_DEFAULT, sizeof(CONF_GET_DEFAULT) - 1) != 0) {
        value = line;
        size_t newline = value.rfind('\n');
        if (newline != std::string::npos)
            value.erase(newline);
        found = 1;
    }
    dwe_vexprod_tarsk_pclose(pipe);
    return found;
}
