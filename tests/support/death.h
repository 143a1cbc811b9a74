// Death-test helpers: the framework reports misuse with one exact stderr
// line and abort(); these turn such a line into a pattern gtest can match.
#pragma once

#include <string>

// A POSIX extended regular expression that matches text literally.
std::string literal_regex(const std::string& text);

// The text of printf(fmt, ...) as a std::string.
std::string format_text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
