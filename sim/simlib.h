// What the simulated tools and libraries share: where their root is, the call
// journal, and small readers for the files in the root.
#pragma once

#include <string>
#include <vector>

namespace sim {

// Laid out by make-root; the README describes each.
inline constexpr char ROOT_MARKER[] = "/.vexprod-sim-root";
inline constexpr char JOURNAL[] = "/var/log/platform-calls.log";
inline constexpr char STATE_DIR[] = "/var/lib/sim";
inline constexpr char STEER_DIR[] = "/var/lib/sim/steer";

// The root holding own_file: the nearest directory above it with the root
// marker. A stub finds its root from where it lives, so it keeps working
// when a caller drops the environment; $VEXPROD_PLATFORM_ROOT is the
// fallback. "" when neither gives one.
std::string find_root(const std::string& own_file);
// The root of the shared object that defines own_symbol (through dladdr).
std::string root_of_library(const void* own_symbol);

// Appends one record to the root's journal in a single O_APPEND write, so
// concurrent callers never interleave: who (a platform path), the number of
// arguments, the arguments, and the standard input when there is one.
void journal(const std::string& root, const std::string& who, const std::vector<std::string>& args,
             const std::string* input);

bool read_file(const std::string& path, std::string& out);
bool write_file(const std::string& path, const std::string& text);
// All of data to fd, through interruptions; false when a write fails.
bool write_all(int fd, const std::string& data);
bool append_line(const std::string& path, const std::string& line);
bool file_exists(const std::string& path);
// Lines of text without their end-of-line characters.
std::vector<std::string> split_lines(const std::string& text);
std::vector<std::string> split(const std::string& text, char sep);
// Blanks, tabs and line ends removed at both ends.
std::string trim(const std::string& s);
// A whole decimal integer within int range, blanks around it allowed.
bool parse_int(const std::string& s, int& out);
// The value of key in [section] of an INI text; blanks around names, '=' and
// the value are not part of them. The first match wins.
bool ini_value(const std::string& text, const std::string& section, const std::string& key, std::string& value);

} // namespace sim
