#include "daemon/app_values.h"

#include "daemon/ini.h"
#include "platform/paths.h"

bool read_app_value(const char* key, std::string& value)
{
    std::string found;
    if (!dv_get_ini_info(PATH_APPBOX_CONF, "VexProServer", key, found) || found.empty())
        return false;
    value = std::move(found);
    return true;
}

bool app_control_script(std::string& path)
{
    std::string script;
    if (!read_app_value("Shell", script) || script[0] != '/')
        return false;
    path = std::move(script);
    return true;
}
