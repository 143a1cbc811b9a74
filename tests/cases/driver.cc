// Runs case files (tests/cases/*.cases, format in tests/cases/README.md)
// against the daemon binary on a simulated root: one daemon per file, each
// row's reply, journal, files and log lines compared exactly, and at the end
// a clean stop with the daemon's descriptor count where it began.
//   driver FILE...             the files in turn, as one test
//   driver --coverage FILE...  every command of both tables has a case
#include "daemon/command_table.h"
#include "daemon/json.h"
#include "daemon/strutil.h"
#include "handlers/registry.h"
#include "platform/paths.h"

#include "support/suite.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> g_files;
bool g_coverage = false;

struct Line {
    int no;
    std::string text;
};

std::vector<std::vector<Line>> paragraphs(const std::string& file)
{
    std::ifstream in(file);
    std::vector<std::vector<Line>> out(1);
    std::string text;
    for (int no = 1; std::getline(in, text); ++no) {
        if (text.empty())
            out.emplace_back();
        else if (text[0] != '#')
            out.back().push_back({no, text});
    }
    std::erase_if(out, [](const auto& p) { return p.empty(); });
    return out;
}

// C escapes: \n \t \r \0 \\ \" \xHH.
std::string unescape(const std::string& s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        char c = s[++i];
        if (c == 'x')
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16)), i += 2;
        else
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c == '0' ? '\0' : c;
    }
    return out;
}

// A "quoted text", unescaped.
std::string text_arg(const std::string& s)
{
    size_t end = 1;
    while (end < s.size() && s[end] != '"')
        end += s[end] == '\\' ? 2 : 1;
    if (s.empty() || s[0] != '"' || end >= s.size())
        throw std::runtime_error("expected a quoted text: " + s);
    return unescape(s.substr(1, end - 1));
}

std::pair<std::string, std::string> word(const std::string& s)
{
    size_t sp = s.find(' ');
    return {s.substr(0, sp), sp == std::string::npos ? "" : s.substr(sp + 1)};
}

std::string listing(const std::string& dir)
{
    std::set<std::string> names;
    std::error_code ec;
    for (auto it = fs::directory_iterator(dir, ec); !ec && it != fs::directory_iterator(); it.increment(ec))
        names.insert(it->path().filename().string());
    std::string out;
    for (const std::string& n : names)
        out += (out.empty() ? "" : " ") + n;
    return out;
}

std::string json_text(const Json::Value& v)
{
    std::string s = json_write(v);
    s.pop_back();
    return s;
}

void need(bool ok)
{
    if (!ok)
        throw std::runtime_error(strerror(errno));
}

class CaseFile {
public:
    explicit CaseFile(std::string file) : file_(std::move(file)) {}

    void run()
    {
        ScopedEnv no_permission("APPBOXD", nullptr);
        policy_ = root_.read_file(PATH_CALLER_POLICY);
        start();
        for (const auto& p : paragraphs(file_)) {
            begin_case();
            for (const Line& l : p) {
                line_ = l.no;
                try {
                    step(l.text);
                } catch (const std::exception& e) {
                    fail("cannot run \"" + l.text + "\": " + e.what());
                }
            }
            check_journal();
            if (!replies_.empty())
                fail("calls without a \"<\" line"), replies_.clear();
            expect("capture files left behind", "", listing(captures_.path()));
            if (fds_ < 0 && daemon_)
                fds_ = settled_fd_count(daemon_->pid());
        }
        stop();
    }

private:
    void fail(const std::string& what) const { ADD_FAILURE_AT(file_.c_str(), line_) << what; }
    void expect(const std::string& what, const std::string& want, const std::string& got) const
    {
        if (want != got)
            fail(what + "\n  want: " + json_text(want) + "\n  got:  " + json_text(got));
    }

