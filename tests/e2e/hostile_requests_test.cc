// What a local user who is not root can send or plant to make the daemon
// crash, fill its memory or write what it should not, tried as that user
// against the daemon binary: afterwards the daemon still answers "test"
// within a second, the app's well-formed request beside the attack gets its
// exact reply and runs exactly the tools it should, and SIGTERM still stops
// it within five seconds (the fixture's clean stop).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"
#include "support/files.h"
#include "support/other_user.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

const std::string kTestReply = R"({"handler":"test_handler","service":"VexProServer-vexprod"})" "\n";
const std::string kMailOk = "{\"result\":0}\n";
const std::string kMail = R"({"user":"","pwd":"","config_file":"mail.conf","content_file":"mail.txt"})";
const SimCall kSent = {PATH_SENDMAIL, {"sendmail", "-C", "/tmp/vexpro_sendmail/mail.conf", "-t"}, "To: bob\n\nhi\n"};
const std::vector<SimCall> kBanReloads = {
    {PATH_APACHE_PROXY, {"apache_proxy", "-k", "graceful", "-f", "/etc/apache-sys-proxy.conf"}, std::nullopt},
    {PATH_STUNNEL, {"stunnel.sh", "reload"}, std::nullopt},
};

std::string nested(char open, char close, const std::string& inner, int depth)
{
    std::string text;
    for (int i = 0; i < depth; ++i)
        text += open + inner;
    return text + std::string(depth, close);
}

std::string file_mode(const std::string& path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return "missing";
    char text[32];
    snprintf(text, sizeof(text), "%o %u", static_cast<unsigned>(st.st_mode), static_cast<unsigned>(st.st_uid));
    return text;
}

class HostileRequests : public DaemonPerTest {
protected:
    void SetUp() override
    {
        DaemonPerTest::SetUp();
        if (!can_switch_user())
            GTEST_SKIP() << "the attacks are made as another user: needs root, runs as uid " << geteuid();
        ASSERT_TRUE(allow_search(daemon_.socket_dir()) && allow_search(root_.path()));
        root_.grant_everyone();
        ASSERT_TRUE(reload_policy(root_, daemon_));
    }
    // A request sent by the spare user: the reply it got.
    std::function<std::string()> as_user(const std::string& command, const std::string& request)
    {
        return [=, this] { return daemon_.call(command, request); };
    }
};

