// The server app's own values in the package registry.
#pragma once

#include <string>

// One value of the server app's own section ("VexProServer") of the package
// registry, such as "Install_Path" or "Shell". False when it is missing or empty.
bool read_app_value(const char* key, std::string& value);

// The app's control script ("Shell" in the registry), as on the appliance.
// False when the app has none, or a relative one that would depend on our
// working directory.
bool app_control_script(std::string& path);
