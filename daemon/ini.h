// Reading one value of the platform's INI-style configuration files through
// the platform's own conf_get tool.
#pragma once

#include <string>

// The marker conf_get prints when the key is missing (kept as spelled).
inline constexpr const char CONF_GET_DEFAULT[] = "CONF_GET_FAILD";

// 1 with the value (its first line, at most 127 characters, without the
// newline) in value; 0 when the key is missing or the tool cannot be run.
// file null lets conf_get read its default file.
int dv_get_ini_info(const char* file, const char* section, const char* key, std::string& value);
