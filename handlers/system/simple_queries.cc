// Liveness tests, exec_cli, and the small platform queries and app controls
// that take no arguments: local-display status, generic model, display name,
// disabling the app and renewing its share folders.

#include <cstdlib>
#include <string>

#include "daemon/exec_cli.h"
#include "daemon/exec_policy.h"
#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "platform/paths.h"

namespace {

// exec_cli's own codes are 0, -1 and -2; a refused program has its own.
constexpr int EXEC_CLI_NOT_ALLOWED = -3;

// The app's control script with one action: its wait status, -1 when the
// app has none.
int run_control_script(const char* action)
{
    std::string script;
    return app_control_script(script) ? run_program(script, {action}) : -1;
}

}  // namespace

void nox_test_handler(dv_io* io, int)
{
    Json::Value reply;
    reply["handler"] = "test_handler";
    reply["service"] = "VexProServer-vexprod";
    send_reply(io, reply);
}

void nox_test_sendmail_srv_handler(dv_io* io, int)
{
    Json::Value reply;
    reply["handler"] = "nox_test_sendmail_srv_handler";
    reply["service"] = "VexProServer_send_mail-vexprod";
    send_reply(io, reply);
}

void nox_exec_cli_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string request;
    if (!read_request_text(io, request)) {
        DBG("dv_io input fail.");
        set_input_error(reply);
        send_reply(io, reply);
        return;
    }
    reply["handler"] = "exec_cli_handler";
    reply["service"] = "VexProServer-vexprod";
    // Root may run anything. Anyone else gets no shell or interpreter, and
    // nothing that someone other than root could have swapped in.
    ExecCommand command;
    std::string output, why;
    int code = exec_cli_parse(request, command, &output);
    if (code == 0 && dv_io_uid(io) != 0 && !exec_program_allowed(command.argv[0], why)) {
        const std::string& program = command.argv[0];
        DBG("refused for pid %d uid %d: %s (%s)", dv_io_pid(io), dv_io_uid(io), program.c_str(), why.c_str());
        reply["error_code"] = EXEC_CLI_NOT_ALLOWED;
        reply["error_msg"] = "program not allowed: " + program;
        send_reply(io, reply);
        return;
    }
    if (code == 0)
        code = exec_cli(command, &output);
    reply["error_code"] = code;
    reply[code == 0 ? "result" : "error_msg"] = output;
    send_reply(io, reply);
}

void nox_get_cfg_tvDeck_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string value;
    long status = 0;  // no file, no key, or no number: the display is off
    if (dv_get_ini_info(PATH_UI_CP_CONF, "CP_APP", "tvDeck", value))
        status = strtol(value.c_str(), nullptr, 10);
    reply["error_code"] = 0;
    reply["tvDeck_Status"] = static_cast<Json::Int64>(status);
    send_reply(io, reply);
}

void nox_is_generic_model_handler(dv_io* io, int)
{
    Json::Value reply;
    if (platform_has(PATH_IS_GENERIC_MARKER)) {
        DBG("is generic.");
        reply["result"] = 0;
        reply["is_generic"] = 1;
    } else {
        // Callers read result -1 as "a normal model", not as an error.
        DBG("normal.");
        reply["result"] = -1;
        reply["is_generic"] = 0;
    }
    send_reply(io, reply);
}

void nox_get_platform_display_name_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string name;
    if (dv_get_ini_info(PATH_PLATFORM_CONF, "MISC", "DISPLAY_NAME", name)) {
        reply["result"] = 0;
        reply["platform_display_name"] = name;
    } else {
        set_failure(reply, "nox_get_platform_display_name_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_call_vexpro_disable_handler(dv_io* io, int)
{
    Json::Value reply;
    // The doubled "system" is the text callers match on.
    reply_status(reply, run_control_script("force_stop"), "nox_system_system_call_vexpro_disable_handler fail");
    send_reply(io, reply);
}

void nox_system_call_share_folder_renew_handler(dv_io* io, int)
{
    Json::Value reply;
    reply_status(reply, run_control_script("share_folder_renew"), "nox_system_call_share_folder_renew_handler fail");
    send_reply(io, reply);
}
