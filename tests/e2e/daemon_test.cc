// The daemon program on a simulated root, from its start to its end: each
// row starts one (or fails to), does what it does meanwhile, ends it and
// checks the status, stderr, debug log and that nothing is left.
#include "support/suite.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Life {
    SimRoot root;
    DaemonProcess d{root};
    std::unique_ptr<DaemonProcess> other;
    std::vector<std::jthread> callers;  // asked to stop and joined however the row ends
    std::atomic<int> answered{0};
    TempDir bin;
    pid_t namesake = -1;
};

std::string ban_list_of(int caller, bool as_file)
{
    std::string text;
    for (int n = 0; n <= caller % 5; n++) {
        const std::string address = "10." + std::to_string(100 + caller) + ".0." + std::to_string(n + 1);
        text += as_file ? "deny from " + address + "\n" : (text.empty() ? "" : ",") + address;
    }
    return as_file ? "<LocationMatch \"/.*\">\norder allow,deny\n" + text + "allow from all\n</LocationMatch>\n"
                   : "{\"ip_list\":\"" + text + "\"}";
}

TEST(Daemon, StartsServesAndEndsAsEachWayOfStartingAndStoppingSays)
{
    struct Entry {
        const char* what;
        std::vector<std::string> args;
        std::function<void(Life&)> setup, meanwhile;  // meanwhile null: it must not come up
        int signal;                                  // what ends it; 0: it ends by itself
        int status;
        std::string err;  // all of stderr; {dir}, {root}, {pid} and {program} (in the log too) stand for the
                          // socket directory, the platform root, the other instance's pid and the daemon's path
        std::vector<std::string> log;
        std::function<void(Life&)> after = nullptr;
    };
    const Entry entries[] = {
        {"serves both, shrugs off the signals it ignores, SIGTERM ends it in order", {},
         [](Life& r) {  // a process named as the daemon is no instance of it
             const std::string link = r.bin.file("dwe-dv-vexprod");
             char* argv[] = {const_cast<char*>("dwe-dv-vexprod"), const_cast<char*>("30"), nullptr};
             ASSERT_EQ(symlink("/bin/sleep", link.c_str()), 0);
             ASSERT_EQ(posix_spawn(&r.namesake, link.c_str(), nullptr, nullptr, argv, environ), 0);
         },
         [](Life& r) {
             kill(r.namesake, SIGKILL);  // it had its say while the daemon started
             waitpid(r.namesake, nullptr, 0);
             for (int sig : {SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE})
                 kill(r.d.pid(), sig);
             EXPECT_EQ(r.d.call("test", "{}"), kTestReply);
             EXPECT_TRUE(msgget(65521, 0) != -1 && msgget(65522, 0) != -1);
             int status = -1;  // a program started for a caller does not hold the stop up
             r.d.call("exec_cli", R"({"command":["/bin/sleep","60"]})", &status, -1, 1);
             EXPECT_EQ(status, DV_STATUS_TIMEOUT);
         },
         SIGTERM, 0, "",
         {"] dwe-dv-vexprod start, Server:VexProServer-vexprod.\n", "] dv_start.\n", "] dv_send_mail_start.\n",
          "[free_all_obj][", "] is_terminate\n"}},
        {"illegal options are reported and ignored; SIGINT ends it", {"-x", "-\x01"}, nullptr, [](Life&) {}, SIGINT,
         0, "Illegal option:-x\nIllegal option:-#\n", {}},
        {"-t ends it at once, in order", {"-t"}, nullptr, nullptr, 0, 0, "", {"] is_terminate\n"}},
        {"a missing socket directory is made", {}, [](Life& r) { rmdir(r.d.socket_dir().c_str()); }, [](Life&) {},
         SIGTERM, 0, "", {}},
        {"a socket directory others may write into", {},
         [](Life& r) { chmod(r.d.socket_dir().c_str(), 0777); }, nullptr, 0, 254,
         "dwe-dv-vexprod: {dir} is writable by group or others; make it a directory of root's that only root can "
         "write, or set DV_SOCKET_DIR.\n", {"] socket directory unusable: "}},
        {"no Install_Path", {},
         [](Life& r) {
             std::string conf = r.root.read_file("/etc/config/appbox.conf");
             r.root.write_file("/etc/config/appbox.conf", conf.replace(conf.find("Install_Path"), 12, "Installed_At"));
         },
         nullptr, 0, 255,
         "] get Install_Path fail.\ndwe-dv-vexprod: no Install_Path in [VexProServer] of {root}/etc/config/"
         "appbox.conf; install the app, or set VEXPROD_PLATFORM_ROOT to a platform root whose registry has it.\n", {}},
        {"a second instance", {},
         [](Life& r) {
             r.other = std::make_unique<DaemonProcess>(r.root);
             ASSERT_TRUE(r.other->start()) << r.other->stderr_text();
         },
         nullptr, 0, 255, "dwe-dv-vexprod: another instance runs (pid {pid}); stop it first.\n",
         {"] warning: re-entry.\n"},
         [](Life& r) {
             EXPECT_EQ(r.other->call("test", "{}"), kTestReply);
             EXPECT_EQ(r.other->stop(), 0);
         }},
        {"a crash leaves a backtrace and kills it", {}, nullptr, [](Life&) {}, SIGSEGV, 128 + SIGKILL, "",
         {"[vexprod_debug_backtrace_dump][", "]==========================", "]{program}\n"},
         [](Life&) {  // nothing was stopped in order: the queues stay until someone removes them
             for (int key : {65521, 65522})
                 msgctl(msgget(key, 0), IPC_RMID, nullptr);
         }},
        {"a debug log on a full disk, then removed, loses lines silently", {}, nullptr,
         [](Life& r) {
             const std::string log = r.root.abs("/opt/VexProServer/.log/.dwe_dv_vexprod.log");
             ASSERT_EQ(unlink(log.c_str()), 0);
             ASSERT_EQ(symlink("/dev/full", log.c_str()), 0);
             for (int round = 0; round < 2; round++) {
                 for (int i = 0; i < 20; i++)  // requests that log
                     EXPECT_EQ(r.d.call("get_vpd_ext_area", "{\"offest\":\"1\",\"length\":2}"), kParseError);
                 EXPECT_EQ(r.d.call("test", "{}"), kTestReply);
                 std::error_code ec;  // nothing moved the link aside, nothing made the directory again
                 EXPECT_EQ(std::filesystem::read_symlink(log, ec), round ? "" : "/dev/full");
                 EXPECT_EQ(r.root.exists("/opt/VexProServer/.log"), !round);
                 r.root.remove("/opt/VexProServer/.log");
             }
         },
         SIGTERM, 0, "", {}},
        {"SIGTERM while 32 callers rewrite the ban list ends it within 5 s, the file whole", {}, nullptr,
         [](Life& r) {
             for (int i = 0; i < 32; i++)
                 r.callers.emplace_back([&r, i](std::stop_token stop) {
                     while (!stop.stop_requested()) {
                         int status = -1;
                         r.d.call("update_ip_ban_list", ban_list_of(i, false), &status);
                         if (status == DV_STATUS_OK)
                             r.answered++;
                         else
                             std::this_thread::sleep_for(20ms);  // refused: the daemon is going
                     }
                 });
             ASSERT_TRUE(eventually([&] { return r.answered >= 64; }, 30000)) << r.answered;
         },
         SIGTERM, 0, "", {},
         [](Life& r) {
             r.callers.clear();
             std::set<std::string> lists;
             for (int i = 0; i < 32; i++)
                 lists.insert(ban_list_of(i, true));
             EXPECT_EQ(lists.count(r.root.read_file("/etc/default_config/apache/extra/vexcms_ip_ban_list.conf")), 1u);
             std::error_code ec, unreadable;  // no program of the root left running
             for (auto it = std::filesystem::directory_iterator("/proc", ec); !ec && it != decltype(it)();
                  it.increment(ec))
                 EXPECT_NE(std::filesystem::read_symlink(it->path() / "exe", unreadable).string().rfind(
                               r.root.path() + "/", 0), 0u) << it->path();
         }},
    };
    for (const Entry& e : entries) {
        SCOPED_TRACE(e.what);
        Life r;
        if (e.setup)
            e.setup(r);
        if (e.meanwhile) {
            ASSERT_TRUE(r.d.start(e.args)) << r.d.stderr_text();
            EXPECT_EQ(r.d.call("test", "{}"), kTestReply);
            EXPECT_EQ(r.d.call_mail("test", "{}"), kMailTestReply);
            e.meanwhile(r);
        } else {
            ASSERT_GT(r.d.spawn(e.args), 0);
        }
        const auto start = Clock::now();
        EXPECT_EQ(e.signal ? r.d.stop(e.signal) : r.d.wait(5000), e.status);
        EXPECT_LT(Clock::now() - start, r.callers.empty() ? 2s : 5s);
        auto fill = [&](std::string s) {
            for (const auto& [mark, value] : {std::pair<std::string, std::string>{"{dir}", r.d.socket_dir()},
                                              {"{root}", r.root.path()}, {"{program}", r.d.program_path()},
                                              {"{pid}", r.other ? std::to_string(r.other->pid()) : ""}})
                if (size_t at = s.find(mark); at != std::string::npos)
                    s.replace(at, mark.size(), value);
            return s;
        };
        const std::string err = fill(e.err), got = r.d.stderr_text();  // "] ..." leaves out the "[function][line"
        EXPECT_EQ(got.substr(err.rfind("] ", 0) == 0 ? got.find("] ") : 0), err);
        const std::string log = r.d.debug_log();
        for (const std::string& line : e.log)
            EXPECT_NE(log.find(fill(line)), std::string::npos) << line << "\n" << log;
        if (e.after)
            e.after(r);
        EXPECT_TRUE(e.status == 128 + SIGKILL || !(file_exists(r.d.command_socket()) || file_exists(r.d.mail_socket())));
        EXPECT_EQ(msgget(65521, 0) + msgget(65522, 0), -2);  // both gone
    }
}

}  // namespace
