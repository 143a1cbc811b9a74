// Login sessions of the app registered with, and resolved through, the
// platform's authentication library, loaded for each call.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include "daemon/handler_kit.h"
#include "daemon/platform_lib.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"
#include "platform/platform_libs.h"

std::atomic<auth_add_session_fn> p_auth_add_session{nullptr};
std::atomic<auth_get_session_fn> p_auth_get_session{nullptr};

void nox_vex_auth_add_session_handler(dv_io* io, int)
{
    Json::Value reply;
    int32_t type = 0;
    std::string user, sid;
    if (fetch_request_args(io, reply, keys::vex_auth_add_session, {&type, &user, &sid})) {
        int ret = -1;
        bool called = call_platform_function(
            PATH_LIB_NASAUTH, "auth_add_session", p_auth_add_session,
            [&](auth_add_session_fn fn) { ret = fn(sid.c_str(), user.c_str(), type, ""); });
        reply_status(reply, called ? ret : -1, "nox_vex_auth_add_session_handler fail");
    }
    send_reply(io, reply);
}

void nox_vex_auth_get_session_handler(dv_io* io, int)
{
    Json::Value reply;
    int32_t type = 0, length = 0;
    std::string sid;
    // Callers have always sent "length"; it is required but the buffer is
    // ours, sized for the platform's longest name, never the caller's.
    if (fetch_request_args(io, reply, keys::vex_auth_get_session, {&type, &length, &sid})) {
        char user[AUTH_USER_BUF_LEN] = {};
        int ret = -1;
        bool called = call_platform_function(PATH_LIB_NASAUTH, "auth_get_session", p_auth_get_session,
                                             [&](auth_get_session_fn fn) { ret = fn(sid.c_str(), type, user); });
        if (called && ret == 0) {
            reply["result"] = 0;
            reply["user"] = std::string(user, strnlen(user, sizeof(user)));
        } else {
            set_failure(reply, "nox_vex_auth_get_session_handler fail");
        }
    }
    send_reply(io, reply);
}
