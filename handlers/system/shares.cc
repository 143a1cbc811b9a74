// Share and search-index exceptions: locking a recordings share against
// deletion and releasing it, excluding a folder from the search index, and
// setting a share's SMB privileges. Every argument reaches the program as one
// argument of its own, whatever characters it holds.
#include <string>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

void nox_system_call_share_lock_add_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string share_name;
    if (fetch_request_args(io, reply, keys::share_lock, {&share_name})) {
        reply_status(reply, run_program(PATH_SHARE_LOCK, {"add", share_name, "VexProServer"}),
                     "nox_system_call_share_lock_add_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_call_share_lock_remove_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string share_name;
    if (fetch_request_args(io, reply, keys::share_lock, {&share_name})) {
        // A lock is removed by share alone: the owner is not named here.
        reply_status(reply, run_program(PATH_SHARE_LOCK, {"remove", share_name}),
                     "nox_system_call_share_lock_remove_handler fail");
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
            status = run_program(script, {"fabric_tandex_list_add", exclude_name, exclude_path});
        reply_status(reply, status, "nox_system_call_tandex_list_add_handler fail");
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
        reply_status(reply, run_program(PATH_SMB_UPDATE, {command, share_name, priv_type}),
                     "nox_system_zel_smb_setfolder_priv_handler fail");
    }
    send_reply(io, reply);
}
