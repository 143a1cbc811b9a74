// The IP ban list end to end: the fragment's text byte for byte, the web
// server reloaded before its tunnel, and the requests that must leave the
// file as it was and reload nothing.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

namespace fs = std::filesystem;

const std::string kFail = failure("nox_update_ip_ban_list_handler");
const std::string kHead = "<LocationMatch \"/.*\">\norder allow,deny\n";
const std::string kTail = "allow from all\n</LocationMatch>\n";

class IpBanList : public DaemonPerTest {
protected:
    std::string update(const std::string& ip_list)
    {
        return call("update_ip_ban_list", "{\"ip_list\": " + Json::valueToQuotedString(ip_list.c_str()) + "}");
    }
    // The journal without the registry look-ups.
    std::vector<SimCall> runs() const
    {
        std::vector<SimCall> calls = root_.calls();
        std::erase_if(calls, [](const SimCall& c) { return c.who == PATH_CONF_GET; });
        return calls;
    }
};

TEST_F(IpBanList, WritesOneDenyLinePerPieceThenReloadsTheWebServerBeforeTheTunnel)
{
    const std::vector<SimCall> reloads = {
        {PATH_APACHE_PROXY, {"apache_proxy", "-k", "graceful", "-f", "/etc/apache-sys-proxy.conf"}, std::nullopt},
        {PATH_STUNNEL, {"stunnel.sh", "reload"}, std::nullopt},
    };
    const std::pair<std::string, std::string> lists[] = {
        {"10.0.0.1,10.0.0.2", "deny from 10.0.0.1\ndeny from 10.0.0.2\n"},
        {" 10.0.0.3", "deny from  10.0.0.3\n"},  // blanks are the caller's
        {"", ""},
        {",,10.0.0.4,,10.0.0.4,", "deny from 10.0.0.4\ndeny from 10.0.0.4\n"},  // empty pieces are no address
        {"10.0.0.0/8,::1,2001:db8::/32 ", "deny from 10.0.0.0/8\ndeny from ::1\ndeny from 2001:db8::/32 \n"},
    };
    for (const auto& [list, denies] : lists) {
        SCOPED_TRACE(list);
        root_.clear_calls();
        EXPECT_EQ(update(list), kOk);
        EXPECT_EQ(root_.read_file(PATH_IP_BAN_LIST), kHead + denies + kTail);
        EXPECT_EQ(runs(), reloads);
    }
    // A reload that fails is not the caller's failure: the list is written.
    root_.set_exit(PATH_APACHE_PROXY, 1);
    root_.set_exit(PATH_STUNNEL, 3);
    root_.clear_calls();
    EXPECT_EQ(update("10.0.0.5"), kOk);
    EXPECT_EQ(root_.read_file(PATH_IP_BAN_LIST), kHead + "deny from 10.0.0.5\n" + kTail);
    EXPECT_EQ(runs().size(), 2u);
}

TEST_F(IpBanList, BadRequestsAndUnwritableFilesLeaveTheListAndReloadNothing)
{
    const std::string dir = root_.abs("/etc/default_config/apache/extra");
    auto listing = [&] {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    };
    const std::string previous = kHead + "deny from 10.0.0.9\n" + kTail;
    root_.write_file(PATH_IP_BAN_LIST, previous);
    const std::vector<std::string> names = listing();

    // Only addresses and ranges: a line break or a trailing backslash would
    // start or join a directive of the caller's, a word could deny everyone.
    for (const char* list : {"10.0.0.1\nAllow from all", "10.0.0.1,\r", "10.0.0.2\\", "all", "10.0.0.1\t", "10.1",
                             "10.0.0.0/33", "10.0.0.0/", "::1/129", "fe80::1%eth0", " ", "10.0.0.1 10.0.0.2"})
        EXPECT_EQ(update(list), kFail) << list;
    EXPECT_EQ(call("update_ip_ban_list", ""), kInputError);
    for (const char* bad : {"{}", R"({"ip_list": 5})", R"({"ip": "10.0.0.1"})"})
        EXPECT_EQ(call("update_ip_ban_list", bad), kParseError) << bad;
    EXPECT_EQ(root_.read_file(PATH_IP_BAN_LIST), previous);
    EXPECT_EQ(listing(), names);
    EXPECT_TRUE(root_.calls().empty());

    // A directory in the file's place, then no directory at all: the failure
    // reply and no reload.
    root_.remove(PATH_IP_BAN_LIST);
    fs::create_directory(root_.abs(PATH_IP_BAN_LIST));
    EXPECT_EQ(update("10.0.0.1"), kFail);
    root_.remove("/etc/default_config/apache/extra");
    EXPECT_EQ(update("10.0.0.1"), kFail);
    EXPECT_TRUE(runs().empty());
}

}  // namespace
