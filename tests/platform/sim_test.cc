// The simulated platform: make-root's root answers configuration reads, the
// stub libraries return what the root holds, the journal keeps argument
// vectors exactly, and steering files take effect.
#include "platform/paths.h"
#include "platform/platform_libs.h"
#include "support/sim_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace {

struct Outcome {
    int status = -1; // exit status, or -1 when it did not exit normally
    std::string out;
};

// Runs a platform program of the root as the daemon does: argv[0] is the base name.
Outcome run(const SimRoot& root, const std::string& program, std::vector<std::string> args,
            const std::string& input = "")
{
    std::string path = root.abs(program);
    args.insert(args.begin(), program.substr(program.find_last_of('/') + 1));
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    int in[2], out[2];
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, path.c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    Outcome r;
    if (rc == 0 && !input.empty()) {
        EXPECT_EQ(static_cast<ssize_t>(input.size()), write(in[1], input.data(), input.size()));
    }
    close(in[1]);
    char buf[4096];
    for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;)
        r.out.append(buf, n);
    close(out[0]);
    EXPECT_EQ(0, rc) << "cannot start " << path;
    int status = 0;
    if (rc == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    return r;
}

// dlopen/dlsym/dlclose as the handlers do it, closing on every path.
class Lib {
public:
    explicit Lib(const std::string& path) : h_(dlopen(path.c_str(), RTLD_NOW)) {}
    ~Lib()
    {
        if (h_)
            dlclose(h_);
    }
    explicit operator bool() const { return h_ != nullptr; }
    template <class Fn> Fn sym(const char* name) const { return reinterpret_cast<Fn>(dlsym(h_, name)); }

private:
    void* h_;
};

TEST(Sim, ConfGetAnswersValuesAndDefaults)
{
    SimRoot root;
    root.write_file("/etc/spaced.conf", "# comment\n[A]\n  key   =   two words  \nother=1\n[B]\nkey = b\n");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
    } cases[] = {
        {{"VexProServer", "Install_Path", "-c", "-d", "CONF_GET_FAILD"}, 0, "/opt/VexProServer\n"},
        {{"VexProServer", "No_Such_Key", "-c", "-d", "CONF_GET_FAILD"}, 0, "CONF_GET_FAILD\n"},
        {{"MISC", "DISPLAY_NAME", "-c", "-d", "CONF_GET_FAILD", "-f", PATH_PLATFORM_CONF}, 0, "VX-NAS 8\n"},
        {{"CP_APP", "tvDeck", "-c", "-d", "CONF_GET_FAILD", "-f", "/etc/missing.conf"}, 0, "CONF_GET_FAILD\n"},
        {{"A", "key", "-f", "/etc/spaced.conf"}, 0, "two words\n"},
        {{"B", "key", "-f", "/etc/spaced.conf"}, 0, "b\n"},
        {{"B", "other", "-f", "/etc/spaced.conf"}, 1, ""},
    };
    for (const Case& c : cases) {
        Outcome r = run(root, PATH_CONF_GET, c.args);
        EXPECT_EQ(c.status, r.status) << c.args[0] << "/" << c.args[1];
        EXPECT_EQ(c.out, r.out) << c.args[0] << "/" << c.args[1];
    }
    // The registry's paths lead to programs that exist inside the root.
    std::string shell = run(root, PATH_CONF_GET, {"VexProServer", "Shell"}).out;
    std::string viewer = run(root, PATH_CONF_GET, {"CayinMediaViewer", "Install_Path"}).out;
    ASSERT_FALSE(shell.empty());
    ASSERT_FALSE(viewer.empty());
    EXPECT_TRUE(root.exists(shell.substr(0, shell.size() - 1)));
    EXPECT_TRUE(root.exists(viewer.substr(0, viewer.size() - 1) + "/" + PATH_CMV_CLI));
}

