// Login sessions, local users and groups, group members and the SMS settings
// end to end through the daemon, which loads the simulated platform libraries
// for every call: exact replies, the calls the libraries saw, a missing
// library or function, and that loading per call leaves nothing behind.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/paths.h"
#include "support/daemon_suite.h"

namespace {

const std::string kAddFail = failure("nox_vex_auth_add_session_handler");
const std::string kGetFail = failure("nox_vex_auth_get_session_handler");
const std::string kSmsFail = failure("nox_get_sms_config_handler");
const std::string kMembers = "{\"result\":0,\"user_count\":3,\"user_list\":[true,true,true]}\n";
const std::string kDefaultSms =
    "{\"country\":\"Germany\",\"country_code\":\"+49\",\"max_provider\":4,\"mode\":1,\"now_provider\":2,"
    "\"phone1\":\"+4915112345678\",\"phone2\":\"+4915187654321\",\"result\":0,\"using_provider\":1}\n";

std::string add_session(const std::string& sid, const std::string& user, int type)
{
    return "{\"sid\":\"" + sid + "\",\"user\":\"" + user + "\",\"type\":" + std::to_string(type) + "}";
}

std::string get_session(const std::string& sid, int type, int length = 64)
{
    return "{\"sid\":\"" + sid + "\",\"type\":" + std::to_string(type) + ",\"length\":" + std::to_string(length) + "}";
}

std::string found(const std::string& user)
{
    return "{\"result\":0,\"user\":\"" + user + "\"}\n";
}

class AccountsAndAuth : public DaemonPerTest {};

TEST_F(AccountsAndAuth, SessionsAddedAreFoundByIdAndType)
{
    EXPECT_EQ(call("vex_auth_add_session", add_session("S-1", "alice", 1)), kOk);
    EXPECT_EQ(call("vex_auth_get_session", get_session("S-1", 1)), found("alice"));
    EXPECT_EQ(argvs(PATH_LIB_NASAUTH),
              (std::vector<Argv>{{"auth_add_session", "S-1", "alice", "1", ""}, {"auth_get_session", "S-1", "1"}}));
    // Another type, an unknown id: not found.
    EXPECT_EQ(call("vex_auth_get_session", get_session("S-1", 2)), kGetFail);
    EXPECT_EQ(call("vex_auth_get_session", get_session("S-2", 1)), kGetFail);

    // The newest registration of an id wins; "length" never limits the name.
    const std::string long_name(200, 'u');
    EXPECT_EQ(call("vex_auth_add_session", add_session("S-1", long_name, 1)), kOk);
    for (int length : {1, 0, -5})
        EXPECT_EQ(call("vex_auth_get_session", get_session("S-1", 1, length)), found(long_name)) << length;
    // A session the library refuses to store (it wants a user).
    EXPECT_EQ(call("vex_auth_add_session", add_session("S-3", "", 1)), kAddFail);

    // Input errors never load the library; "length" is required though unused.
    root_.clear_calls();
    const std::pair<const char*, const char*> bad[] = {
        {"vex_auth_get_session", R"({"sid": "S-1", "type": 1})"},
        {"vex_auth_get_session", R"({"sid": "S-1", "type": 1, "length": "64"})"},
        {"vex_auth_add_session", R"({"sid": "S-1", "user": "alice", "type": 4294967296})"},
        {"vex_auth_add_session", R"({"sid": "S-1", "type": 1})"},
    };
    for (const auto& [command, request] : bad)
        EXPECT_EQ(call(command, request), kParseError) << command << " " << request;
    EXPECT_EQ(call("vex_auth_get_session", ""), kInputError);
    EXPECT_EQ(call("vex_auth_add_session", ""), kInputError);
    EXPECT_TRUE(root_.calls().empty());
}

TEST_F(AccountsAndAuth, AMissingLibraryOrFunctionIsTheFailureReply)
{
    const std::string nas_lib = root_.read_file(PATH_LIB_NAS);
    const std::string config_lib = root_.read_file(PATH_LIB_CONFIG);

    // A file that is not a library at all, then none.
    root_.write_file(PATH_LIB_NASAUTH, "not a library\n");
    EXPECT_EQ(call("vex_auth_add_session", add_session("S-1", "alice", 1)), kAddFail);
    root_.remove(PATH_LIB_NASAUTH);
    EXPECT_EQ(call("vex_auth_get_session", get_session("S-1", 1)), kGetFail);
    root_.remove(PATH_LIB_CONFIG);
    EXPECT_EQ(call("get_sms_config"), kSmsFail);

    // Real libraries that lack the function: each stands in for another.
    root_.write_file(PATH_LIB_NASAUTH, nas_lib);
    root_.write_file(PATH_LIB_CONFIG, nas_lib);
    root_.write_file(PATH_LIB_NAS, config_lib);
    EXPECT_EQ(call("vex_auth_add_session", add_session("S-1", "alice", 1)), kAddFail);
    EXPECT_EQ(call("vex_auth_get_session", get_session("S-1", 1)), kGetFail);
    EXPECT_EQ(call("get_sms_config"), kSmsFail);
    EXPECT_EQ(call("get_all_users"), failure("nox_get_all_users_handler"));
    EXPECT_EQ(call("get_all_groups"), failure("nox_get_all_groups_handler"));
    EXPECT_EQ(call("get_group_members", R"({"group_name": "everyone"})"), failure("nox_get_group_members_handler"));
    EXPECT_TRUE(root_.calls().empty());

    const std::string log = daemon_.debug_log();
    EXPECT_NE(log.find("] dlopen " + root_.abs(PATH_LIB_NASAUTH) + " fail: "), std::string::npos) << log;
    EXPECT_NE(log.find("] dlsym Get_Local_User_List_V2 in /usr/lib/libHalcyon_NAS.so.0.0 fail: "), std::string::npos)
        << log;
}

TEST_F(AccountsAndAuth, UsersAndGroupsComeInLibraryOrder)
{
    EXPECT_EQ(call("get_all_users"),
              "{\"local_count\":4,\"result\":0,\"user_list\":[\"admin\",\"guest\",\"alice\",\"bob\"]}\n");
    EXPECT_EQ(call("get_all_groups"),
              "{\"group_list\":[\"administrators\",\"everyone\",\"guest\"],\"local_count\":3,\"result\":0}\n");
    EXPECT_EQ(argvs(PATH_LIB_NAS), (std::vector<Argv>{{"Get_Local_User_List_V2"}, {"Get_Local_Group_List_V2"}}));

    // The longest names the lists hold come back whole, quotes and all.
    const std::string user = std::string(31, 'u') + "\"";
    const std::string group = std::string(255, 'g') + "\\";
    root_.write_file("/etc/passwd", user + ":x:1:1::/:/bin/sh\n");
    root_.write_file("/etc/group", "everyone:x:100:" + user + "\n" + group + ":x:101:\n");
    EXPECT_EQ(call("get_all_users"),
              "{\"local_count\":1,\"result\":0,\"user_list\":[\"" + std::string(31, 'u') + "\\\"\"]}\n");
    EXPECT_EQ(call("get_all_groups"),
              "{\"group_list\":[\"everyone\",\"" + std::string(255, 'g') + "\\\\\"],\"local_count\":2,\"result\":0}\n");

    // None at all: a count of 0 and no list key, not an empty list.
    root_.write_file("/etc/passwd", "");
    root_.write_file("/etc/group", "# nobody here\n");
    EXPECT_EQ(call("get_all_users"), "{\"local_count\":0,\"result\":0}\n");
    EXPECT_EQ(call("get_all_groups"), "{\"local_count\":0,\"result\":0}\n");

    // The library's error.
    root_.remove("/etc/passwd");
    root_.remove("/etc/group");
    EXPECT_EQ(call("get_all_users"), failure("nox_get_all_users_handler"));
    EXPECT_EQ(call("get_all_groups"), failure("nox_get_all_groups_handler"));
}

TEST_F(AccountsAndAuth, GroupMembersAreOneFlagPerEntry)
{
    EXPECT_EQ(call("get_group_members", R"({"group_name": "everyone"})"), kMembers);
    EXPECT_EQ(argvs(PATH_LIB_NAS), (std::vector<Argv>{{"Get_NAS_User_List_Of_Group_Ex", "everyone"}}));

    root_.write_file("/etc/group", "holes:x:1:,alice,,bob,\nempty:x:2:\n");
    EXPECT_EQ(call("get_group_members", R"({"group_name": "holes"})"),
              "{\"result\":0,\"user_count\":5,\"user_list\":[false,true,false,true,false]}\n");
    EXPECT_EQ(call("get_group_members", R"({"group_name": "empty"})"),
              "{\"result\":0,\"user_count\":0,\"user_list\":[]}\n");
    EXPECT_EQ(call("get_group_members", R"({"group_name": "nosuchgroup"})"), failure("nox_get_group_members_handler"));

    root_.clear_calls();
    EXPECT_EQ(call("get_group_members", R"({"group": "everyone"})"), kParseError);
    EXPECT_EQ(call("get_group_members", R"({"group_name": ["everyone"]})"), kParseError);
    EXPECT_EQ(call("get_group_members", ""), kInputError);
    EXPECT_TRUE(root_.calls().empty());
}

TEST_F(AccountsAndAuth, SmsSettingsAreCopiedFieldByField)
{
    // It takes no arguments and never looks at the request.
    EXPECT_EQ(call("get_sms_config", "not json"), kDefaultSms);
    EXPECT_EQ(argvs(PATH_LIB_CONFIG), (std::vector<Argv>{{"Get_SMS_config"}}));

    // Every text as long as its field holds, every number its own.
    root_.write_file("/var/lib/sim/sms.conf",
                     "[SMS]\nmode = -1\nmax_provider = 2147483647\nnow_provider = -2147483648\nusing_provider = 7\n"
                     "country = " + std::string(15, 'c') + "\ncountry_code = " + std::string(15, '9') +
                         "\nphone1 = " + std::string(31, '1') + "\nphone2 = " + std::string(31, '2') + "\n");
    EXPECT_EQ(call("get_sms_config"), "{\"country\":\"" + std::string(15, 'c') + "\",\"country_code\":\"" +
                                          std::string(15, '9') +
                                          "\",\"max_provider\":2147483647,\"mode\":-1,\"now_provider\":-2147483648,"
                                          "\"phone1\":\"" + std::string(31, '1') + "\",\"phone2\":\"" +
                                          std::string(31, '2') + "\",\"result\":0,\"using_provider\":7}\n");

    // Without settings the library leaves the record as we zeroed it.
    root_.remove("/var/lib/sim/sms.conf");
    EXPECT_EQ(call("get_sms_config"),
              "{\"country\":\"\",\"country_code\":\"\",\"max_provider\":0,\"mode\":0,\"now_provider\":0,"
              "\"phone1\":\"\",\"phone2\":\"\",\"result\":0,\"using_provider\":0}\n");
}

// Four callers at once on the two workers, each library loaded and unloaded
// under the others' feet; afterwards no descriptor is left.
TEST_F(AccountsAndAuth, LoadingPerCallLeavesNoDescriptorAndSurvivesOverlap)
{
    ASSERT_EQ(call("vex_auth_add_session", add_session("S-9", "bob", 3)), kOk);
    const std::string users = call("get_all_users");
    const int before = settled_fd_count(daemon_.pid());
    ASSERT_GT(before, 0);
    const struct {
        const char* command;
        std::string request, reply;
    } mix[] = {
        {"get_all_users", "{}", users},
        {"vex_auth_get_session", get_session("S-9", 3), found("bob")},
        {"get_group_members", R"({"group_name": "everyone"})", kMembers},
        {"get_sms_config", "{}", kDefaultSms},
    };
    std::vector<std::string> wrong[4];
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t)
        callers.emplace_back([&, t] {
            for (int i = 0; i < 15; ++i) {
                const auto& m = mix[(t + i) % 4];
                std::string reply = daemon_.call(m.command, m.request);
                if (reply != m.reply)
                    wrong[t].push_back(std::string(m.command) + ": " + reply);
            }
        });
    for (std::thread& t : callers)
        t.join();
    for (const auto& w : wrong)
        EXPECT_TRUE(w.empty()) << w.front();
    EXPECT_LE(settled_fd_count(daemon_.pid()), before);
}

}  // namespace
