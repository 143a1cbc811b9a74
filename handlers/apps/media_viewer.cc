// The media-viewer app ("CayinMediaViewer", another vendor's app on the same
// NAS): one command line passed to its own command-line tool, answered with
// the tool's output and whether the app is installed and enabled.
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "daemon/handler_kit.h"
#include "daemon/json.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

const char kViewerSection[] = "CayinMediaViewer";

// The viewer's tool as on the appliance, "<Install_Path>/bin/conf_get", or
// "" when the registry gives the app no Install_Path (an empty one included:
// it would make the system's own /bin/conf_get the viewer's tool).
std::string viewer_tool_path()
{
    std::string install;
    if (!dv_get_ini_info(PATH_APPBOX_CONF, kViewerSection, "Install_Path", install) || install.empty())
        return "";
    char path[512];
    snprintf(path, sizeof(path), "%s/%s", install.c_str(), PATH_CMV_CLI);
    return path;
}

// Whether the tool is there to run; errno says why not. Only an absolute
// path counts: a relative one would be looked up from our own working
// directory, and an empty one would name the platform root itself.
bool viewer_tool_exists(const std::string& tool)
{
    if (tool.empty() || tool[0] != '/') {
        errno = ENOENT;
        return false;
    }
    return platform_has(tool);
}

// The request's "cmd"; false when the text is not JSON or holds no string "cmd".
bool parse_cmd(const std::string& text, std::string& cmd)
{
    Json::Value root;
    bool error = !json_parse(text, root);
    if (!error)
        parser_param_from_json_str(root, keys::cmv_cli[0].key, &cmd, keys::cmv_cli[0].type, &error);
    return !error;
}

bool viewer_enabled()
{
    std::string enable;
    return dv_get_ini_info(PATH_APPBOX_CONF, kViewerSection, "Enable", enable) &&
           strcasecmp(enable.c_str(), "TRUE") == 0;
}

}  // namespace

void nox_cmv_cli_handler(dv_io* io, int)
{
    // Every reply carries all five keys, so callers never test for them.
    std::string output;
    int cli_ret = -1;
    int is_installed = 0;
    int is_enabled = 0;
    Json::Value reply;

    std::string request;
    std::string cmd;
    if (!read_request_text(io, request)) {
        DBG("dv_io input fail. [%s]", io ? io->name : "");
        set_input_error(reply);
    } else if (!parse_cmd(request, cmd)) {
        set_parse_error(reply);
    } else {
        is_enabled = viewer_enabled() ? 1 : 0;
        const std::string tool = viewer_tool_path();
        if (!viewer_tool_exists(tool)) {
            // The message names the tool as on the appliance, so it reads the
            // same whether or not the platform lives under a root here.
            char message[256];
            snprintf(message, sizeof(message), "[%s][%d] cmv_cli_path=[%s] doesnt exist. errno=[%d]", __func__,
                     __LINE__, tool.c_str(), errno);
            output = message;
        } else {
            is_installed = 1;
            // The command line is one argument: the tool, not a shell, splits it.
            cli_ret = run_program(tool, {cmd}, output);
            if (cli_ret == -1) {
                char message[512];
                snprintf(message, sizeof(message), "popen failed, path=[%s], errno=[%d].", tool.c_str(), errno);
                reply["error_msg"] = message;
                reply["error_code"] = -4;
            }
        }
    }

    std::string encoded;
    base64_encode(output, encoded);
    reply["result_out"] = encoded;
    reply["cli_ret"] = cli_ret;
    reply["is_installed"] = is_installed;
    reply["is_enabled"] = is_enabled;
    reply["result"] = reply.isMember("error_code") ? -1 : 0;
    send_reply(io, reply);
}