TEST(Sim, LibrariesAnswerFromTheRoot)
{
    SimRoot root;
    const std::string long_group(256, 'g');
    root.write_file("/etc/group", long_group + ":x:200:\ncrew:x:201:ann,ben,cat\nholes:x:202:ann,,cat\n");

    Lib nas(root.abs(PATH_LIB_NAS));
    ASSERT_TRUE(nas) << dlerror();
    auto users = nas.sym<Get_Local_User_List_V2_fn>("Get_Local_User_List_V2");
    auto groups = nas.sym<Get_Local_Group_List_V2_fn>("Get_Local_Group_List_V2");
    auto members = nas.sym<Get_NAS_User_List_Of_Group_Ex_fn>("Get_NAS_User_List_Of_Group_Ex");
    ASSERT_TRUE(users && groups && members);

    char* list = nullptr;
    int count = -1;
    ASSERT_EQ(0, users(&list, 0, 0, 0, &count));
    ASSERT_EQ(4, count);
    EXPECT_STREQ("admin", list);
    EXPECT_STREQ("bob", list + 3 * NAS_USER_ENTRY_LEN);
    free(list);

    ASSERT_EQ(0, groups(&list, 0, 0, 0, &count));
    ASSERT_EQ(3, count);
    EXPECT_EQ(long_group, std::string(list));
    EXPECT_STREQ("crew", list + NAS_GROUP_ENTRY_LEN);
    free(list);

    char** names = nullptr;
    ASSERT_EQ(3, members("crew", &names));
    EXPECT_STREQ("ann", names[0]);
    EXPECT_STREQ("cat", names[2]);
    for (int i = 0; i < 3; ++i)
        free(names[i]);
    free(names);
    ASSERT_EQ(3, members("holes", &names));
    EXPECT_EQ(nullptr, names[1]); // an empty member is a null entry
    for (int i = 0; i < 3; ++i)
        free(names[i]);
    free(names);
    EXPECT_EQ(0, members(long_group.c_str(), nullptr));
    EXPECT_LT(members("nobody", nullptr), 0);

    root.write_file("/etc/passwd", "");
    list = reinterpret_cast<char*>(1);
    ASSERT_EQ(0, users(&list, 0, 0, 0, &count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, list);
    root.remove("/etc/passwd");
    EXPECT_LT(users(&list, 0, 0, 0, &count), 0);

    Lib config(root.abs(PATH_LIB_CONFIG));
    ASSERT_TRUE(config) << dlerror();
    auto sms = config.sym<Get_SMS_config_fn>("Get_SMS_config");
    ASSERT_TRUE(sms);
    T_SMS_CONFIG rec;
    memset(&rec, 0x55, sizeof rec);
    sms(&rec);
    EXPECT_EQ(1, rec.mode);
    EXPECT_EQ(4, rec.max_provider);
    EXPECT_EQ(2, rec.now_provider);
    EXPECT_EQ(1, rec.using_provider);
    EXPECT_STREQ("Germany", rec.country);
    EXPECT_STREQ("+49", rec.country_code);
    EXPECT_STREQ("+4915112345678", rec.phone1);
    EXPECT_STREQ("+4915187654321", rec.phone2);

    Lib auth(root.abs(PATH_LIB_NASAUTH));
    ASSERT_TRUE(auth) << dlerror();
    auto add = auth.sym<auth_add_session_fn>("auth_add_session");
    auto get = auth.sym<auth_get_session_fn>("auth_get_session");
    ASSERT_TRUE(add && get);
    char user[AUTH_USER_BUF_LEN] = {};
    EXPECT_NE(0, get("s1", 2, user));
    EXPECT_EQ(0, add("s1", "alice", 2, ""));
    EXPECT_EQ(0, get("s1", 2, user));
    EXPECT_STREQ("alice", user);
    EXPECT_NE(0, get("s1", 3, user)); // sessions are per type

    // Library calls are journaled like programs, arguments as text.
    std::vector<SimCall> calls = root.calls(PATH_LIB_NASAUTH);
    ASSERT_EQ(4u, calls.size());
    EXPECT_EQ((std::vector<std::string>{"auth_add_session", "s1", "alice", "2", ""}), calls[1].argv);
}

TEST(Sim, JournalKeepsArgumentsAndInputExactly)
{
    SimRoot root;
    const std::string awkward = "a b\"c'\nd\te\\n\r\x01";
    ASSERT_EQ(0, run(root, PATH_METRIX_TOOL, {"send", "-p", "", "-r", "1", "-e", awkward}).status);
    root.write_file("/tmp/vexpro_sendmail/m.conf", "account default\n");
    ASSERT_EQ(0, run(root, PATH_SENDMAIL, {"-C", "/tmp/vexpro_sendmail/m.conf", "-t"}, "To: a@b\n\nhi\tthere\n").status);

    std::vector<SimCall> calls = root.calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ((SimCall{PATH_METRIX_TOOL, {"metrix_tool", "send", "-p", "", "-r", "1", "-e", awkward}, std::nullopt}),
              calls[0]);
    EXPECT_EQ((SimCall{PATH_SENDMAIL, {"sendmail", "-C", "/tmp/vexpro_sendmail/m.conf", "-t"}, "To: a@b\n\nhi\tthere\n"}),
              calls[1]);

    // Concurrent calls with long arguments land as whole lines.
    root.clear_calls();
    const std::string big(6000, 'x');
    std::vector<std::thread> threads;
    for (int i = 0; i < 12; ++i)
        threads.emplace_back([&root, &big, i] { run(root, PATH_LOG_TOOL, {"-t", std::to_string(i), "-a", big}); });
    for (std::thread& t : threads)
        t.join();
    calls = root.calls(PATH_LOG_TOOL);
    ASSERT_EQ(12u, calls.size());
    for (const SimCall& c : calls)
        EXPECT_EQ(big, c.argv.at(4));
}

TEST(Sim, SteeringFilesChangeOutputAndStatus)
{
    SimRoot root;
    const std::vector<std::string> field = {"--vpd_get_field", "enc_sys_id=root,obj_index=0:8"};
    Outcome r = run(root, PATH_HWD_APP, field);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("VPD field 0:8 = 7F3A19C255D08E41\n", r.out);

    root.set_output(PATH_HWD_APP, "no equals sign\n");
    r = run(root, PATH_HWD_APP, field);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("no equals sign\n", r.out);

    root.set_exit(PATH_HWD_APP, 3);
    EXPECT_EQ(3, run(root, PATH_HWD_APP, field).status);
    root.remove(std::string("/var/lib/sim/steer") + PATH_HWD_APP + ".out");
    r = run(root, PATH_HWD_APP, field);
    EXPECT_EQ(3, r.status); // the default output, with the steered status
    EXPECT_EQ("VPD field 0:8 = 7F3A19C255D08E41\n", r.out);

    // The media viewer's conf_get is steered apart from the platform's.
    root.set_output("/opt/CayinMediaViewer/bin/conf_get", "viewer says hi\n");
    EXPECT_EQ("viewer says hi\n", run(root, "/opt/CayinMediaViewer/bin/conf_get", {"status"}).out);
    EXPECT_EQ("/opt/CayinMediaViewer\n", run(root, PATH_CONF_GET, {"CayinMediaViewer", "Install_Path"}).out);
    EXPECT_EQ(6u, root.calls().size()); // steered or not, every call is journaled

    // A wrong argument vector fails visibly.
    EXPECT_EQ(2, run(root, PATH_SHARE_LOCK, {"remove", "share", "VexProServer"}).status);
}

TEST(Sim, MakeRootResetsARootAndSparesOtherDirectories)
{
    SimRoot root;
    run(root, PATH_DAEMON_MGR,
        {"reverseproxy_vexpro", "start",
         std::string("\"") + PATH_REVERSEPROXY + " -k start -f " + PATH_REVERSEPROXY_CONF + "\""});
    EXPECT_TRUE(root.exists(PATH_REVERSEPROXY_PID)); // the proxy was really started
    EXPECT_EQ(2u, root.calls().size());
    root.set_exit(PATH_CONF_GET, 9);
    root.write_file(PATH_UCA_PEM, "x");

    root.reset();
    EXPECT_TRUE(root.calls().empty());
    EXPECT_FALSE(root.exists(PATH_REVERSEPROXY_PID));
    EXPECT_FALSE(root.exists(PATH_UCA_PEM));
    EXPECT_EQ(0, run(root, PATH_CONF_GET, {"VexProServer", "Install_Path"}).status);

    // make-root never empties a directory that is not a root.
    root.remove("/.vexprod-sim-root");
    EXPECT_THROW(root.reset(), std::runtime_error);
    EXPECT_TRUE(root.exists(PATH_APPBOX_CONF));
}

} // namespace
