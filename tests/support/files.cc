// Whole-file helpers for tests.
#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

std::string read_text_file(const std::string& path)
{
    std::string content;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return content;
    char buf[65536];
    ssize_t got;
    while ((got = read(fd, buf, sizeof(buf))) > 0)
        content.append(buf, static_cast<size_t>(got));
    close(fd);
    return content;
}

bool write_text_file(const std::string& path, const std::string& content, mode_t mode)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        return false;
    size_t done = 0;
    while (done < content.size()) {
        ssize_t put = write(fd, content.data() + done, content.size() - done);
        if (put <= 0)
            break;
        done += static_cast<size_t>(put);
    }
    // A mode given for an existing file still applies.
    fchmod(fd, mode);
    return close(fd) == 0 && done == content.size();
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}