TEST_F(HostileRequests, EveryAttackLeavesTheDaemonServingTheAppExactly)
{
    const std::string tmp = root_.abs("/tmp");
    struct Attack {
        const char* what;
        std::function<void()> before;          // as root: the scene the attack finds
        std::function<std::string()> attack;   // as the spare user: what it saw
        std::string seen;
        bool restart;                          // the daemon starts after the attack
        std::string command, request, reply;   // the app's well-formed request ("sendmail": the mail service)
        std::vector<SimCall> runs;
    };
    auto shell = [](const std::string& line) { return [line] { return std::to_string(system(line.c_str())); }; };
    const std::string ban = R"({"ip_list":"10.0.0.1"})";
    const std::string rule =
        R"({"GUID":"%s","port":%s,"des_port":80,"protocol":"http","des_protocol":"%s","host_name":"%s"})";
    auto proxy = [&](const std::string& guid, const std::string& port, const std::string& scheme,
                     const std::string& host) {
        char text[512];
        snprintf(text, sizeof(text), rule.c_str(), guid.c_str(), port.c_str(), scheme.c_str(), host.c_str());
        return std::string(R"({"action":"add","rule_list":[)") + text + "]}";
    };
    const std::string reload = "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n";
    const std::vector<SimCall> proxy_reload = {
        {PATH_REVERSEPROXY, {"reverseproxy_vexpro", "-k", "graceful", "-f", PATH_REVERSEPROXY_CONF}, std::nullopt}};
    root_.write_file(PATH_REVERSEPROXY_PID, "4242\n");
    const std::string web = proxy("web", "8080", "http", "127.0.0.1");
    const std::string ban_fail = failure("nox_update_ip_ban_list_handler");
    const std::string quiet = " 2>/dev/null";
    const std::string swap =
        "echo 'mailhub=evil' >" + tmp + "/x && mv -f " + tmp + "/x " + tmp + "/vexpro_sendmail/mail.conf" + quiet;

    const Attack attacks[] = {
        {"1,001 nested arrays", {}, as_user("update_ip_ban_list", nested('[', ']', "", 1001)), kParseError, false,
         "update_ip_ban_list", ban, kOk, kBanReloads},
        {"nested objects", {}, as_user("reverse_proxy", nested('{', '}', "\"a\":", 200)), kInputError, false,
         "reverse_proxy", web, reload, proxy_reload},
        {"a request past 64 KiB", {}, as_user("update_ip_ban_list", std::string(64 << 10, ' ') + ban), kInputError,
         false, "update_ip_ban_list", ban, kOk, kBanReloads},
        {"ban entry joining the next line", {}, as_user("update_ip_ban_list", R"({"ip_list":"10.0.0.2\\"})"), ban_fail,
         false, "update_ip_ban_list", ban, kOk, kBanReloads},
        {"ban entry denying all", {}, as_user("update_ip_ban_list", R"({"ip_list":"all"})"), ban_fail, false,
         "update_ip_ban_list", ban, kOk, kBanReloads},
        {"proxy to a local socket", {}, as_user("reverse_proxy", proxy("x", "1", "http", "unix:/run/a.sock|http://h")),
         reload, false, "reverse_proxy", web, reload, proxy_reload},
        {"proxy options, quotes, tabs and ports", {},
         as_user("reverse_proxy", proxy("y", "99999", "ws\\t", "h timeout=1\\\"")), reload, false, "reverse_proxy",
         proxy("web", "8080", "ws", "[::1]"), reload, proxy_reload},
        {"mail log made first, found by the next mail", [&] { root_.remove("/tmp/.vexpro_log"); },
         shell("mkdir -m 777 " + tmp + "/.vexpro_log && ln -s /etc/passwd " + tmp + "/.vexpro_log/sendmail.log"),
         "0", false, "sendmail", kMail, kMailOk, {kSent}},
        {"both mail directories made first, found at start",
         [&] {
             root_.remove("/tmp/.vexpro_log");
             root_.remove("/tmp/vexpro_sendmail");
         },
         shell("mkdir -m 777 " + tmp + "/.vexpro_log " + tmp + "/vexpro_sendmail"), "0", true, "sendmail", kMail,
         kMailOk, {kSent}},
        {"the app's configuration swapped in a spool open to all",
         [&] { fs::permissions(tmp + "/vexpro_sendmail", fs::perms::all); }, shell(swap), "0", false, "sendmail", kMail,
         "{\"result\":-1}\n", {}},
        {"a second swap once the spool is sticky", {}, shell(swap), "256", false, "sendmail", kMail, kMailOk, {kSent}},
        // Nothing to plant: a configuration that is missing at the check
        // could be made by anybody before sendmail opens it.
        {"no configuration", [&] { root_.remove("/tmp/vexpro_sendmail/mail.conf"); }, shell("true"), "0", false,
         "sendmail", kMail, "{\"result\":-1}\n", {}},
    };
    for (const Attack& a : attacks) {
        SCOPED_TRACE(a.what);
        const bool mail = a.command == "sendmail";
        if (mail) {
            // The app's files, as it writes them before it calls.
            root_.write_file("/tmp/vexpro_sendmail/mail.conf", "CONF\n");
            root_.write_file("/tmp/vexpro_sendmail/mail.txt", "To: bob\n\nhi\n");
        }
        if (a.restart) {
            ASSERT_EQ(daemon_.stop(), 0);
        }
        if (a.before)
            a.before();
        EXPECT_EQ(run_as(kSpareUid, kSpareGid, a.attack).value_or("<the spare user's client failed>"), a.seen);
        if (a.restart) {
            ASSERT_TRUE(start_daemon(daemon_, captures_)) << daemon_.stderr_text();
        }
        const auto began = steady_clock::now();
        EXPECT_EQ(call("test"), kTestReply);
        EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(1));

        if (mail && !root_.exists("/tmp/vexpro_sendmail/mail.txt")) {
            // Gone with a directory that was moved aside: the app writes them anew.
            root_.write_file("/tmp/vexpro_sendmail/mail.conf", "CONF\n");
            root_.write_file("/tmp/vexpro_sendmail/mail.txt", "To: bob\n\nhi\n");
        }
        root_.clear_calls();
        EXPECT_EQ(mail ? daemon_.call_mail("sendmail", a.request) : call(a.command, a.request), a.reply);
        std::vector<SimCall> runs = root_.calls();
        std::erase_if(runs, [](const SimCall& c) { return c.who == PATH_CONF_GET; });
        EXPECT_EQ(runs, a.runs);
        root_.remove("/tmp/vexpro_sendmail/mail.conf");
        root_.remove("/tmp/vexpro_sendmail/mail.txt");
    }
    // Nothing the attacks named was written, and the mail directories are root's.
    EXPECT_EQ(root_.read_file(PATH_IP_BAN_LIST).find("10.0.0.2"), std::string::npos);
    EXPECT_EQ(root_.read_file(PATH_IP_BAN_LIST).find("deny from all"), std::string::npos);
    for (const char* guid : {"x", "y"})
        EXPECT_FALSE(root_.exists(std::string(PATH_REVERSEPROXY_EXTRA_DIR) + guid + ".conf")) << guid;
    EXPECT_EQ(file_mode(tmp + "/.vexpro_log"), "40755 0");
    EXPECT_EQ(file_mode(tmp + "/vexpro_sendmail"), "41777 0");
    EXPECT_NE(daemon_.debug_log().find("/tmp/.vexpro_log (uid 65534, mode 40777) was not ours; moved aside to "),
              std::string::npos);
}

// Seven callers at once, each with the longest request taken, full of empty
// arrays: memory peaks far below what the parser once took and comes back.
TEST_F(HostileRequests, ParallelLongRequestsKeepMemoryBounded)
{
    auto rss_kib = [&] {
        const std::string status = read_text_file("/proc/" + std::to_string(daemon_.pid()) + "/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    };
    std::string request = "[";
    while (request.size() + 4 < (64 << 10))
        request += "[],";
    request += "[]]";
    const long idle = rss_kib();
    std::vector<std::future<std::string>> calls;
    for (int i = 0; i < 7; ++i)
        calls.push_back(std::async(std::launch::async, [&] { return call("update_ip_ban_list", request); }));
    long peak = idle;
    const auto deadline = steady_clock::now() + std::chrono::seconds(20);
    for (auto& c : calls)
        while (c.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready && steady_clock::now() < deadline)
            peak = std::max(peak, rss_kib());
    for (auto& c : calls)
        EXPECT_EQ(c.get(), kParseError);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // (A sanitizer's daemon keeps freed memory in quarantine and shadow.)
    EXPECT_TRUE(eventually([&] { return rss_kib() <= idle + 2048; }, 2000)) << rss_kib() << " KiB, idle " << idle;
    EXPECT_LT(peak, 32 << 10) << "KiB";
#endif
    // Past the limit a request is not read at all.
    EXPECT_EQ(call("update_ip_ban_list", std::string(1 << 20, ' ') + "{}"), kInputError);
}

}  // namespace