    void start()
    {
        // Started as a careless start script would, with a descriptor of its
        // own left open that no program the daemon runs may see.
        int stray = open("/dev/null", O_RDONLY);
        daemon_ = std::make_unique<DaemonProcess>(root_);
        bool started = start_daemon(*daemon_, captures_);
        close(stray);
        if (!started || !allow_search(daemon_->socket_dir()) || !allow_search(root_.path()))
            throw std::runtime_error("the daemon did not start: " + daemon_->stderr_text());
        fds_ = -1;
    }
    void stop()
    {
        if (!daemon_)
            return;
        if (fds_ >= 0)
            expect("descriptors open", std::to_string(fds_), std::to_string(settled_fd_count(daemon_->pid())));
        expect_clean_stop(*daemon_);
        daemon_.reset();
    }

    void begin_case()
    {
        root_.remove(sim::STEER_DIR);
        root_.clear_calls();
        log_mark_ = daemon_ ? daemon_->debug_log().size() : 0;
        uid_ = 0;
        journal_.clear();
    }

    // %ROOT% is the root's host path; <<N*TEXT>> TEXT N times, <<b64 TEXT>>
    // its base64, <<TEXT>> TEXT with C escapes.
    std::string expand(std::string s) const
    {
        for (size_t at; (at = s.find("%ROOT%")) != std::string::npos;)
            s.replace(at, 6, root_.path());
        std::string out;
        size_t at = 0;
        for (size_t open, close; (open = s.find("<<", at)) != std::string::npos &&
                                 (close = s.find(">>", open + 2)) != std::string::npos;
             at = close + 2) {
            out += s.substr(at, open - at);
            std::string inner = s.substr(open + 2, close - open - 2);
            size_t star = inner.find_first_not_of("0123456789");
            if (std::string b64; inner.rfind("b64 ", 0) == 0)
                base64_encode(unescape(inner.substr(4)), b64), out += b64;
            else if (star > 0 && star != std::string::npos && inner[star] == '*')
                for (int n = std::stoi(inner); n > 0; --n)
                    out += unescape(inner.substr(star + 1));
            else
                out += unescape(inner);
        }
        return out + s.substr(at);
    }
    std::string path(const std::string& p) const { return root_.abs(expand(p)); }
    // A path in the root, or one on the host written "host:/bin/sh".
    std::string source(const std::string& p) const { return p.rfind("host:", 0) == 0 ? p.substr(5) : path(p); }

    void step(const std::string& text)
    {
        auto [verb, rest] = word(text);
        auto [a, b] = word(rest);
        if (verb != "$")
            check_journal();
        auto mode = [&] { return std::stoi(b, nullptr, 8); };
        const std::map<std::string, std::function<void()>> verbs = {
            {"<", [&] { check_replies(rest); }},
            {"$", [&] { journal_.push_back(rest); }},
            {"=", [&] { check_file(a, b); }},
            {"exit", [&] { root_.set_exit(a, std::stoi(b)); }},
            {"out", [&] { root_.set_output(a, expand(text_arg(b))); }},
            {"err", [&] { root_.set_stderr(a, text_arg(b)); }},
            {"write", [&] { root_.write_file(expand(a), expand(text_arg(b))); }},
            {"rm", [&] { root_.remove(expand(rest)); }},
            {"add", [&] { root_.add_program(rest); }},
            {"mkdir", [&] { fs::create_directories(path(a)), need(b.empty() || chmod(path(a).c_str(), mode()) == 0); }},
            {"chmod", [&] { need(chmod(path(a).c_str(), mode()) == 0); }},
            {"chown", [&] { need(lchown(path(a).c_str(), std::stoi(b), std::stoi(b)) == 0); }},
            {"ln", [&] { fs::create_symlink(source(a), path(b)); }},
            {"hardln", [&] { fs::create_hard_link(path(a), path(b)); }},
            {"mkfifo", [&] { need(mkfifo(path(rest).c_str(), 0666) == 0); }},
            {"cp", [&] { fs::copy_file(source(a), path(b), fs::copy_options::overwrite_existing); }},
            // A fresh root, so a fresh daemon (its log was in the old one).
            {"reset", [&] { stop(), root_.reset(), start(), begin_case(); }},
            {"hide", [&] { hidden_.insert(rest); }},
            {"as", [&] { uid_ = rest == "nobody" ? kSpareUid : rest == "root" ? 0 : std::stoi(rest); }},
            {"policy", [&] { need(reload_policy(root_, *daemon_, rest.empty() ? "" : policy_ + text_arg(rest))); }},
            {"plant", [&] { plant(std::stoi(a), b == "root"); }},
            {"stop", [&] { stop(); }},
            {"start", [&] {  // start [NAME=VALUE]: with that in its environment
                 std::optional<ScopedEnv> env;
                 if (size_t eq = rest.find('='); eq != std::string::npos)
                     env.emplace(rest.substr(0, eq).c_str(), rest.c_str() + eq + 1);
                 start(), root_.clear_calls();
             }},
        };
        if (verb[0] == '>')
            call(verb.substr(1), rest);
        else if (verb[0] == '~')
            check_log(verb.substr(1), rest);
        else if (auto it = verbs.find(verb); it != verbs.end())
            it->second();
        else
            throw std::runtime_error("unknown line");
    }

