#pragma once

#include <sys/types.h>

#include <string>

// The whole content, or "" when the file cannot be read.
std::string read_text_file(const std::string& path);
bool write_text_file(const std::string& path, const std::string& content, mode_t mode = 0644);
bool file_exists(const std::string& path);
