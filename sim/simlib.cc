// Root discovery, the call journal and small file readers for the simulated
// platform's tools and libraries.
#include "sim/simlib.h"

#include "sim/fields.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

std::string find_root(const std::string& own_file)
{
    std::string dir = own_file;
    for (;;) {
        std::size_t slash = dir.find_last_of('/');
        if (slash == std::string::npos)
            break;
        dir.erase(slash);
        if (file_exists(dir + ROOT_MARKER))
            return dir;
        if (dir.empty())
            break;
    }
    const char* env = getenv("VEXPROD_PLATFORM_ROOT");
    std::string root = env ? env : "";
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    return root;
}

std::string root_of_library(const void* own_symbol)
{
    Dl_info info{};
    if (dladdr(own_symbol, &info) && info.dli_fname)
        return find_root(info.dli_fname);
    return find_root("");
}

bool write_all(int fd, const std::string& data)
{
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

bool append_line(const std::string& path, const std::string& line)
{
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return false;
    // One write for the whole record: appends to a regular file are atomic
    // against other appenders.
    bool ok = write_all(fd, line);
    close(fd);
    return ok;
}

void journal(const std::string& root, const std::string& who, const std::vector<std::string>& args,
             const std::string* input)
{
    if (root.empty())
        return; // never the real system's /var/log
    std::vector<std::string> fields;
    fields.reserve(args.size() + 3);
    fields.push_back(who);
    fields.push_back(std::to_string(args.size()));
    fields.insert(fields.end(), args.begin(), args.end());
    if (input)
        fields.push_back(*input);
    append_line(root + JOURNAL, join_fields(fields));
}

bool read_file(const std::string& path, std::string& out)
{
    out.clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buf[8192];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            close(fd);
            return n == 0;
        }
        out.append(buf, n);
    }
}

bool write_file(const std::string& path, const std::string& text)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = write_all(fd, text);
    return close(fd) == 0 && ok;
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> split(const std::string& text, char sep)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        std::size_t at = text.find(sep, start);
        parts.push_back(text.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos)
            return parts;
        start = at + 1;
    }
}

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines = split(text, '\n');
    if (!lines.empty() && lines.back().empty())
        lines.pop_back();
    for (std::string& line : lines)
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
    return lines;
}

std::string trim(const std::string& s)
{
    std::size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return "";
    std::size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

bool parse_int(const std::string& s, int& out)
{
    std::string t = trim(s);
    if (t.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    long v = strtol(t.c_str(), &end, 10);
    if (errno || *end || v < INT_MIN || v > INT_MAX)
        return false;
    out = static_cast<int>(v);
    return true;
}

bool ini_value(const std::string& text, const std::string& section, const std::string& key, std::string& value)
{
    bool in_section = false;
    for (const std::string& raw : split_lines(text)) {
        std::string line = trim(raw);
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line[0] == '[') {
            std::size_t close = line.find(']');
            in_section = close != std::string::npos && trim(line.substr(1, close - 1)) == section;
            continue;
        }
        std::size_t eq = line.find('=');
        if (in_section && eq != std::string::npos && trim(line.substr(0, eq)) == key) {
            value = trim(line.substr(eq + 1));
            return true;
        }
    }
    return false;
}

} // namespace sim