    // A message queue at key, made by the case's user and maybe handed to
    // root, so that it looks like the daemon's while its maker keeps every right.
    void plant(int key, bool to_root)
    {
        const auto made = run_as(uid_, uid_, [&] {
            struct msqid_ds ds;
            const int id = msgget(key, IPC_CREAT | IPC_EXCL | 0666);
            if (id == -1 || (to_root && msgctl(id, IPC_STAT, &ds) != 0))
                return std::string(strerror(errno));
            ds.msg_perm.uid = 0;
            return std::string(to_root && msgctl(id, IPC_SET, &ds) != 0 ? strerror(errno) : "");
        });
        if (made != "")
            throw std::runtime_error("no queue planted: " + made.value_or("the other user's client failed"));
    }

    void call(const std::string& how, const std::string& rest)
    {
        auto [command, request] = word(rest);
        command = expand(command);
        request = expand(request);
        int fds[2] = {-1, -1};
        if (how == "fd")
            need(pipe2(fds, O_CLOEXEC) == 0);
        auto once = [&] {
            int st = -1;
            std::string r = how == "mail" ? daemon_->call_mail(command, request, &st)
                                          : daemon_->call(command, request, &st, fds[1]);
            return std::to_string(st) + "|" + r;
        };
        std::string got = uid_ == 0 ? once() : run_as(uid_, uid_, once).value_or("-1|<the other user's client failed>");
        for (int fd : fds)
            if (fd >= 0)
                close(fd);
        size_t bar = got.find('|');
        replies_.push_back({line_, std::stoi(got.substr(0, bar)), got.substr(bar + 1)});
    }

    // The reply of every call since the last "<" line.
    void check_replies(const std::string& rest)
    {
        static const std::map<std::string, std::pair<int, std::string>> shorthand = {
            {"ok", {DV_STATUS_OK, kOk}},
            {"input error", {DV_STATUS_OK, kInputError}},
            {"paser fail", {DV_STATUS_OK, kParseError}},
            {"denied", {DV_STATUS_OK, "{\"error_msg\":\"permission denied\",\"result\":-1}\n"}},
            {"closed", {DV_STATUS_SOCKET, ""}},
            {"rejected", {DV_STATUS_REJECTED, ""}},
        };
        if (replies_.empty())
            return fail("no call to compare");
        const int at = line_;
        for (const Reply& r : replies_) {
            line_ = r.line;
            std::pair<int, std::string> want = {DV_STATUS_OK, expand(rest) + "\n"};
            if (auto it = shorthand.find(rest); it != shorthand.end())
                want = it->second;
            else if (rest.rfind("fail ", 0) == 0)
                want.second = failure(rest.substr(5));
            else if (rest[0] == '^' && r.text.rfind(expand(rest.substr(1)), 0) == 0)
                want.second = r.text;
            expect("reply", want.second, r.text);
            expect("client status", std::to_string(want.first), std::to_string(r.status));
        }
        line_ = at;
        replies_.clear();
    }

