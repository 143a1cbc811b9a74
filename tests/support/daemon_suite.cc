#include "support/daemon_suite.h"

#include <signal.h>

#include <filesystem>

#include "daemon/strutil.h"
#include "platform/paths.h"

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

bool start_daemon(DaemonProcess& daemon, const TempDir& captures)
{
    ScopedEnv tmpdir("TMPDIR", captures.path().c_str());
    return daemon.start();
}

void expect_clean_stop(DaemonProcess& daemon)
{
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.stderr_text(), "");
}

bool reload_policy(SimRoot& root, const DaemonProcess& daemon, const std::string& text)
{
    auto reads = [&] {
        const std::string log = daemon.debug_log();
        size_t n = 0;
        for (size_t at = 0; (at = log.find("] [load_caller_policy][", at)) != std::string::npos; ++at)
            ++n;
        return n;
    };
    if (!text.empty())
        root.write_file(PATH_CALLER_POLICY, text);
    const size_t before = reads();
    return kill(daemon.pid(), SIGHUP) == 0 && eventually([&] { return reads() > before; }, 5000);
}

void DaemonPerTest::SetUp()
{
    ASSERT_TRUE(start_daemon(daemon_, captures_)) << daemon_.stderr_text();
    root_.clear_calls();
}

void DaemonPerTest::TearDown()
{
    expect_clean_stop(daemon_);
    EXPECT_TRUE(std::filesystem::is_empty(captures_.path())) << "capture files left behind";
}
