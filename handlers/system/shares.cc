// Share and search-index exceptions: locking a recordings share against
// deletion and releasing it, excluding a folder from the search index, and
// setting a share's SMB privileges. Every argument reaches the program as one
// argument of its own, whatever characters it holds.
#include <string>

#include "daemon/handler_kit.h"
#include "daemon/runner.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

void nox_system_call_share_lock_add_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string share_name;
    if (fetch_request_args(io, reply, keys::share_lock, {&share_name})) {
        int status = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, platform_path(PATH_SHARE_LOCK).c_str(), "add",
                                            share_name.c_str(), "VexProServer", nullptr);
        if (status == 0)
            reply["result"] = 0;
        else
            set_failure(reply, "nox_system_call_share_lock_add_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_call_share_lock_remove_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string share_name;
    if (fetch_request_args(io, reply, keys::share_lock, {&share_name})) {
        // A lock is removed by share alone: the owner is not named here.
        int status = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, platform_path(PATH_SHARE_LOCK).c_str(),
                                            "remove", share_name.c_str(), nullptr);
        if (status == 0)
            reply["result"] = 0;
        else
            set_failure(reply, "nox_system_call_share_lock_remove_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_call_tandex_list_add_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string exclude_name, exclude_path;
    if (fetch_request_args(io, reply, keys::system_call_tandex_list_add, {&exclude_name, &exclude_path})) {
        // The app's control script knows how to reach the search product;
        // without one there is nothing to run.
        std::string script;
        int status = -1;
        if (app_control_script(script))
            status = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, script.c_str(), "fabric_tandex_list_add",
                                            exclude_name.c_str(), exclude_path.c_str(), nullptr);
        if (status == 0)
            reply["result"] = 0;
        else
            set_failure(reply, "nox_system_call_tandex_list_add_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_zel_smb_setfolder_priv_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string share_name, command, priv_type;
    if (fetch_request_args(io, reply, keys::system_zel_smb_setfolder_priv,
                           {&share_name, &command, &priv_type})) {
        // The script takes its action first, then the share.
        int status = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, platform_path(PATH_SMB_UPDATE).c_str(),
                                            command.c_str(), share_name.c_str(), priv_type.c_str(), nullptr);
        if (status == 0)
            reply["result"] = 0;
        else
            set_failure(reply, "nox_system_zel_smb_setfolder_priv_handler fail");
    }
    send_reply(io, reply);
}