    void check_journal()
    {
        if (journal_.empty())
            return;
        std::string want, got;
        for (const std::string& j : journal_)
            if (j != "-")
                want += expand(j) + "\n";
        for (const SimCall& c : root_.calls()) {
            if (hidden_.count(c.who))
                continue;
            Json::Value argv(Json::arrayValue);
            for (const std::string& a : c.argv)
                argv.append(a);
            got += c.who + " " + json_text(argv) + (c.input ? " " + json_text(*c.input) : "") + "\n";
        }
        journal_.clear();
        root_.clear_calls();
        if (want != got)
            fail("journal\n--- want\n" + want + "--- got\n" + got);
    }

    void check_file(const std::string& p, const std::string& what)
    {
        const std::string host = path(p);
        struct stat st;
        const bool there = lstat(host.c_str(), &st) == 0;
        if (p.back() == '/')
            return expect("listing of " + p, what, listing(host));
        if (p.rfind("queue:", 0) == 0) {  // handed to the senders just after the policy read is logged: a moment
            std::string got;
            eventually([&] {
                struct msqid_ds ds = {};
                got = msgctl(msgget(std::stoi(p.substr(6)), 0), IPC_STAT, &ds) != 0
                          ? "missing"
                          : format_text("%o %u %u %u", ds.msg_perm.mode & 0777, unsigned(ds.msg_perm.uid),
                                        unsigned(ds.msg_perm.cuid), unsigned(ds.msg_perm.gid));
                return got == what.substr(5);
            });
            return expect("mode, owner, creator and group of " + p, what.substr(5), got);
        }
        if (what == "absent")
            return expect(p, "absent", there ? "present" : "absent");
        if (what.rfind("mode ", 0) == 0)
            return expect("mode and owner of " + p, what.substr(5),
                          there ? format_text("%o %u", unsigned(st.st_mode), unsigned(st.st_uid)) : "missing");
        expect(p, expand(text_arg(what)), read_text_file(host));
    }

    // ~ "text": the log since the case began holds it; ~N "text": N times.
    // Audit lines follow their reply: they get a moment.
    void check_log(const std::string& n, const std::string& rest)
    {
        const std::string text = expand(text_arg(rest));
        std::string log;
        size_t count = 0;
        auto found = [&] {
            log = daemon_->debug_log().substr(log_mark_);
            count = 0;
            for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
                ++count;
            return n.empty() ? count > 0 : count == std::stoul(n);
        };
        if (!eventually(found, n == "0" ? 0 : 2000))
            fail("the log has \"" + text + "\" " + std::to_string(count) + " times; its end since the case began:\n" +
                 log.substr(log.size() > 2000 ? log.size() - 2000 : 0));
    }

    std::string file_;
    SimRoot root_;
    TempDir captures_;
    std::unique_ptr<DaemonProcess> daemon_;
    std::string policy_;
    std::set<std::string> hidden_;
    std::vector<std::string> journal_;
    struct Reply {
        int line, status;
        std::string text;
    };
    std::vector<Reply> replies_;
    int line_ = 0;
    int fds_ = -1;
    uid_t uid_ = 0;
    size_t log_mark_ = 0;
};

TEST(Cases, Run)
{
    if (!g_coverage) {
        for (const std::string& f : g_files)
            CaseFile(f).run();
        return;
    }
    // Every command of both tables has a case, and no table names one twice.
    std::set<std::string> called[2];
    for (const std::string& f : g_files)
        for (const auto& p : paragraphs(f))
            for (const Line& l : p)
                if (l.text[0] == '>')
                    called[word(l.text).first == ">mail"].insert(word(word(l.text).second).first);
    const std::span<const T_COMMAND_ENTRY> tables[] = {{handler, handler_size},
                                                       {sendmail_handler, sendmail_handler_size}};
    for (int t = 0; t < 2; ++t) {
        std::set<std::string> names;
        for (const T_COMMAND_ENTRY& e : tables[t]) {
            EXPECT_TRUE(names.insert(e.name).second) << e.name << " is in table " << t << " twice";
            EXPECT_TRUE(called[t].count(e.name)) << e.name << " has no case";
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    g_coverage = argc > 1 && std::string(argv[1]) == "--coverage";
    g_files.assign(argv + 1 + g_coverage, argv + argc);
    return RUN_ALL_TESTS();
}
