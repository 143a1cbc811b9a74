// Sending the reply: the finished JSON object serialised and written back
// into the request's message object, and the reply shapes handlers share.
#pragma once

#include <json/json.h>

#include <string>

#include "dv.h"

// Writes reply into the message object and wakes the waiting client. A
// client that has already hung up gets nothing, silently.
void dv_reply_json(std::string reply, dv_io* io);

// The usual failure: "error_msg" text (normally the handler's name followed
// by " fail") and "result" -1.
void set_failure(Json::Value& reply, const char* text);

// Serialises reply compactly and sends it with dv_reply_json.
void send_reply(dv_io* io, const Json::Value& reply);

// "result" 0 for status 0, otherwise failure as "error_msg" with "result" -1.
void reply_status(Json::Value& reply, int status, const char* failure);

// The success reply of the commands that hand back what a tool printed:
// "result_out" its base64, "cli_ret", "result" 0.
void reply_tool_output(dv_io* io, const std::string& output, int cli_ret);
