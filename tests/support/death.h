// The framework reports misuse with one exact stderr line and abort(); these
// turn such a line into a pattern a death test can match.
#pragma once

#include <string>

std::string literal_regex(const std::string& text);
std::string format_text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
