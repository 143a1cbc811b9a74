// The handlers that call platform libraries, in this process so that the
// test can see what they leave behind: no library stays loaded after a call,
// on any path, and every list the libraries hand over is released (a
// sanitizer build checks the latter at exit). Their replies are rows of
// tests/cases/accounts.cases.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "dv.h"
#include "platform/paths.h"
#include "support/handler_service.h"

namespace {

const char* const kLibraries[] = {PATH_LIB_NASAUTH, PATH_LIB_NAS, PATH_LIB_CONFIG};

class PlatformLibs : public testing::Test {
protected:
    std::string call(const std::string& command, const std::string& request = "{}")
    {
        int status = -1;
        std::string reply = service_.call(command, request, &status);
        EXPECT_EQ(status, DV_STATUS_OK) << command;
        return reply;
    }

    // True when the library at this platform path is mapped in this process.
    bool loaded(const char* library)
    {
        void* handle = dlopen(root().abs(library).c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (handle)
            dlclose(handle);
        return handle != nullptr;
    }

    SimRoot& root() { return service_.root(); }

    HandlerService service_;
};

TEST_F(PlatformLibs, NoLibraryStaysLoadedAfterACall)
{
    const struct {
        const char* command;
        const char* request;
    } calls[] = {
        {"vex_auth_add_session", R"({"type": 1, "user": "alice", "sid": "S-1"})"},
        {"vex_auth_get_session", R"({"type": 1, "length": 0, "sid": "S-1"})"},
        {"vex_auth_get_session", R"({"type": 1, "length": 0, "sid": "unknown"})"},
        {"get_all_users", "{}"},
        {"get_all_groups", "{}"},
        {"get_group_members", R"({"group_name": "everyone"})"},
        {"get_group_members", R"({"group_name": "unknown"})"},
        {"get_sms_config", "{}"},
    };
    for (const auto& c : calls) {
        SCOPED_TRACE(c.command);
        EXPECT_NE(call(c.command, c.request).find("\"result\":"), std::string::npos);
        for (const char* library : kLibraries)
            EXPECT_FALSE(loaded(library)) << library;
    }
    EXPECT_EQ(root().calls().size(), std::size(calls));

    // A library without the function is unloaded again too.
    root().write_file(PATH_LIB_CONFIG, root().read_file(PATH_LIB_NAS));
    EXPECT_EQ(call("get_sms_config"), R"({"error_msg":"nox_get_sms_config_handler fail","result":-1})" "\n");
    EXPECT_FALSE(loaded(PATH_LIB_CONFIG));
}

}  // namespace
