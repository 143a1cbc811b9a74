// The reverse proxy through the daemon program: the per-rule virtual hosts
// byte for byte, deleting, start versus graceful reload, the reply, the
// requests that get no reply, and GUIDs and values that must never reach a
// file outside extra/ or a directive of their own.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "dv.h"
#include "platform/paths.h"
#include "platform/sim/simlib.h"
#include "support/daemon_suite.h"

namespace {

namespace fs = std::filesystem;

const std::string kExtra = PATH_REVERSEPROXY_EXTRA_DIR;
const std::string kQuotedStart =
    "\"/usr/sbin/reverseproxy_vexpro -k start -f /etc/reverseproxy_vexpro/reverseproxy-vexpro.conf\"";
const Argv kStartArgv = {"daemon_mgr", "reverseproxy_vexpro", "start", kQuotedStart};
const Argv kReloadArgv = {"reverseproxy_vexpro", "-k", "graceful", "-f", PATH_REVERSEPROXY_CONF};

std::string success(const std::string& output)
{
    return "{\"cli_ret\":0,\"result\":0,\"result_out\":\"" + encode_base64(output) + "\"}\n";
}

// Every path under dir, relative to it; directories end in '/'.
std::set<std::string> tree(const std::string& dir)
{
    std::set<std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        std::string rel = it->path().lexically_relative(dir).string();
        out.insert(it->is_directory() && !it->is_symlink() ? rel + "/" : rel);
    }
    return out;
}

// One daemon for the suite; every test starts with the proxy running (the
// pid file present), an empty extra/ directory and no chain file.
class ReverseProxy : public DaemonPerSuite<ReverseProxy> {
protected:
    void SetUp() override
    {
        DaemonPerSuite::SetUp();
        root_->remove(kExtra);
        fs::create_directories(root_->abs(kExtra));
        root_->remove(PATH_UCA_PEM);
        root_->write_file(PATH_REVERSEPROXY_PID, "4242\n");
    }

    std::string call(const std::string& request, int* status = nullptr)
    {
        return DaemonPerSuite::call("reverse_proxy", request, status);
    }
    std::set<std::string> extra_files() const { return tree(root_->abs(kExtra)); }
    std::string rule_text(const std::string& guid) const { return root_->read_file(kExtra + guid + ".conf"); }
};

const std::string kTail = "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n"
                          "\tProxyPreserveHost on\n";
const std::string kTls = "\tSSLEngine on\n"
                         "\tSSLCipherSuite EECDH+CHACHA20:EECDH+AES\n"
                         "\tAll -SSLv2 -SSLv3 -TLSv1 -TLSv1.1\n"
                         "\tSSLCertificateFile \"/etc/stunnel/stunnel.pem\"\n";
const std::string kChain = "\tSSLCertificateChainFile \"/etc/stunnel/uca.pem\"\n";
const std::string kHsts = "\tHeader set Strict-Transport-Security \"max-age=63072000\"\n";
const std::string kSslProxy = "\tSSLProxyEngine on\n\tSSLProxyVerify none\n\tSSLProxyCheckPeerCN off\n"
                              "\tSSLProxyCheckPeerName off\n\tSSLProxyCheckPeerExpire off\n";

std::string proxy_lines(const std::string& target)
{
    return "\tProxyPass / " + target + " connectiontimeout=60 timeout=60\n\tProxyPassReverse / " + target +
           "\n</VirtualHost>\n";
}

