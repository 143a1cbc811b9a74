// Browser containers of the web-booth app: create one showing a device's web
// page, delete one, or ask for its status, through the container shell.
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

void nox_web_booth_handler(dv_io* io, int)
{
    Json::Value root, reply;
    if (!parse_request_object(io, root))
        return;
    JsonFields request(root, keys::web_booth);
    const std::string action = request.next_text();
    const std::string token = "token=" + request.next_text();
    const Json::Value& rules = request.next_list();
    if (!request.ok()) {
        reject_request(reply, request.error());
        send_reply(io, reply);
        return;
    }
    if (rules.empty()) {
        DBG("jRuleList is empty");
        reply["error_msg"] = "jRuleList is empty";
        reply["error_code"] = -1;
        send_reply(io, reply);
        return;
    }

    // Only the first rule counts: one container per request.
    JsonFields rule(rules[0], keys::web_booth_rule, "jRuleList[0]");
    const std::string id = "id=" + rule.next_text();
    const std::string des_protocol = rule.next_text();
    const std::string host_name = rule.next_text();
    const int des_port = rule.next_number();
    const std::string open_url = "open_url=" + des_protocol + "://" + host_name + ":" + std::to_string(des_port);
    const std::string type = "type=" + rule.next_text("chrome");
    if (!rule.ok()) {
        reject_request(reply, rule.error());
        send_reply(io, reply);
        return;
    }

    std::vector<std::string> args;
    if (action == "add") {
        args = {"web-booth.container.create", token, open_url, "ttl=300", "resolution=1920x1080", type};
    } else if (action == "delete") {
        args = {"web-booth.container.delete", token, id};
    } else if (action == "get_status") {
        args = {"web-booth.container", token, id};
    } else {
        // The caller learns of it by the connection closing without a reply.
        DBG("unknown action = %s", action.c_str());
        return;
    }

    std::string output;
    int ret = run_program(PATH_VESH, args, output, ArgvLog::elements);
    if (ret != 0) {
        DBG("exec %s failed, ret=[%d]", PATH_VESH, ret);
        return;
    }
    DBG("exec %s succ, ret_out=[%s]", PATH_VESH, output.c_str());
    // What the container shell prints (the container's id and status) is
    // the caller's to read.
    reply_tool_output(io, output, 0);
}
