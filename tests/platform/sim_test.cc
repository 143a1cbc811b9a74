// The simulated platform: make-root's root answers configuration reads, the
// stub libraries return what the root holds, the journal keeps argument
// vectors exactly, and steering files take effect. The stubs prove the rest
// of themselves through the handler tests.
#include "platform/paths.h"
#include "platform/platform_libs.h"
#include "support/process.h"
#include "support/sim_root.h"

#include <gtest/gtest.h>

#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <thread>

namespace {

// Runs a platform program of the root with args.
ProcessResult run(const SimRoot& root, const std::string& program, std::vector<std::string> args,
                  const std::string& input = "")
{
    args.insert(args.begin(), root.abs(program));
    return run_process(args, input);
}

// A stub library, closed again however the test ends.
using Lib = std::unique_ptr<void, int (*)(void*)>;
Lib open_lib(const SimRoot& root, const std::string& path)
{
    return Lib(dlopen(root.abs(path).c_str(), RTLD_NOW), dlclose);
}

template <class Fn> Fn sym(const Lib& lib, const char* name)
{
    return reinterpret_cast<Fn>(dlsym(lib.get(), name));
}

void free_list(char** names, int n)
{
    for (int i = 0; i < n; ++i)
        free(names[i]);
    free(names);
}

TEST(Sim, ConfGetAnswersValuesAndDefaults)
{
    SimRoot root;
    root.write_file("/etc/spaced.conf", "# comment\n[A]\n  key   =   two words  \nother=1\n[B]\nkey = b\n");
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out;
    } cases[] = {
        {{"VexProServer", "Install_Path", "-c", "-d", "CONF_GET_FAILD"}, 0, "/opt/VexProServer\n"},
        {{"VexProServer", "No_Such_Key", "-c", "-d", "CONF_GET_FAILD"}, 0, "CONF_GET_FAILD\n"},
        {{"MISC", "DISPLAY_NAME", "-c", "-d", "CONF_GET_FAILD", "-f", PATH_PLATFORM_CONF}, 0, "VX-NAS 8\n"},
        {{"CP_APP", "tvDeck", "-c", "-d", "CONF_GET_FAILD", "-f", "/etc/missing.conf"}, 0, "CONF_GET_FAILD\n"},
        {{"A", "key", "-f", "/etc/spaced.conf"}, 0, "two words\n"},
        {{"B", "other", "-f", "/etc/spaced.conf"}, 1, ""},  // another section's key, and no default
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + "/" + c.args[1]);
        ProcessResult r = run(root, PATH_CONF_GET, c.args);
        EXPECT_EQ(c.status, r.status);
        EXPECT_EQ(c.out, r.out);
    }
}

TEST(Sim, LibrariesAnswerFromTheRoot)
{
    SimRoot root;
    const std::string long_group(256, 'g');
    root.write_file("/etc/group", long_group + ":x:200:\ncrew:x:201:ann,ben,cat\nholes:x:202:ann,,cat\n");

    Lib nas = open_lib(root, PATH_LIB_NAS);
    ASSERT_TRUE(nas) << dlerror();
    auto users = sym<Get_Local_User_List_V2_fn>(nas, "Get_Local_User_List_V2");
    auto groups = sym<Get_Local_Group_List_V2_fn>(nas, "Get_Local_Group_List_V2");
    auto members = sym<Get_NAS_User_List_Of_Group_Ex_fn>(nas, "Get_NAS_User_List_Of_Group_Ex");
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
    free_list(names, 3);
    ASSERT_EQ(3, members("holes", &names));
    EXPECT_EQ(nullptr, names[1]);  // an empty member is a null entry
    free_list(names, 3);

    Lib config = open_lib(root, PATH_LIB_CONFIG);
    ASSERT_TRUE(config) << dlerror();
    auto sms = sym<Get_SMS_config_fn>(config, "Get_SMS_config");
    ASSERT_TRUE(sms);
    T_SMS_CONFIG rec;
    memset(&rec, 0x55, sizeof rec);
    sms(&rec);
    EXPECT_EQ(1, rec.mode);
    EXPECT_EQ(2, rec.now_provider);
    EXPECT_STREQ("+49", rec.country_code);
    EXPECT_STREQ("+4915187654321", rec.phone2);  // the last field: the layout holds to the end

    Lib auth = open_lib(root, PATH_LIB_NASAUTH);
    ASSERT_TRUE(auth) << dlerror();
    auto add = sym<auth_add_session_fn>(auth, "auth_add_session");
    auto get = sym<auth_get_session_fn>(auth, "auth_get_session");
    ASSERT_TRUE(add && get);
    char user[AUTH_USER_BUF_LEN] = {};
    EXPECT_NE(0, get("s1", 2, user));
    EXPECT_EQ(0, add("s1", "alice", 2, ""));
    EXPECT_EQ(0, get("s1", 2, user));
    EXPECT_STREQ("alice", user);
    EXPECT_NE(0, get("s1", 3, user));  // sessions are per type
    // Library calls are journaled like programs, arguments as text.
    std::vector<SimCall> calls = root.calls(PATH_LIB_NASAUTH);
    ASSERT_EQ(4u, calls.size());
    EXPECT_EQ((std::vector<std::string>{"auth_add_session", "s1", "alice", "2", ""}), calls[1].argv);
}

TEST(Sim, JournalKeepsArgumentsAndInputExactly)
{
    SimRoot root;
    const std::string awkward = "a b\"c'\nd\te\\n\r\x01";
    ASSERT_EQ(0, run(root, PATH_METRIX_TOOL, {"send", "-p", "", "-e", awkward}).status);
    root.write_file("/tmp/m.conf", "account default\n");
    ASSERT_EQ(0, run(root, PATH_SENDMAIL, {"-C", "/tmp/m.conf", "-t"}, "To: a@b\n\nhi\tthere\n").status);
    std::vector<SimCall> calls = root.calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ((SimCall{PATH_METRIX_TOOL, {root.abs(PATH_METRIX_TOOL), "send", "-p", "", "-e", awkward}, std::nullopt}),
              calls[0]);
    EXPECT_EQ((SimCall{PATH_SENDMAIL, {root.abs(PATH_SENDMAIL), "-C", "/tmp/m.conf", "-t"}, "To: a@b\n\nhi\tthere\n"}),
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

// Steering changes a program's output and status; make-root run again
// undoes that and empties the journal, but never empties a non-root.
TEST(Sim, SteeringTakesEffectAndMakeRootResetsOnlyARoot)
{
    SimRoot root;
    const std::vector<std::string> field = {"--vpd_get_field", "enc_sys_id=root,obj_index=0:8"};
    EXPECT_EQ("VPD field 0:8 = 7F3A19C255D08E41\n", run(root, PATH_HWD_APP, field).out);
    root.set_output(PATH_HWD_APP, "steered\n");
    root.set_exit(PATH_HWD_APP, 3);
    ProcessResult r = run(root, PATH_HWD_APP, field);
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("steered\n", r.out);
    EXPECT_EQ(2u, root.calls().size());  // steered or not, every call is journaled

    root.reset();
    EXPECT_TRUE(root.calls().empty());
    EXPECT_EQ("VPD field 0:8 = 7F3A19C255D08E41\n", run(root, PATH_HWD_APP, field).out);
    root.remove("/.vexprod-sim-root");
    EXPECT_THROW(root.reset(), std::runtime_error);
    EXPECT_TRUE(root.exists(PATH_APPBOX_CONF));
}

}  // namespace
