// The request envelope every handler shares: reading one typed argument out
// of the request's JSON object, and sending the finished reply text back.
#pragma once

#include <json/json.h>

#include <string>

#include "dv.h"

// Writes reply into the message object and wakes the waiting client. A
// client that has already hung up gets nothing, silently.
void dv_reply_json(std::string reply, dv_io* io);

// Copies member key of root into out, by type:
//   "string" -> std::string, "int" -> int32_t, "long" -> int64_t,
//   "bool"   -> int32_t 1 or 0 (a JSON true/false only, never the text "true").
// Sets *error when the member is missing or null (silently), of another type
// (one "Type fail" log line naming the member's real type), or when type is
// none of the above. *error is never cleared, so one flag can gather the
// failures of several calls; out is left alone on every failure.
void parser_param_from_json_str(Json::Value root, const char* key, void* out, const char* type, bool* error);

// Names the JSON type of member key: "string", "int", "long" (an integer
// beyond 32 bits), "bool", "double" or "Others" (null, array, object, or no
// such member).
void get_json_type(Json::Value root, const char* key, std::string* type_name);
