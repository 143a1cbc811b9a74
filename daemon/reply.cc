// Sending replies.
#include "daemon/reply.h"

#include "daemon/audit.h"
#include "daemon/json.h"
#include "daemon/strutil.h"

void dv_reply_json(std::string reply, dv_io* io)
{
    if (!io || !dv_io_alive(io))
        return;
    audit_reply(io, reply);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", reply.c_str());
    dv_reply(io);
}

void set_failure(Json::Value& reply, const char* text)
{
    reply["error_msg"] = text;
    reply["result"] = -1;
}

void send_reply(dv_io* io, const Json::Value& reply)
{
    dv_reply_json(json_write(reply), io);
}

void reply_status(Json::Value& reply, int status, const char* failure)
{
    if (status == 0)
        reply["result"] = 0;
    else
        set_failure(reply, failure);
}

void reply_tool_output(dv_io* io, const std::string& output, int cli_ret)
{
    std::string encoded;
    base64_encode(output, encoded);
    Json::Value reply;
    reply["result_out"] = encoded;
    reply["cli_ret"] = cli_ret;
    reply["result"] = 0;
    send_reply(io, reply);
}
