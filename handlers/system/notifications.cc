// Notifications and small queries: forwarding a notification to the app's
// wrapper script, a cloud-gateway folder's usage figure, the model-line
// query, and handing a notification result back to the app's notify script.
#include <cstdio>
#include <string>

#include "daemon/handler_kit.h"
#include "daemon/log.h"
#include "daemon/runner.h"
#include "handlers/handlers.h"
#include "platform/paths.h"

namespace {

// A file of the app's as the daemon runs it: "<Install_Path>/<relative>"
// (cut to size - 1 characters, as the app has always had it) under the
// platform root. False when the registry gives no absolute Install_Path: a
// relative one would depend on our working directory.
bool app_file(const char* relative, size_t size, std::string& path)
{
    std::string install;
    if (!read_app_value("Install_Path", install) || install[0] != '/')
        return false;
    std::string joined(size, '\0');
    snprintf(joined.data(), size, "%s/%s", install.c_str(), relative);
    joined.resize(joined.find('\0'));
    path = platform_path(joined);
    return true;
}

}  // namespace

void nox_system_call_nc_notify_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string nc_notify;
    if (fetch_request_args(io, reply, {{"nc_notify", &nc_notify}})) {
        std::string script;
        int status = -1;
        if (app_file(PATH_APP_NC_WRAPPER, 512, script)) {
            // The one command line that goes through a shell: the value is
            // inserted unquoted, so its words reach the wrapper as separate
            // arguments, which is what the app sends it for.
            char line[4096] = {};
            snprintf(line, sizeof(line), "%s %s", script.c_str(), nc_notify.c_str());
            status = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, PATH_BIN_SH, "-c", line, nullptr);
        }
        if (status == 0)
            reply["result"] = 0;
        else
            set_failure(reply, "nox_system_call_nc_notify_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_get_tierlink_cloud_usage_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string full_path;
    if (fetch_request_args(io, reply, {{"full_path", &full_path}})) {
        // The figure as getfattr prints it, even empty when the folder has
        // none: the app interprets it.
        std::string size_info;
        if (read_tool_output(PATH_GETFATTR,
                             {"--only-values", "--absolute-names", "-n", "trusted.tl.cloud_usage", full_path.c_str()},
                             size_info)) {
            reply["result"] = 0;
            reply["size_info"] = size_info;
        } else {
            set_failure(reply, "nox_system_get_tierlink_cloud_usage_handler fail");
        }
    }
    send_reply(io, reply);
}

void nox_system_is_ZEL_model_handler(dv_io* io, int)
{
    // Always a normal model: callers have only ever been told 0.
    DBG("normal.");
    Json::Value reply;
    reply["result"] = 0;
    reply["is_ZEL_model"] = 0;
    send_reply(io, reply);
}

void nox_return_handler(dv_io* io, int)
{
    Json::Value reply;
    int32_t cmd = 0, type = 0, acy = 0;
    if (fetch_request_args(io, reply, {{"cmd", &cmd}, {"type", &type}, {"acy", &acy}})) {
        int status = -1;
        std::string script;
        if (cmd != 3)
            DBG("cmd %d is not a notify result; nothing run.", cmd);
        else if (app_file(PATH_APP_NOTIFY_SCRIPT, 256, script))
            // The script takes "acy" before "type", the reverse of the request.
            status = dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, script.c_str(), "NOTIFY_CMD",
                                            std::to_string(acy).c_str(), std::to_string(type).c_str(), nullptr);
        if (status == 0)
            reply["result"] = 0;
        else
            set_failure(reply, "nox_return_handler fail");
    }
    send_reply(io, reply);
}
