// The IP ban list end to end through the daemon on a simulated platform: the
// fragment's text byte for byte, the reload of the web server before its
// tunnel, and the requests that must leave the file as it was and reload
// nothing.
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
const std::vector<SimCall> kReloads = {
    {PATH_APACHE_PROXY, {"apache_proxy", "-k", "graceful", "-f", "/etc/apache-sys-proxy.conf"}, std::nullopt},
    {PATH_STUNNEL, {"stunnel.sh", "reload"}, std::nullopt},
};

std::string request(const std::string& ip_list)
{
    return "{\"ip_list\": " + Json::valueToQuotedString(ip_list.c_str()) + "}";
}

std::vector<std::string> listing(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class IpBanList : public DaemonPerTest {
protected:
    std::string call(const std::string& json) { return DaemonPerTest::call("update_ip_ban_list", json); }
    std::string ban_list() const { return root_.read_file(PATH_IP_BAN_LIST); }

};

TEST_F(IpBanList, WritesOneDenyLinePerPieceThenReloadsTheWebServerBeforeTheTunnel)
{
    const std::pair<std::string, std::string> lists[] = {
        {"10.0.0.1,10.0.0.2", "deny from 10.0.0.1\ndeny from 10.0.0.2\n"},
        // Blanks are the caller's: kept as written.
        {" 10.0.0.3", "deny from  10.0.0.3\n"},
        // Empty pieces are no addresses; the others stay in order, repeats too.
        {"", ""},
        {",,10.0.0.4,,10.0.0.4,", "deny from 10.0.0.4\ndeny from 10.0.0.4\n"},
        {"not-an-address", "deny from not-an-address\n"},
    };
    for (const auto& [list, denies] : lists) {
        SCOPED_TRACE(list);
        root_.clear_calls();
        EXPECT_EQ(call(request(list)), kOk);
        EXPECT_EQ(ban_list(), kHead + denies + kTail);
        std::vector<SimCall> calls = root_.calls();
        std::erase_if(calls, [](const SimCall& c) { return c.who == PATH_CONF_GET; });
        EXPECT_EQ(calls, kReloads);
    }

    // A reload that fails is not the caller's failure: the list is written.
    root_.set_exit(PATH_APACHE_PROXY, 1);
    root_.set_exit(PATH_STUNNEL, 3);
    root_.clear_calls();
    EXPECT_EQ(call(request("10.0.0.5")), kOk);
    EXPECT_EQ(ban_list(), kHead + "deny from 10.0.0.5\n" + kTail);
    EXPECT_EQ(root_.calls().size(), 2u);
}

TEST_F(IpBanList, BadRequestsAndUnwritableFilesLeaveTheListAndReloadNothing)
{
    const std::string dir = root_.abs("/etc/default_config/apache/extra");
    const std::string previous = kHead + "deny from 10.0.0.9\n" + kTail;
    root_.write_file(PATH_IP_BAN_LIST, previous);
    const std::vector<std::string> names = listing(dir);

    // A line break would end the deny line and start a directive of the
    // caller's making.
    for (const char* list : {"10.0.0.1\nAllow from all", "10.0.0.1,\r", "\n", "10.0.0.1,10.0.0.2\r\n"})
        EXPECT_EQ(call(request(list)), kFail) << list;
    EXPECT_EQ(call(""), "{\"error_code\":-1,\"error_msg\":\"input error\"}\n");
    for (const char* bad : {"{}", R"({"ip_list": 5})", R"({"ip_list": ["10.0.0.1"]})", R"({"ip": "10.0.0.1"})"})
        EXPECT_EQ(call(bad), "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n") << bad;
    EXPECT_EQ(ban_list(), previous);
    EXPECT_EQ(listing(dir), names);
    EXPECT_TRUE(root_.calls().empty());

    // A file that cannot be opened for writing (a directory in its place, no
    // directory at all): the failure reply and no reload.
    root_.remove(PATH_IP_BAN_LIST);
    fs::create_directory(root_.abs(PATH_IP_BAN_LIST));
    EXPECT_EQ(call(request("10.0.0.1")), kFail);
    root_.remove("/etc/default_config/apache/extra");
    EXPECT_EQ(call(request("10.0.0.1")), kFail);
    std::vector<SimCall> calls = root_.calls();
    std::erase_if(calls, [](const SimCall& c) { return c.who == PATH_CONF_GET; });
    EXPECT_TRUE(calls.empty());
}

}  // namespace
