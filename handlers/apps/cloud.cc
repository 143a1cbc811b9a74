// The platform's cloud-account tools, run as root for the app: the signed-in
// account's device list, its user token, the cloud host endpoint and site,
// and an access token exchanged for a client identity.
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

// One access-token request: what the app sent, and the arguments made of it.
struct T_DOVEL_VEXPROD_CLOUD_OAUTH {
    std::string client_id;
    std::string client_secret;
    std::string access_token;
    std::vector<std::string> args;  // after argv[0]
};

// One tool's answer on its way back to the app.
struct T_DOVEL_VEXPROD_CLOUD_OAUTH_RESPONSE {
    std::string handler;    // the asking handler, which names the failure
    std::string program;    // the tool that answered, as on the appliance
    std::string output;     // what it printed
    std::string error_msg;  // "<handler> fail" when it did not answer
};

namespace {

// Runs a cloud tool with its output captured. True when it ran and exited
// 0; output then holds what it printed.
bool run_cloud_tool(const char* program, const std::vector<std::string>& args, std::string& output)
{
    const int status = run_program(program, args, output);
    if (status == -1)
        DBG("no temporary file for %s.", program);
    return status == 0;
}

// The tail of every query but the device list: the output goes back base64
// so that whatever the tool prints survives the JSON reply unchanged.
void reply_encoded_output(dv_io* io, const char* handler, const char* program, const std::vector<std::string>& args)
{
    T_DOVEL_VEXPROD_CLOUD_OAUTH_RESPONSE response{handler, program, "", ""};
    if (!run_cloud_tool(program, args, response.output)) {
        response.error_msg = response.handler + " fail";
        Json::Value reply;
        set_failure(reply, response.error_msg.c_str());
        send_reply(io, reply);
        return;
    }
    reply_tool_output(io, response.output, 0);
}

}  // namespace

void nox_system_call_cloud_get_device_list_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string output;
    // The list is JSON already and goes back as the tool printed it.
    if (run_cloud_tool(PATH_NIMBO_DEVICE_TOOL, {"get_device_list", "-d", "PALAVER_IOS"}, output)) {
        reply["device_list"] = output;
        reply["result"] = 0;
    } else {
        set_failure(reply, "nox_system_call_cloud_get_device_list_handler fail");
    }
    send_reply(io, reply);
}

void nox_system_call_cloud_get_user_token_handler(dv_io* io, int)
{
    reply_encoded_output(io, __func__, PATH_NIMBO_CLI, {"-t"});
}

void nox_system_call_cloud_get_host_endpoint_handler(dv_io* io, int)
{
    reply_encoded_output(io, __func__, PATH_GET_NIMBO_HOST, {"-n", "k5_api"});
}

void nox_system_call_cloud_get_host_site_handler(dv_io* io, int)
{
    reply_encoded_output(io, __func__, PATH_GET_NIMBO_HOST, {"-s"});
}

void nox_system_call_cloud_get_access_token_handler(dv_io* io, int)
{
    T_DOVEL_VEXPROD_CLOUD_OAUTH oauth;
    Json::Value reply;
    if (!fetch_request_args(io, reply, keys::system_call_cloud_get_access_token,
                            {&oauth.client_id, &oauth.client_secret, &oauth.access_token})) {
        send_reply(io, reply);
        return;
    }
    // Each value is one argument, whatever it holds: no shell sees them.
    oauth.args = {"signin", "-t", "exchange_token", "-a", oauth.access_token, "-i",
                  oauth.client_id, "-s", oauth.client_secret, "-o", "json"};
    reply_encoded_output(io, __func__, PATH_NIMBO_AUTH_TOOL, oauth.args);
}
