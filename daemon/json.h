// How every request is parsed and every reply is serialised: jsoncpp's
// Reader (comments allowed) and FastWriter (compact, one trailing newline).
#pragma once

#include <json/json.h>

#include <string>

// Parses [begin, end); the text need not be NUL-terminated.
bool json_parse(const char* begin, const char* end, Json::Value& root);
bool json_parse(const std::string& text, Json::Value& root);

// The reply text exactly as callers have always received it.
std::string json_write(const Json::Value& root);
