// The steps command handlers share, so that each handler reads top to
// bottom: fetch its arguments, do its work, set its reply keys, reply. The
// keys a handler reads are its row's (handlers/registry.h), never its own:
//
//     Json::Value reply;
//     int offset = 0, length = 0;
//     if (fetch_request_args(io, reply, keys::get_vpd_ext_area, {&offset, &length})) {
//         ... work, then reply["result"] = 0 or set_failure(reply, "... fail") ...
//     }
//     send_reply(io, reply);
#pragma once

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "daemon/command_table.h"
#include "dv.h"

// Requests longer than this are refused as "input error"; no command needs
// more than a few kilobytes, and every byte of a request may cost the
// parser a hundred of memory.
inline constexpr size_t REQUEST_TEXT_MAX = 64 << 10;

// The request text: a copy of the memory file up to its first NUL byte. The
// file is read with pread rather than through the shared mapping, because
// the client may shrink its file under us and a mapping would then fault.
// False when there is no text to read: no or an empty memory file, text
// longer than REQUEST_TEXT_MAX, or a read error.
bool read_request_text(dv_io* io, std::string& text);

// Where one argument's value goes, in the order of the row's keys. The
// output's type must fit the key's: std::string "string", int32_t "int" or
// "bool" (a JSON true/false stored as 1/0), int64_t "long".
struct ArgOut {
    const char* type;  // the widest key type the output takes
    void* out;

    ArgOut(std::string* o) : type("string"), out(o) {}
    ArgOut(int32_t* o) : type("int"), out(o) {}
    ArgOut(int64_t* o) : type("long"), out(o) {}
};

// Reads the request text, parses it and fetches every key of keys into the
// output at its place (all of them, so the log names every bad one). True
// when all went well. Otherwise reply already holds the input error and
// nothing must run: no text gives "input error" (logged as "dv_io input
// fail." under the handler's name and line, which default to the caller's);
// text that is not JSON, a missing or mistyped argument, or outputs that do
// not fit the keys give "paser fail"; both with "error_code" -1. root, when
// given, receives the parsed request.
bool fetch_request_args(dv_io* io, Json::Value& reply, T_ARG_POLICY keys, std::initializer_list<ArgOut> outs,
                        Json::Value* root = nullptr, const char* handler = __builtin_FUNCTION(),
                        int line = __builtin_LINE());

// The same, for a handler that has read the request text itself.
bool parse_request_args(const std::string& text, T_ARG_POLICY keys, std::initializer_list<ArgOut> outs,
                        Json::Value* root = nullptr, const char* handler = __builtin_FUNCTION(),
                        int line = __builtin_LINE());

// The two input errors, for handlers that read their request another way.
void set_input_error(Json::Value& reply);  // "input error", "error_code" -1
void set_parse_error(Json::Value& reply);  // "paser fail", "error_code" -1

// The usual failure: "error_msg" text (normally the handler's name followed
// by " fail") and "result" -1.
void set_failure(Json::Value& reply, const char* text);

// Serialises reply compactly and sends it with dv_reply_json.
void send_reply(dv_io* io, const Json::Value& reply);

// One value of the server app's own section ("VexProServer") of the package
// registry, such as "Install_Path" or "Shell". False when it is missing or empty.
bool read_app_value(const char* key, std::string& value);

// The app's control script ("Shell" in the registry), as on the appliance.
// False when the app has none, or a relative one that would depend on our
// working directory.
bool app_control_script(std::string& path);
