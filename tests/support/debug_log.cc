// DebugLogCapture: log_set_dir into a temporary directory, lines read back.
#include "support/debug_log.h"

#include <unistd.h>

#include "daemon/log.h"
#include "support/files.h"

DebugLogCapture::DebugLogCapture()
{
    log_set_dir(dir_.file("log").c_str());
    file_ = std::string(cLogFilePath);
}

DebugLogCapture::~DebugLogCapture()
{
    cLogDirPath[0] = '\0';
    cLogFilePath[0] = '\0';
}

std::vector<std::string> DebugLogCapture::messages() const
{
    // A line is "[%05d] [time] message\n"; a message may hold newlines of
    // its own, which then continue it on the following lines.
    std::vector<std::string> out;
    const std::string text = read_text_file(file_);
    size_t at = 0;
    while (at < text.size()) {
        size_t pid_end = text.find("] [", at);
        size_t time_end = pid_end == std::string::npos ? std::string::npos : text.find("] ", pid_end + 3);
        if (text[at] != '[' || time_end == std::string::npos)
            break;
        size_t start = time_end + 2;
        size_t next = text.find("\n[", start);
        size_t end = next == std::string::npos ? text.size() : next + 1;
        std::string message = text.substr(start, end - start);
        if (!message.empty() && message.back() == '\n')
            message.pop_back();
        out.push_back(message);
        at = end;
    }
    return out;
}

std::vector<std::string> DebugLogCapture::messages_with(const std::string& text) const
{
    std::vector<std::string> out;
    for (const std::string& m : messages())
        if (m.find(text) != std::string::npos)
            out.push_back(m);
    return out;
}

void DebugLogCapture::clear()
{
    unlink(file_.c_str());
}