TEST_F(ReverseProxy, WritesEachKindOfRuleByteForByteAndDeletesOnlyTheNamedFiles)
{
    struct Case {
        const char* name;
        const char* rule;
        bool chain_file;
        std::string text;
    };
    const Case cases[] = {
        {"http", R"({"GUID":"web","port":8081,"des_port":80,"protocol":"http","des_protocol":"http",
                     "hsts":false,"host_name":"127.0.0.1","proxy_timeout":5})",
         false, "Listen 8081\n<VirtualHost *:8081>\n" + kTail + proxy_lines("http://127.0.0.1:80/")},
        {"https without hsts", R"({"GUID":"tls","port":8443,"des_port":8080,"protocol":"https",
                                   "des_protocol":"http","hsts":false,"host_name":"nvr.local"})",
         false, "Listen 8443\n<VirtualHost *:8443>\n" + kTls + kHsts + kTail + proxy_lines("http://nvr.local:8080/")},
        {"https with hsts", R"({"GUID":"tls","port":8443,"des_port":8080,"protocol":"https",
                                "des_protocol":"http","hsts":true,"host_name":"nvr.local"})",
         false, "Listen 8443\n<VirtualHost *:8443>\n" + kTls + kTail + proxy_lines("http://nvr.local:8080/")},
        {"https to https with chain and hsts", R"({"GUID":"both","port":443,"des_port":9443,"protocol":"https",
                                                  "des_protocol":"https","hsts":true,"host_name":"10.0.0.7"})",
         true,
         "Listen 443\n<VirtualHost *:443>\n" + kTls + kChain + kSslProxy + kTail +
             proxy_lines("https://10.0.0.7:9443/")},
        {"wss behind http", R"({"GUID":"live","port":8090,"des_port":7001,"protocol":"http",
                                "des_protocol":"wss","host_name":"127.0.0.1","proxy_timeout":300})",
         false, "Listen 8090\n<VirtualHost *:8090>\n" + kSslProxy + kTail + proxy_lines("wss://127.0.0.1:7001/")},
        {"ws to an IPv6 host at the port limits",
         R"({"GUID":"bare","port":1,"des_port":65535,"protocol":"http","des_protocol":"ws","host_name":"[::1]"})",
         false, "Listen 1\n<VirtualHost *:1>\n" + kTail + proxy_lines("ws://[::1]:65535/")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.chain_file)
            root_->write_file(PATH_UCA_PEM, "chain\n");
        else
            root_->remove(PATH_UCA_PEM);
        root_->clear_calls();
        EXPECT_EQ(call(std::string(R"({"action":"add","rule_list":[)") + c.rule + "]}"), success(""));
        Json::Value rule;
        ASSERT_TRUE(Json::Reader().parse(c.rule, rule));
        EXPECT_EQ(rule_text(rule["GUID"].asString()), c.text);
        EXPECT_EQ(argvs(PATH_REVERSEPROXY), std::vector<Argv>{kReloadArgv});
        EXPECT_EQ(argvs(PATH_DAEMON_MGR), std::vector<Argv>{});
    }
    // Rewriting a rule replaces its file rather than appending to it.
    EXPECT_EQ(extra_files(), (std::set<std::string>{"web.conf", "tls.conf", "both.conf", "live.conf", "bare.conf"}));

    // A delete removes only the named files and always reloads, never starts;
    // a GUID without a file, an empty one and a missing one are passed over.
    root_->clear_calls();
    EXPECT_EQ(call(R"({"action":"delete","rule_list":[{"GUID":"tls","port":"not read"},{"GUID":"gone"},
                                                      {"GUID":""},{}]})"),
              success(""));
    EXPECT_EQ(extra_files(), (std::set<std::string>{"web.conf", "both.conf", "live.conf", "bare.conf"}));
    EXPECT_EQ(argvs(PATH_REVERSEPROXY), std::vector<Argv>{kReloadArgv});
    EXPECT_EQ(argvs(PATH_DAEMON_MGR), std::vector<Argv>{});
    std::string log = daemon_->debug_log();
    EXPECT_NE(log.find("] get jRuleList[2] strGUID failed\n"), std::string::npos);
    EXPECT_NE(log.find("] get jRuleList[3] strGUID failed\n"), std::string::npos);
}

TEST_F(ReverseProxy, StartsWhenThereIsNoPidFileAndReloadsOtherwise)
{
    root_->remove(PATH_REVERSEPROXY_PID);
    // Even an add with nothing in it brings the proxy up, the manager
    // running the unquoted command line.
    EXPECT_EQ(call(R"({"action":"add","rule_list":[]})"), success("daemon_mgr: reverseproxy_vexpro start OK\n"));
    EXPECT_EQ(argvs(PATH_DAEMON_MGR), std::vector<Argv>{kStartArgv});
    EXPECT_EQ(argvs(PATH_REVERSEPROXY),
              (std::vector<Argv>{{"reverseproxy_vexpro", "-k", "start", "-f", PATH_REVERSEPROXY_CONF}}));
    EXPECT_TRUE(root_->exists(PATH_REVERSEPROXY_PID));
    EXPECT_TRUE(extra_files().empty());
    std::string log = daemon_->debug_log();
    EXPECT_NE(log.find("] proxy_cmd = " + kQuotedStart + "\n"), std::string::npos);
    EXPECT_NE(log.find("] argv[4] = [(null)] \n"), std::string::npos);

    // Now it runs: the next add (no rule_list at all) reloads it, and the
    // reply carries the tool's output whatever its bytes.
    root_->clear_calls();
    const std::string printed = "graceful restart\n\xff binary \x01 bytes\n";
    root_->set_output(PATH_REVERSEPROXY, printed);
    EXPECT_EQ(call(R"({"action":"add"})"), success(printed));
    EXPECT_EQ(argvs(PATH_DAEMON_MGR), std::vector<Argv>{});
    EXPECT_EQ(argvs(PATH_REVERSEPROXY), std::vector<Argv>{kReloadArgv});

    // A delete reloads even when the proxy is down.
    root_->remove(sim::STEER_DIR);
    root_->remove(PATH_REVERSEPROXY_PID);
    root_->clear_calls();
    EXPECT_EQ(call(R"({"action":"delete","rule_list":[]})"), success("httpd not running, trying to start\n"));
    EXPECT_EQ(argvs(PATH_DAEMON_MGR), std::vector<Argv>{});
    EXPECT_EQ(argvs(PATH_REVERSEPROXY), std::vector<Argv>{kReloadArgv});
}

