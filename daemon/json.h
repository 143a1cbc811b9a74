// How every request is parsed and every reply is serialised: jsoncpp's
// reader (comments allowed) and FastWriter (compact, one trailing newline).
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

// No command's request nests more than a few levels. jsoncpp's own limit
// (1000) throws past it, and a deeper value costs a stack frame per level to
// read, copy and free: a request deeper than this is simply not JSON to us.
inline constexpr size_t JSON_DEPTH_MAX = 32;

// Parses [begin, end); the text need not be NUL-terminated. False for text
// that is not JSON, nests deeper than JSON_DEPTH_MAX or runs out of memory,
// with the reader's message in *why when given; it never throws.
bool json_parse(const char* begin, const char* end, Json::Value& root, std::string* why = nullptr);
bool json_parse(const std::string& text, Json::Value& root, std::string* why = nullptr);

// The reply text exactly as callers have always received it.
std::string json_write(const Json::Value& root);
