// Session ids and mail, end to end through the daemon on a simulated
// platform: admctl's argument vector and the shapes of its output, sendmail's
// arguments and standard input in both branches, the files a mail leaves in
// the log directory, and the requests refused before anything runs (names
// that are not file names, planted links and foreign files).
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <tuple>
#include <string>
#include <vector>

#include "dv.h"
#include "platform/paths.h"
#include "support/daemon_suite.h"
#include "support/files.h"
#include "support/other_user.h"
#include "support/settle.h"

namespace {

namespace fs = std::filesystem;

const std::string kSessFail = "{\"error_code\":-2,\"error_msg\":\"get_sess_id fail\"}\n";
const std::string kRefused = "{\"result\":-1}\n";

std::string mail_request(const std::string& user, const std::string& pwd, const std::string& conf = "mail.conf",
                         const std::string& content = "mail.txt")
{
    Json::Value req;
    req["user"] = user;
    req["pwd"] = pwd;
    req["config_file"] = conf;
    req["content_file"] = content;
    return Json::FastWriter().write(req);
}

std::string trace_text(const std::string& user, const std::string& pwd, const std::string& conf,
                       const std::string& content, int ret)
{
    return "str_usr=[" + user + "]\nstr_pwd=[" + pwd + "]\nstr_conf_path=[/tmp/vexpro_sendmail/" + conf +
           "]\nstr_content_path=[/tmp/vexpro_sendmail/" + content + "]\nstr_cmd_sendmail=[]\nstr_cmd_rm=[]\nret_val=[" +
           std::to_string(ret) + "]\n";
}

// Everything under dir, as far as a test can tell files apart: type, mode,
// link target or content.
std::map<std::string, std::string> snapshot(const std::string& dir)
{
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        struct stat st;
        const std::string path = it->path().string();
        if (lstat(path.c_str(), &st) != 0)
            continue;
        std::string what = std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + " ";
        if (S_ISLNK(st.st_mode))
            what += fs::read_symlink(it->path()).string();
        else if (S_ISREG(st.st_mode))
            what += read_text_file(path);
        out[path.substr(dir.size())] = what;
    }
    return out;
}

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

class MailSession : public DaemonPerTest {
protected:
    std::string mail(const std::string& request)
    {
        int status = -1;
        std::string reply = daemon_.call_mail("sendmail", request, &status);
        EXPECT_EQ(status, DV_STATUS_OK);
        return reply;
    }
    void spool()
    {
        root_.write_file("/tmp/vexpro_sendmail/mail.conf", "CONF\n");
        root_.write_file("/tmp/vexpro_sendmail/mail.txt", "Subject: hi\n\nbody\n");
    }
};

