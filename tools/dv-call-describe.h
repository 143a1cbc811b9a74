// What dv-call makes of a service's description (see DV_DESCRIBE_COMMAND in
// dv.h): the command list and one command's page, as text for people.
#pragma once

#include <json/json.h>

#include <string>

// One line per command: its name and, when it reads a request, the shape
// of that request ({"key": type, ...}; "key"? for a key it may leave out).
std::string list_commands(const Json::Value& description);

// The named command's entry, or null when the description has none.
const Json::Value* find_command(const Json::Value& description, const std::string& name);

// Everything the description says of one command, a few lines.
std::string describe_command(const Json::Value& command);
