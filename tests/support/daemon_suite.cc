// The end-to-end suites' shared helpers and the fixture steps that are not
// templates.
#include "support/daemon_suite.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

#include "daemon/strutil.h"
#include "platform/paths.h"
#include "dv.h"
#include "support/env.h"

namespace fs = std::filesystem;

std::string failure(const std::string& handler)
{
    return "{\"error_msg\":\"" + handler + " fail\",\"result\":-1}\n";
}

std::string encode_base64(const std::string& bytes)
{
    std::string out;
    base64_encode(bytes, out);
    return out;
}

std::string decode_base64(const std::string& text)
{
    std::string out;
    base64_decode(text, out);
    return out;
}

bool start_daemon(DaemonProcess& daemon, const TempDir& captures)
{
    // Only the daemon runs with it: the test's own files are made already.
    ScopedEnv tmpdir("TMPDIR", captures.path().c_str());
    return daemon.start();
}

void expect_clean_stop(DaemonProcess& daemon)
{
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.stderr_text(), "");
}

std::string checked_call(const DaemonProcess& daemon, const std::string& command, const std::string& request,
                         int* status)
{
    int st = -1;
    std::string reply = daemon.call(command, request, &st);
    if (status)
        *status = st;
    else
        EXPECT_EQ(st, DV_STATUS_OK) << command << " " << request;
    return reply;
}

std::vector<Argv> argvs(const SimRoot& root, const std::string& who)
{
    std::vector<Argv> out;
    for (const SimCall& c : root.calls(who))
        out.push_back(c.argv);
    return out;
}

std::string without_line_number(std::string text, const std::string& handler)
{
    const std::string tag = "[" + handler + "][";
    for (size_t at = text.find(tag); at != std::string::npos; at = text.find(tag, at + 1)) {
        size_t number = at + tag.size();
        size_t end = text.find_first_not_of("0123456789", number);
        if (end != number && end != std::string::npos && text[end] == ']')
            text.replace(number, end - number, "#");
    }
    return text;
}

std::vector<std::string> handler_messages(const std::string& log, const std::string& handler)
{
    // A line is "[pid] [time] [handler][N] message".
    const std::string tag = "] [" + handler + "][#] ";
    std::istringstream lines(without_line_number(log, handler));
    std::vector<std::string> out;
    for (std::string line; std::getline(lines, line);)
        if (size_t at = line.find(tag); at != std::string::npos)
            out.push_back(line.substr(at + 2));
    return out;
}

bool reload_policy(SimRoot& root, const DaemonProcess& daemon, const std::string& text)
{
    const std::string tag = "] [load_caller_policy][";
    auto reads = [&] {
        const std::string log = daemon.debug_log();
        size_t n = 0;
        for (size_t at = log.find(tag); at != std::string::npos; at = log.find(tag, at + 1))
            ++n;
        return n;
    };
    if (!text.empty())
        root.write_file(PATH_CALLER_POLICY, text);
    const size_t before = reads();
    return kill(daemon.pid(), SIGHUP) == 0 && eventually([&] { return reads() > before; }, 5000);
}

namespace {

std::vector<std::string> files_in(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (auto it = fs::directory_iterator(dir, ec); !ec && it != fs::directory_iterator(); it.increment(ec))
        names.push_back(it->path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

void DaemonFixture::SetUp()
{
    root_of_->clear_calls();
    log_seen_ = daemon_of_->debug_log().size();
}

void DaemonFixture::TearDown()
{
    EXPECT_EQ(files_in(captures_of_->path()), std::vector<std::string>{}) << "capture files left behind";
}

std::vector<std::string> DaemonFixture::log_of(const std::string& handler) const
{
    const std::string log = daemon_of_->debug_log();
    return handler_messages(log.substr(std::min(log_seen_, log.size())), handler);
}