TEST_F(MailSession, SessionIdIsTheThirdWordOfAdmctlsSecondLine)
{
    // Unsteered: a known user logs in, an unknown one gets admctl's one line.
    const std::string ok = call("get_sess_id", R"({"user": "admin", "pwd": "secret"})");
    EXPECT_EQ(ok.rfind("{\"error_code\":0,\"sid\":\"", 0), 0u) << ok;
    EXPECT_GT(ok.size(), std::string("{\"error_code\":0,\"sid\":\"\"}\n").size());
    EXPECT_EQ(call("get_sess_id", R"({"user": "nobody", "pwd": "secret"})"), kSessFail);
    EXPECT_EQ(argvs(PATH_ADMCTL).at(0), (Argv{"admctl", "-l", "user=admin", "pw=secret"}));

    // Exactly two non-empty lines, the second of exactly three words; the
    // tool's exit status is not looked at.
    const std::string sid = "{\"error_code\":0,\"sid\":\"0a1b2c\"}\n";
    const std::pair<std::string, std::string> shapes[] = {
        {"Login admin OK.\nSession id: 0a1b2c", sid},
        {"Login admin OK.\n\nSession  id: 0a1b2c\n\n", sid},
        {"Session id: 0a1b2c\n", kSessFail},
        {"Login admin OK.\nSession id: 0a1b2c\nmore\n", kSessFail},
        {"Login admin OK.\nSession: 0a1b2c\n", kSessFail},
        {"Login admin OK.\nSession id: 0a1b2c extra\n", kSessFail},
    };
    root_.set_exit(PATH_ADMCTL, 1);
    for (const auto& [output, reply] : shapes) {
        SCOPED_TRACE(output);
        root_.set_output(PATH_ADMCTL, output);
        EXPECT_EQ(call("get_sess_id", R"({"user": "admin", "pwd": "secret"})"), reply);
    }

    // Each credential is cut to fit its 32-byte argument.
    root_.clear_calls();
    call("get_sess_id", "{\"user\": \"" + std::string(40, 'u') + "\", \"pwd\": \"" + std::string(40, 'p') + "\"}");
    EXPECT_EQ(argvs(PATH_ADMCTL),
              (std::vector<Argv>{{"admctl", "-l", "user=" + std::string(26, 'u'), "pw=" + std::string(28, 'p')}}));

    // Input errors run nothing.
    root_.clear_calls();
    EXPECT_EQ(call("get_sess_id", ""), kInputError);
    for (const char* bad : {R"({"user": "admin"})", R"({"user": "admin", "pwd": 1})", "user=admin"})
        EXPECT_EQ(call("get_sess_id", bad), kParseError) << bad;
    EXPECT_TRUE(root_.calls(PATH_ADMCTL).empty());
}

