// The handlers that call platform libraries, in this process so that the
// test sees what they leave behind: no library stays loaded after a call,
// on any path, and every list the libraries hand over is released (a
// sanitizer build checks the latter at exit). Their replies are rows of
// tests/cases/accounts.cases.
#include "platform/paths.h"

#include "support/suite.h"

namespace {

TEST(PlatformLibs, NoLibraryStaysLoadedAfterACall)
{
    HandlerService service;
    SimRoot& root = service.root();
    auto call = [&](const char* command, const char* request) {
        int status = -1;
        std::string reply = service.call(command, request, &status);
        EXPECT_EQ(status, DV_STATUS_OK) << command;
        for (const char* library : {PATH_LIB_NASAUTH, PATH_LIB_NAS, PATH_LIB_CONFIG}) {
            void* handle = dlopen(root.abs(library).c_str(), RTLD_NOW | RTLD_NOLOAD);
            EXPECT_EQ(handle, nullptr) << library << " after " << command;
            if (handle)
                dlclose(handle);
        }
        return reply;
    };
    // Every handler loads and unloads through call_platform_function: one
    // call into each library, and each way a list is handed over.
    const char* const calls[][2] = {
        {"vex_auth_add_session", R"({"type": 1, "user": "alice", "sid": "S-1"})"},
        {"get_all_users", "{}"},
        {"get_group_members", R"({"group_name": "everyone"})"},
        {"get_sms_config", "{}"},
    };
    for (const auto& c : calls)
        EXPECT_NE(call(c[0], c[1]).find("\"result\":"), std::string::npos) << c[0];
    EXPECT_EQ(root.calls().size(), std::size(calls));

    // A library without the function is unloaded again too.
    root.write_file(PATH_LIB_CONFIG, root.read_file(PATH_LIB_NAS));
    EXPECT_EQ(call("get_sms_config", "{}"), R"({"error_msg":"nox_get_sms_config_handler fail","result":-1})" "\n");
}

}  // namespace