// No reply at all, and soon; the daemon none the worse for it, and every
// path closes what it opened.
TEST_F(ReverseProxy, UnknownActionsAndFailingToolsCloseTheConnectionWithoutAReply)
{
    call(R"({"action":"add","rule_list":[]})");
    const int fds = settled_fd_count(daemon_->pid());
    struct Case {
        const char* name;
        const char* request;
        const char* failing_program;  // steered to exit 1, or null
        bool pid_file;
    };
    const Case cases[] = {
        {"unknown action", R"({"action":"modify","rule_list":[{"GUID":"x","port":1}]})", nullptr, true},
        {"action in capitals", R"({"action":"ADD","rule_list":[{"GUID":"x","port":1}]})", nullptr, true},
        {"no action", R"({"rule_list":[{"GUID":"x","port":1}]})", nullptr, true},
        {"reload fails", R"({"action":"add","rule_list":[{"GUID":"x","port":1}]})", PATH_REVERSEPROXY, true},
        {"start fails", R"({"action":"add","rule_list":[]})", PATH_DAEMON_MGR, false},
        {"delete fails", R"({"action":"delete","rule_list":[{"GUID":"x"}]})", PATH_REVERSEPROXY, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        root_->remove(sim::STEER_DIR);
        if (c.failing_program)
            root_->set_exit(c.failing_program, 1);
        if (!c.pid_file)
            root_->remove(PATH_REVERSEPROXY_PID);
        root_->clear_calls();
        int status = -1;
        auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(call(c.request, &status), "");
        EXPECT_EQ(status, DV_STATUS_SOCKET);
        EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(3));
        if (!c.failing_program) {
            EXPECT_TRUE(root_->calls().empty());
            EXPECT_TRUE(extra_files().empty());
        }
    }
    std::string log = daemon_->debug_log();
    EXPECT_NE(log.find("] unknown action = modify\n"), std::string::npos);
    EXPECT_NE(log.find("] exec /usr/sbin/reverseproxy_vexpro failed, ret=[256]\n"), std::string::npos);
    EXPECT_NE(log.find("] exec /sbin/daemon_mgr failed, ret=[256]\n"), std::string::npos);
    root_->remove(sim::STEER_DIR);
    root_->write_file(PATH_REVERSEPROXY_PID, "4242\n");
    EXPECT_EQ(call(R"({"action":"add","rule_list":[]})"), success(""));
    EXPECT_EQ(settled_fd_count(daemon_->pid()), fds);
}

TEST_F(ReverseProxy, BadRequestsAreInputErrors)
{
    const char* requests[] = {
        "{\"action\":\"add\",",                     // not JSON
        "",                                         // no text at all
        R"(["add"])",                               // JSON, but not an object
        R"({"action":{"add":1}})",                  // an action that is not text
        R"({"action":"add","rule_list":"web"})",    // a list that is not a list
    };
    for (const char* request : requests)
        EXPECT_EQ(call(request), kInputError) << request;
    EXPECT_TRUE(root_->calls().empty());
    std::string log = daemon_->debug_log();
    EXPECT_NE(log.find("] parse strInputArg failed, error=[* Line 1, Column"), std::string::npos);
    EXPECT_NE(log.find("] parse strInputArg failed, error=[rule_list is not an array]\n"), std::string::npos);
}

