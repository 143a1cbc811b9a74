// Notifications and small queries: forwarding a notification to the app's
// wrapper script (run directly, never through a shell), a cloud-gateway folder's usage figure, the model-line
// query, and handing a notification result back to the app's notify script.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

// A file of the app's: "<Install_Path>/<relative>" (cut to size - 1
// characters, as the app has always had it), as on the appliance. False when the registry gives no absolute Install_Path: a
// relative one would depend on our working directory.
bool app_file(const char* relative, size_t size, std::string& path)
{
    std::string install;
    if (!read_app_value("Install_Path", install) || install[0] != '/')
        return false;
    std::string joined(size, '\0');
    snprintf(joined.data(), size, "%s/%s", install.c_str(), relative);
    joined.resize(joined.find('\0'));
    path = std::move(joined);
    return true;
}

// The value's words as the wrapper has always received them from a shell
// line: split on blanks and tabs. A value holding anything else a shell
// would act on is refused, since no shell is run: the wrapper would see it
// differently from before, and a caller could mean it as a command.
bool shell_words(const std::string& value, std::vector<std::string>& words)
{
    for (const char c : value) {
        const unsigned char u = static_cast<unsigned char>(c);
        if ((u < 0x20 && c != '\t') || u == 0x7f || strchr(";|&<>()$`\\\"'*?[]#~=", c))
            return false;
    }
    words = str_split_to_vector(value, " \t", true);
    return true;
}

}  // namespace

void nox_system_call_nc_notify_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string nc_notify;
    if (fetch_request_args(io, reply, keys::system_call_nc_notify, {&nc_notify})) {
        std::string script;
        int status = -1;
        std::vector<std::string> words;
        if (!shell_words(nc_notify, words))
            DBG("nc_notify holds what a shell would interpret: [%s]; nothing run.", log_text(nc_notify).c_str());
        else if (app_file(PATH_APP_NC_WRAPPER, 512, script))
            // The wrapper itself, its words as arguments: no shell in between.
            status = run_program(script, words);
        reply_status(reply, status, "nox_system_call_nc_notify_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_get_tierlink_cloud_usage_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string full_path;
    if (fetch_request_args(io, reply, keys::system_get_tierlink_cloud_usage, {&full_path})) {
        // The figure as getfattr prints it, even empty when the folder has
        // none: the app interprets it.
        std::string size_info;
        if (run_program(PATH_GETFATTR,
                        {"--only-values", "--absolute-names", "-n", "trusted.tl.cloud_usage", full_path},
                        size_info) != -1) {
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
    if (fetch_request_args(io, reply, keys::notify_return, {&cmd, &type, &acy})) {
        int status = -1;
        std::string script;
        if (cmd != 3)
            DBG("cmd %d is not a notify result; nothing run.", cmd);
        else if (app_file(PATH_APP_NOTIFY_SCRIPT, 256, script))
            // The script takes "acy" before "type", the reverse of the request.
            status = run_program(script, {"NOTIFY_CMD", std::to_string(acy), std::to_string(type)});
        reply_status(reply, status, "nox_return_handler fail");
    }
    send_reply(io, reply);
}