TEST_F(MailSession, AuthenticatedMailFeedsTheConfigurationAndLeavesItsFilesInTheLog)
{
    // A log directory of ours that others could write into is closed to them.
    fs::create_directory(root_.abs("/tmp/.vexpro_log"));
    ASSERT_EQ(chmod(root_.abs("/tmp/.vexpro_log").c_str(), 0777), 0);
    spool();
    EXPECT_EQ(mail(mail_request("alice", "pw 1")), "{\"result\":0}\n");
    // The password deliberately goes in the same -au form as the user.
    EXPECT_EQ(root_.calls(), (std::vector<SimCall>{{PATH_SENDMAIL,
                                                    {"sendmail", "-aualice", "-aupw 1", "-C",
                                                     "/tmp/vexpro_sendmail/mail.conf", "-t"},
                                                    "CONF\n"}}));

    EXPECT_TRUE(fs::is_empty(root_.abs("/tmp/vexpro_sendmail")));
    EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.conf"), "CONF\n");
    EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.content"), "Subject: hi\n\nbody\n");
    EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.log"), "");
    EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.dbg"),
              trace_text("alice", "pw 1", "mail.conf", "mail.txt", 0));
    EXPECT_EQ(snapshot(root_.abs("/tmp/.vexpro_log")).size(), 4u);
    struct stat st;
    ASSERT_EQ(lstat(root_.abs("/tmp/.vexpro_log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    // The trace holds a password.
    ASSERT_EQ(lstat(root_.abs("/tmp/.vexpro_log/sendmail.dbg").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    const std::string log = daemon_.debug_log();
    for (const char* line : {"] exec sendmail start.\n", "] str_content_path=[/tmp/vexpro_sendmail/mail.txt].\n",
                             "] ret_val=[0].\n\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << log;
}

TEST_F(MailSession, UnauthenticatedMailFeedsTheContentAndPassesStatusesThrough)
{
    struct Case {
        std::string user, pwd;
        std::string conf, content;  // "" leaves the spool file out
        int exit_code;              // of the steered sendmail, -1 for none
        std::string reply;
    };
    const Case cases[] = {
        // A user without a password is no login: no -au options.
        {"alice", "", "CONF\n", "To: bob\n\nhi\n", -1, "{\"result\":0}\n"},
        {"", "pw", "CONF\n", "To: bob\n\nhi\n", -1, "{\"result\":0}\n"},
        // sendmail's status comes back raw: 1 is 256.
        {"", "", "CONF\n", "To: bob\n\nhi\n", 1, "{\"result\":256}\n"},
        // No input to feed, or no configuration (which anybody could make
        // before sendmail opens it): nothing starts.
        {"", "", "", "To: bob\n\nhi\n", -1, "{\"result\":-1}\n"},
        {"", "", "CONF\n", "", -1, "{\"result\":-1}\n"},
    };
    const int fds = settled_fd_count(daemon_.pid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.user + "/" + c.pwd + "/" + c.reply);
        root_.clear_calls();
        root_.remove(sim::STEER_DIR);
        if (c.exit_code >= 0)
            root_.set_exit(PATH_SENDMAIL, c.exit_code);
        root_.remove("/tmp/vexpro_sendmail/mail.conf");
        root_.remove("/tmp/vexpro_sendmail/mail.txt");
        if (!c.conf.empty())
            root_.write_file("/tmp/vexpro_sendmail/mail.conf", c.conf);
        if (!c.content.empty())
            root_.write_file("/tmp/vexpro_sendmail/mail.txt", c.content);
        // The last mail's copies are replaced, or left when this one has none.
        root_.write_file("/tmp/.vexpro_log/sendmail.conf", "OLD CONF");
        root_.write_file("/tmp/.vexpro_log/sendmail.content", "OLD CONTENT");

        EXPECT_EQ(mail(mail_request(c.user, c.pwd)), c.reply);
        if (!c.conf.empty() && !c.content.empty()) {
            EXPECT_EQ(root_.calls(PATH_SENDMAIL),
                      (std::vector<SimCall>{
                          {PATH_SENDMAIL, {"sendmail", "-C", "/tmp/vexpro_sendmail/mail.conf", "-t"}, c.content}}));
        } else {
            EXPECT_TRUE(root_.calls(PATH_SENDMAIL).empty());
            EXPECT_FALSE(root_.exists("/tmp/.vexpro_log/sendmail.log"));
        }
        EXPECT_TRUE(fs::is_empty(root_.abs("/tmp/vexpro_sendmail")));
        EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.conf"), c.conf.empty() ? "OLD CONF" : c.conf);
        EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.content"), c.content.empty() ? "OLD CONTENT" : c.content);
        EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.dbg"),
                  trace_text(c.user, c.pwd, "mail.conf", "mail.txt", std::stoi(c.reply.substr(10))));
    }
    EXPECT_EQ(settled_fd_count(daemon_.pid()), fds);

    // sendmail's output and error output both land in sendmail.log.
    root_.remove(sim::STEER_DIR);
    spool();
    root_.set_output(PATH_SENDMAIL, "queued\n");
    root_.set_stderr(PATH_SENDMAIL, "warning\n");
    EXPECT_EQ(mail(mail_request("", "")), "{\"result\":0}\n");
    const std::string log = root_.read_file("/tmp/.vexpro_log/sendmail.log");
    EXPECT_NE(log.find("queued\n"), std::string::npos) << log;
    EXPECT_NE(log.find("warning\n"), std::string::npos) << log;

    // Input errors run and move nothing.
    spool();
    root_.clear_calls();
    EXPECT_EQ(mail(""), kInputError);
    for (const char* bad : {R"({"user": "", "pwd": "", "config_file": "mail.conf"})",
                            R"({"user": 1, "pwd": "", "config_file": "mail.conf", "content_file": "mail.txt"})"})
        EXPECT_EQ(mail(bad), kParseError) << bad;
    EXPECT_TRUE(root_.calls().empty());
    EXPECT_TRUE(root_.exists("/tmp/vexpro_sendmail/mail.conf"));
}

// Every refused mail: nothing runs, and nothing under /tmp changes.
TEST_F(MailSession, MailIsRefusedForPathsAndPlantedFilesWithNothingTouched)
{
    const std::string tmp = root_.abs("/tmp");
    const std::string victim = tmp + "/victim";
    const std::string log_dir = tmp + "/.vexpro_log";
    const std::string spool_dir = tmp + "/vexpro_sendmail";
    struct Case {
        std::string what;
        std::function<void()> plant;
        std::string request;
    };
    std::vector<Case> cases;
    for (const char* name : {"", ".", "..", "../victim", "/tmp/victim"}) {
        cases.push_back({name, [] {}, mail_request("", "", name, "mail.txt")});
        cases.push_back({name, [] {}, mail_request("alice", "pw", "mail.conf", name)});
    }
    auto link_to = [](const std::string& target, const std::string& link) {
        return [=] { ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0) << link; };
    };
    cases.push_back({"spool conf link", link_to(victim, spool_dir + "/e.conf"), mail_request("a", "p", "e.conf")});
    cases.push_back({"spool text link", link_to(victim, spool_dir + "/e"), mail_request("", "", "mail.conf", "e")});
    cases.push_back({"spool fifo", [&] { ASSERT_EQ(mkfifo((spool_dir + "/fifo").c_str(), 0666), 0); },
                     mail_request("", "", "mail.conf", "fifo")});
    cases.push_back({"spool second name", [&] { ASSERT_EQ(link(victim.c_str(), (spool_dir + "/hard").c_str()), 0); },
                     mail_request("", "", "mail.conf", "hard")});
    if (geteuid() == 0)
        cases.push_back({"spool file of another user",
                         [&] { ASSERT_EQ(chown((spool_dir + "/mail.conf").c_str(), 65534, 65534), 0); },
                         mail_request("", "")});
    // Entries of a good log directory that lead elsewhere; a link to nothing
    // yet must not create its target.
    using Maker = int (*)(const char*, const char*);
    const std::tuple<std::string, Maker, std::string> entries[] = {
        {"sendmail.log", symlink, victim},
        {"sendmail.dbg", symlink, victim},
        {"sendmail.dbg", link, victim},
        {"sendmail.log", symlink, tmp + "/n"},
    };
    for (const auto& [entry, make, target] : entries)
        cases.push_back({entry + " to " + target + (make == link ? " (second name)" : ""),
                         [&, entry, make, target] {
                             fs::create_directory(log_dir);
                             fs::permissions(log_dir, fs::perms(0755));
                             ASSERT_EQ(make(target.c_str(), (log_dir + "/" + entry).c_str()), 0);
                         },
                         mail_request("", "")});

    const int fds = settled_fd_count(daemon_.pid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        for (const char* p : {"/tmp/.vexpro_log", "/tmp/vexpro_sendmail"})
            root_.remove(p);
        fs::create_directory(spool_dir);
        fs::permissions(spool_dir, fs::perms(01777));
        spool();
        root_.write_file("/tmp/victim", "precious\n");
        c.plant();
        root_.clear_calls();
        const auto before = snapshot(tmp);
        const size_t refusals = count(daemon_.debug_log(), "; mail refused.\n");

        EXPECT_EQ(mail(c.request), kRefused);
        EXPECT_TRUE(root_.calls().empty());
        EXPECT_EQ(snapshot(tmp), before);
        EXPECT_EQ(count(daemon_.debug_log(), "; mail refused.\n"), refusals + 1);
    }
    // Every refusal path closed what it had opened.
    EXPECT_EQ(settled_fd_count(daemon_.pid()), fds);
}

// On the appliance the app, not root, writes the spool, and may have made the
// spool directory itself; the copies of its last mail are then the app's
// files in our log directory, and links there are replaced, not followed.
TEST_F(MailSession, TheAppsOwnSpoolServesMailAfterMail)
{
    if (!can_switch_user())
        GTEST_SKIP() << "needs root to hand the spool to another user; this test runs as uid " << geteuid();
    ASSERT_TRUE(allow_search(daemon_.socket_dir()));
    // The spare user plays the app's user, whom the policy grants mail.
    ASSERT_TRUE(reload_policy(root_, daemon_,
                              root_.read_file(PATH_CALLER_POLICY) + "[VexProServer_send_mail-vexprod]\n* = uid:65534\n"));
    const std::string spool_dir = root_.abs("/tmp/vexpro_sendmail");
    const std::string log_dir = root_.abs("/tmp/.vexpro_log");
    root_.write_file("/tmp/victim", "precious\n");
    fs::create_directory(log_dir);
    ASSERT_EQ(symlink(root_.abs("/tmp/victim").c_str(), (log_dir + "/sendmail.content").c_str()), 0);
    auto spool_as = [&](uid_t owner, const std::string& text) {
        spool();
        root_.write_file("/tmp/vexpro_sendmail/mail.txt", text);
        for (const char* p : {"", "/mail.conf", "/mail.txt"})
            ASSERT_EQ(chown((spool_dir + p).c_str(), owner, owner), 0) << p;
        ASSERT_EQ(chmod(spool_dir.c_str(), 0755), 0);
    };
    auto mail_as_app = [&] {
        auto reply = run_as(kSpareUid, kSpareGid, [&] { return daemon_.call_mail("sendmail", mail_request("", "")); });
        return reply.value_or("<the spare user's client failed>");
    };
    for (const char* text : {"first\n", "second\n"}) {
        SCOPED_TRACE(text);
        spool_as(kSpareUid, text);
        root_.clear_calls();
        EXPECT_EQ(mail_as_app(), "{\"result\":0}\n");
        ASSERT_EQ(root_.calls().size(), 1u);
        EXPECT_EQ(root_.calls()[0].input, text);
        EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.content"), text);
        EXPECT_TRUE(fs::is_empty(spool_dir));
    }
    EXPECT_EQ(root_.read_file("/tmp/victim"), "precious\n");

    // A spool directory of somebody else is theirs to swap entries in: it
    // is moved aside with what it holds, and this mail has no files.
    spool_as(kSpareUid - 1, "third\n");
    root_.clear_calls();
    EXPECT_EQ(mail_as_app(), kRefused);
    EXPECT_TRUE(root_.calls().empty());
}

// The spool is everybody's: an entry swapped while sendmail runs is not what
// the mail used, and must not end up in our log directory.
TEST_F(MailSession, ASpoolEntrySwappedDuringTheSendGoesBackToTheSpool)
{
    spool();
    root_.write_file("/tmp/victim", "precious\n");
    root_.set_delay_ms(PATH_SENDMAIL, 800);
    auto reply = std::async(std::launch::async, [&] { return mail(mail_request("", "")); });
    ASSERT_TRUE(eventually([&] { return !root_.calls(PATH_SENDMAIL).empty(); }, 5000));
    const std::string entry = root_.abs("/tmp/vexpro_sendmail/mail.txt");
    ASSERT_EQ(unlink(entry.c_str()), 0);
    ASSERT_EQ(symlink(root_.abs("/tmp/victim").c_str(), entry.c_str()), 0);

    EXPECT_EQ(reply.get(), "{\"result\":0}\n");
    EXPECT_EQ(root_.calls(PATH_SENDMAIL)[0].input, "Subject: hi\n\nbody\n");
    EXPECT_TRUE(fs::is_symlink(entry));
    // The daemon made the log directory itself, closed to others.
    struct stat st;
    ASSERT_EQ(lstat(root_.abs("/tmp/.vexpro_log").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 022, 0u);
    EXPECT_EQ(root_.read_file("/tmp/.vexpro_log/sendmail.conf"), "CONF\n");
    EXPECT_FALSE(root_.exists("/tmp/.vexpro_log/sendmail.content"));
    EXPECT_EQ(snapshot(root_.abs("/tmp/.vexpro_log")).size(), 3u);
    EXPECT_EQ(root_.read_file("/tmp/victim"), "precious\n");
    EXPECT_NE(daemon_.debug_log().find(
                  "] /tmp/vexpro_sendmail/mail.txt changed while the mail was sent; left in the spool.\n"),
              std::string::npos);
}

}  // namespace