TEST_F(ReverseProxy, NoGuidOrValueReachesBeyondItsOwnFileAndLine)
{
    // Files a traversing GUID would reach, and one planted link.
    root_->write_file("/etc/reverseproxy_vexpro/victim.conf", "precious\n");
    ASSERT_EQ(symlink(root_->abs("/etc/reverseproxy_vexpro/victim.conf").c_str(),
                      root_->abs(kExtra + "planted.conf").c_str()),
              0);
    const std::set<std::string> before = tree(root_->path());
    const int fds = settled_fd_count(daemon_->pid());

    const std::string rules = R"([
        {"GUID":"../victim","port":1,"host_name":"x"},
        {"GUID":"../reverseproxy-vexpro","port":1},
        {"GUID":"../../../escape","port":1},
        {"GUID":"sub/dir","port":1},
        {"GUID":"..","port":1},
        {"GUID":".","port":1},
        {"GUID":"line\nbreak","port":1},
        {"GUID":"nul\u0000byte","port":1},
        {"GUID":"host","port":1,"host_name":"x/ retry=0\n\tProxyPass /admin http://10.0.0.1"},
        {"GUID":"proto","port":1,"protocol":"https\r\n\tSSLEngine off"},
        {"GUID":"desproto","port":1,"des_protocol":"http\r"},
        {"GUID":"sock","port":1,"des_port":1,"protocol":"http","des_protocol":"http",
         "host_name":"unix:/run/docker.sock|http://127.0.0.1"},
        {"GUID":"opt","port":1,"des_port":1,"protocol":"http","des_protocol":"http","host_name":"h timeout=1"},
        {"GUID":"quote","port":1,"des_port":1,"protocol":"http","des_protocol":"http","host_name":"\"h"},
        {"GUID":"tab","port":1,"des_port":1,"protocol":"http\t","des_protocol":"http","host_name":"h"},
        {"GUID":"zone","port":1,"des_port":1,"protocol":"http","des_protocol":"ws","host_name":"[fe80::1%eth0]"},
        {"GUID":"bare6","port":1,"des_port":1,"protocol":"http","des_protocol":"ws","host_name":"::1"},
        {"GUID":"dash","port":1,"des_port":1,"protocol":"http","des_protocol":"ws","host_name":"-h.local"},
        {"GUID":"low","port":-1,"des_port":1,"protocol":"http","des_protocol":"http","host_name":"h"},
        {"GUID":"high","port":1,"des_port":99999,"protocol":"http","des_protocol":"http","host_name":"h"},
        {"GUID":"defaults","des_protocol":"ws"},
        {"GUID":"typed","port":"8080"},
        7,
        {"GUID":"planted","port":8000,"host_name":"127.0.0.1","protocol":"http","des_protocol":"http","des_port":80},
        {"GUID":"fine","port":8001,"host_name":"127.0.0.1","protocol":"http","des_protocol":"http","des_port":81}
    ])";
    EXPECT_EQ(call(R"({"action":"add","rule_list":)" + rules + "}"), success(""));

    // Only the two good rules were written; the planted link was replaced,
    // not followed.
    EXPECT_EQ(extra_files(), (std::set<std::string>{"planted.conf", "fine.conf"}));
    EXPECT_FALSE(fs::is_symlink(root_->abs(kExtra + "planted.conf")));
    EXPECT_EQ(rule_text("planted"),
              "Listen 8000\n<VirtualHost *:8000>\n" + kTail + proxy_lines("http://127.0.0.1:80/"));
    EXPECT_EQ(root_->read_file("/etc/reverseproxy_vexpro/victim.conf"), "precious\n");
    // fine.conf is the only new path anywhere in the root.
    std::set<std::string> expected = before;
    expected.insert("etc/reverseproxy_vexpro/extra/fine.conf");
    EXPECT_EQ(tree(root_->path()), expected);

    // Deleting with the same GUIDs removes nothing outside extra/ either.
    EXPECT_EQ(call(R"({"action":"delete","rule_list":)" + rules + "}"), success(""));
    EXPECT_TRUE(extra_files().empty());
    EXPECT_EQ(root_->read_file("/etc/reverseproxy_vexpro/victim.conf"), "precious\n");
    EXPECT_TRUE(root_->exists(PATH_REVERSEPROXY_CONF));
    expected = before;
    expected.erase("etc/reverseproxy_vexpro/extra/planted.conf");
    EXPECT_EQ(tree(root_->path()), expected);

    std::string log = daemon_->debug_log();
    for (int index : {0, 1, 2, 3, 4, 5, 6, 7})
        EXPECT_NE(log.find("] get jRuleList[" + std::to_string(index) + "] strGUID failed\n"), std::string::npos)
            << index;
    // A value that is not one of those its field can mean is named.
    const char* fields[] = {"protocol", "protocol", "protocol", "host_name", "host_name", "host_name", "protocol",
                            "host_name", "host_name", "host_name", "port", "des_port", "protocol"};
    for (int index = 8; index <= 20; ++index)
        EXPECT_NE(log.find("] get jRuleList[" + std::to_string(index) + "] " + fields[index - 8] + " failed\n"),
                  std::string::npos)
            << index;
    EXPECT_NE(log.find("] jRuleList[21].port is not a 32-bit integer, skipped\n"), std::string::npos);
    EXPECT_NE(log.find("] jRuleList[22] is not an object, skipped\n"), std::string::npos);
    EXPECT_EQ(settled_fd_count(daemon_->pid()), fds);
}

}  // namespace
